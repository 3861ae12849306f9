"""Installs the peers and builds what is measured."""
import os
import pathlib
import shutil
import subprocess
import sys

from . import tools
from .rounds import say

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = ROOT / "build" / "bench"
BUILD_PACKAGES = ["g++", "cmake", "ninja-build", "libcli11-dev", "nlohmann-json3-dev",
                  "libxxhash-dev", "libbenchmark-dev", "zlib1g-dev", "libdeflate-dev", "liblz4-dev",
                  "libzstd-dev"]


def install(packages):
    """Tries to; what is still missing is left out later and named."""
    done = subprocess.run([ROOT / "scripts" / "packages.sh", *packages], check=False,
                          stdout=sys.stderr)
    if done.returncode != 0:
        say("archive_bench: not all packages could be installed")


def build(target):
    """The path of a program that is built now, or nothing when that cannot be done."""
    if not shutil.which("cmake"):
        return None
    configure = ["cmake", "--preset", "release", "-DCAPSULE_BENCH=ON", "-DCAPSULE_CLI=ON",
                 "-DCAPSULE_TESTS=OFF", "-B", BUILD]
    for command in (configure, ["cmake", "--build", BUILD, "--target", target]):
        if subprocess.run(command, cwd=ROOT, stdout=sys.stderr, check=False).returncode != 0:
            return None
    return BUILD / ("cli/capsule" if target == "capsule_cli" else f"bench/{target}")


def programs(options):
    """The paths of the command, which has to be there, and of range_bench, which may be missing."""
    if not options.no_install:
        install(tools.PACKAGES)
        install(BUILD_PACKAGES)
    if not shutil.which("time"):
        raise SystemExit("archive_bench: GNU time is needed to measure memory")
    capsule = options.capsule or build("capsule_cli")
    if not capsule or not shutil.which(capsule):
        raise SystemExit("archive_bench: there is no capsule command to measure")
    wants_reads = not options.no_extras
    range_bench = wants_reads and (options.range_bench or build("range_bench"))
    return os.path.abspath(capsule), str(range_bench or "")
