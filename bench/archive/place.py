"""A place for corpora, archives and what comes out of them, on a file system that is fair to all.

Memory (tmpfs) is best: syncing costs nothing there, and no tool waits for a disk. Where there is
too little of it, an ext4 file system in a file is mounted, which needs root. An overlay is never
taken: folders that were removed from it make the next ones of the same name slow.
"""
import os
import shutil
import subprocess
import sys
import tempfile

MEMORY = "/dev/shm"


def kind_of(path):
    """The type of the file system that holds `path`, as the kernel names it."""
    path = os.path.realpath(path)
    best = ("", "unknown")
    with open("/proc/mounts", encoding="utf-8", errors="surrogateescape") as mounts:
        for line in mounts:
            point, kind = line.split()[1:3]
            point = point.replace("\\040", " ")
            inside = path == point or path.startswith(point.rstrip("/") + "/")
            if inside and len(point) >= len(best[0]):
                best = (point, kind)
    return best[1]


def available_memory():
    with open("/proc/meminfo", encoding="ascii") as lines:
        for line in lines:
            if line.startswith("MemAvailable:"):
                return int(line.split()[1]) * 1024
    return 0


def has_room(path, size, files):
    """Whether the file system takes so much; of memory, a quarter stays free for the tools."""
    room = os.statvfs(path)
    free = room.f_bavail * room.f_frsize
    if kind_of(path) == "tmpfs":
        free = min(free, available_memory() * 3 // 4)
    return free >= size and (room.f_files == 0 or room.f_favail >= files)


class Place:
    """The work folder. Leaving it removes what was made, unless it is to be kept."""

    def __init__(self, folder, keep, size, files):
        self.folder = folder
        self.keep = keep
        self.size = size
        self.files = files
        self.image = None
        self.is_new = folder is None or not os.path.exists(folder)

    def __enter__(self):
        try:
            self._take()
            return self
        except BaseException:
            self.__exit__()
            raise

    def _take(self):
        if self.folder:
            os.makedirs(self.folder, exist_ok=True)
        elif os.path.isdir(MEMORY) and has_room(MEMORY, self.size, self.files):
            self.folder = tempfile.mkdtemp(prefix="archive_bench.", dir=MEMORY)
        else:
            self._mount_ext4()
        self.kind = kind_of(self.folder)
        if self.kind == "overlay":
            raise SystemExit(f"archive_bench: {self.folder} is on an overlay; name another --work")
        if not has_room(self.folder, self.size, self.files):
            raise SystemExit(f"archive_bench: {self.folder} lacks room: {self.size >> 20} MiB and "
                             f"{self.files} files are needed")

    def _mount_ext4(self):
        if os.geteuid() != 0:
            raise SystemExit("archive_bench: too little memory for a work folder, and mounting one "
                             "needs root; name a folder with --work")
        self.image = tempfile.NamedTemporaryFile(prefix="archive_bench.", dir="/var/tmp")
        os.truncate(self.image.name, self.size * 5 // 4)
        subprocess.run(["mkfs.ext4", "-q", "-F", "-i", "4096", self.image.name], check=True)
        self.folder = tempfile.mkdtemp(prefix="archive_bench.")
        subprocess.run(["mount", "-o", "loop", self.image.name, self.folder], check=True)

    def __exit__(self, *_):
        if self.keep and self.folder:
            print(f"archive_bench: the corpora stay in {self.folder}", file=sys.stderr)
        if self.keep or not self.folder:
            return
        if self.image:
            if os.path.ismount(self.folder):
                subprocess.run(["umount", self.folder], check=True)
            os.rmdir(self.folder)
            self.image.close()
        elif self.is_new:
            shutil.rmtree(self.folder)
        else:
            for name in ("corpora", "scratch"):
                shutil.rmtree(os.path.join(self.folder, name), ignore_errors=True)

    def path(self, name):
        """A path in the scratch folder where nothing is."""
        scratch = os.path.join(self.folder, "scratch")
        os.makedirs(scratch, exist_ok=True)
        path = os.path.join(scratch, name)
        remove(path)
        return path


def remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    elif os.path.lexists(path):
        os.remove(path)
