"""Capsule's command and its peers: how each makes, lists and extracts an archive of a folder.

All run with the processors that they take by themselves, and store no extended attributes, since
images of Capsule have none. Words of the commands are templates: {source}, {archive} and {target}
are paths; the target is an empty folder.
"""
import dataclasses
import shutil
import subprocess

PACKAGES = ["squashfs-tools", "wimtools", "p7zip-full", "zip", "unzip", "tar", "lz4", "strace",
            "time", "e2fsprogs"]


@dataclasses.dataclass(frozen=True)
class Tool:
    name: str
    create: tuple
    extract: tuple = ()
    list: tuple = ()
    inside: bool = False  # creates with the source as its working folder
    ours: bool = False

    def programs(self):
        """What has to be installed; a list or extraction may come from a program of its own."""
        return {words[0] for words in (self.create, self.extract, self.list) if words}

    def command(self, operation, **paths):
        return [word.format(**paths) for word in getattr(self, operation)]


def capsule_tools(program, jobs):
    """One tool a level. `jobs` is what -j is given; None leaves it out."""
    workers = () if jobs is None else ("-j", str(jobs))
    return [Tool(f"capsule -{level}",
                 (program, "create", f"-{level}", *workers, "{archive}", "{source}"),
                 (program, "extract", *workers, "{archive}", "-C", "{target}"),
                 (program, "list", "-R", "{archive}"), ours=True)
            for level in (0, 1, 5, 9)]


def squashfs(name, *compression):
    return Tool(f"mksquashfs {name} 8K",
                ("mksquashfs", "{source}", "{archive}", "-noappend", "-no-progress", "-quiet",
                 "-no-xattrs", "-b", "8K", "-comp", *compression),
                ("unsquashfs", "-no-progress", "-quiet", "-no-xattrs", "-d", "{target}/out",
                 "{archive}"),
                ("unsquashfs", "-l", "{archive}"))


PEERS = [
    squashfs("lz4", "lz4"),
    squashfs("gzip-1", "gzip", "-Xcompression-level", "1"),
    squashfs("gzip-9", "gzip", "-Xcompression-level", "9"),
    Tool("wimlib fast",
         ("wimlib-imagex", "capture", "{source}", "{archive}", "--compress=fast"),
         ("wimlib-imagex", "apply", "{archive}", "1", "{target}"),
         ("wimlib-imagex", "dir", "{archive}", "1")),
    Tool("7z -mx=1",
         ("7z", "a", "-t7z", "-bso0", "-bsp0", "-mx=1", "{archive}.7z", "."),
         ("7z", "x", "-bso0", "-bsp0", "-o{target}", "{archive}.7z"),
         ("7z", "l", "{archive}.7z"), inside=True),
    Tool("zip",
         ("zip", "-q", "-X", "-r", "{archive}.zip", "."),
         ("unzip", "-q", "{archive}.zip", "-d", "{target}"),
         ("unzip", "-l", "{archive}.zip"), inside=True),
    Tool("tar, lz4",
         ("tar", "-I", "lz4", "-cf", "{archive}", "."),
         ("tar", "-I", "lz4", "-xf", "{archive}", "-C", "{target}"),
         ("tar", "-I", "lz4", "-tf", "{archive}"), inside=True),
    Tool("cp -r", ("cp", "-r", "{source}", "{archive}")),
]


def is_installed(tool):
    needed = tool.programs() | ({"lz4"} if tool.name.startswith("tar") else set())
    return all(shutil.which(program) for program in needed)


def takes_jobs(program):
    """Whether this Capsule has -j, both to create and to extract."""
    def says_so(command):
        told = subprocess.run([program, command, "--help"], capture_output=True, text=True,
                              check=False)
        return any(line.split(",")[0].split()[:1] == ["-j"] for line in told.stdout.splitlines())
    return all(map(says_so, ("create", "extract")))


def version(program):
    """The line in which the program says its version, or nothing."""
    flag = {"mksquashfs": "-version", "7z": "", "zip": "-v"}.get(program, "--version")
    told = subprocess.run([program] + [flag] * bool(flag), capture_output=True, text=True,
                          check=False, stdin=subprocess.DEVNULL)
    lines = [line for line in (told.stdout + told.stderr).splitlines()
             if any(letter.isdigit() for letter in line)]
    starts = {"zip": "This is Zip"}.get(program, "")
    lines = [line for line in lines if line.startswith(starts)]
    return lines[0].strip() if lines else program
