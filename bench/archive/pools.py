"""Endless streams of real bytes, read from files of this machine in the order of their names."""
import os
import random
import zlib

TEXT_ROOTS = ["/usr/include", "/usr/share", "/usr/lib/python3"]
TEXT_SUFFIXES = (".h", ".hpp", ".c", ".txt", ".py", ".pl", ".pm", ".html", ".xml", ".md", ".js",
                 ".css", ".cmake", "copyright", ".po", ".rst", ".sh", ".tex")
PROGRAM_ROOTS = ["/usr/bin", "/usr/lib", "/usr/sbin"]
PACKED_ROOTS = ["/usr/share", "/usr/lib", "/var/cache/apt/archives"]
PACKED_SUFFIXES = (".gz", ".png", ".deb", ".jpg", ".xz", ".whl", ".zip", ".bz2", ".woff2", ".jar")
SMALLEST_PACKED_POOL = 8 << 20


def files_below(roots, is_wanted):
    """Paths of the regular files that are wanted, sorted, each once."""
    found = []
    for root in roots:
        for folder, folders, names in os.walk(root):
            folders.sort()
            for name in sorted(names):
                path = os.path.join(folder, name)
                if not os.path.islink(path) and os.path.isfile(path) and is_wanted(path):
                    found.append(path)
    return found


def first_bytes(path, count):
    try:
        with open(path, "rb") as handle:
            return handle.read(count)
    except OSError:
        return b""


def is_text(path):
    return path.endswith(TEXT_SUFFIXES) and b"\0" not in (first_bytes(path, 4096) or b"\0")


def is_program(path):
    return os.path.getsize(path) >= 8192 and first_bytes(path, 4) == b"\x7fELF"


def is_packed(path):
    return path.endswith(PACKED_SUFFIXES) and os.path.getsize(path) >= 4096


class Pool:
    """Hands out the bytes of the files one after the other, and begins anew behind the last one.

    The second pass begins a little later in each file, so that no piece comes twice.
    """

    def __init__(self, paths):
        if not paths:
            raise SystemExit("archive_bench: this machine has no files to build a corpus from")
        self.paths = paths
        self.next = 0
        self.skip = 0
        self.data = b""
        self.taken = 0

    def take(self, count):
        pieces = []
        while count > 0:
            while self.taken == len(self.data):
                self.data, self.taken = self._next_file(), 0
            piece = self.data[self.taken:self.taken + count]
            self.taken += len(piece)
            pieces.append(piece)
            count -= len(piece)
        return b"".join(pieces)

    def _next_file(self):
        if self.next == len(self.paths):
            self.next = 0
            self.skip += 997
        path = self.paths[self.next]
        self.next += 1
        try:
            with open(path, "rb") as handle:
                handle.seek(self.skip % max(1, os.path.getsize(path)))
                return handle.read()
        except OSError:
            return b""


class PackedPool:
    """Compressed data: of this machine's files, or, where it has hardly any, of deflated text."""

    def __init__(self, text):
        paths = files_below(PACKED_ROOTS, is_packed)
        enough = sum(map(os.path.getsize, paths)) >= SMALLEST_PACKED_POOL
        self.files = Pool(paths) if enough else None
        self.text = text

    def take(self, count):
        if self.files:
            return self.files.take(count)
        pieces = []
        while count > 0:
            piece = zlib.compress(self.text.take(1 << 20), 9)[:count]
            pieces.append(piece)
            count -= len(piece)
        return b"".join(pieces)


class RunsPool:
    """Programs with runs of zeros between, as disk images and databases have them."""

    def __init__(self, programs):
        self.programs = programs
        self.chance = random.Random(4)

    def take(self, count):
        pieces = []
        while count > 0:
            piece = self.programs.take(self.chance.randrange(4 << 10, 64 << 10))
            piece = (piece + bytes(self.chance.randrange(16 << 10, 512 << 10)))[:count]
            pieces.append(piece)
            count -= len(piece)
        return b"".join(pieces)


class Pools:
    """The pools of this machine, each made when it is first asked for."""

    def __init__(self):
        self.made = {}

    def __getitem__(self, kind):
        if kind not in self.made:
            self.made[kind] = self._make(kind)
        return self.made[kind]

    def _make(self, kind):
        if kind == "text":
            return Pool(files_below(TEXT_ROOTS, is_text))
        if kind == "programs":
            return Pool(files_below(PROGRAM_ROOTS, is_program))
        return PackedPool(self["text"]) if kind == "packed" else RunsPool(self["programs"])
