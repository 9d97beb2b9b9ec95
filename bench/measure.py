"""Measures one run of a command: its times with hyperfine, its memory and page faults with GNU time."""

import dataclasses
import json
import os
import pathlib
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

GNU_TIME = "/usr/bin/time"
PACKAGES = {"hyperfine": "hyperfine", GNU_TIME: "time"}
SKIPPED = 77


@dataclasses.dataclass
class Timed:
    """Seconds of one run; what times itself has only `wall`."""

    wall: float
    user: float | None = None
    system: float | None = None
    major_faults: int | None = None


@dataclasses.dataclass
class Watched:
    """Bytes that one run held at most: all resident pages, and the anonymous ones among them."""

    peak: int
    anonymous: int


def require_tools(quick):
    """Ends the program where it cannot measure. A quick pass, which is a test, counts as skipped then."""
    missing = [package for tool, package in PACKAGES.items() if not shutil.which(tool)]
    what = f"{' and '.join(missing)} not installed (scripts/install-deps bench)"
    if not missing:
        if os.path.exists(f"/proc/self/task/{os.getpid()}/children"):
            return
        what = "this kernel does not tell the children of a process (CONFIG_PROC_CHILDREN)"
    if not quick:
        sys.exit(f"measure: {what}")
    print(f"SKIPPED: {what}")
    sys.exit(SKIPPED)


def timed(argv, output=None):
    """Runs argv once, without a shell, its standard output in the file `output` or nowhere.

    One call of hyperfine a run, since in one call all runs of a command come before those of the next, and pairs
    are to stay interleaved. It opens `output` as a shell's `>` does, before its clock starts. GNU time stands
    around hyperfine, where its own start is in nobody's seconds; hyperfine is in memory and adds no major fault.
    """
    with tempfile.TemporaryDirectory() as directory:
        times, usage = pathlib.Path(directory, "times.json"), pathlib.Path(directory, "usage")
        # Without a slash the name of the file could be one of hyperfine's own words, as `null`.
        where = os.path.abspath(output) if output else "null"
        hyperfine = ["hyperfine", "--runs", "1", "--warmup", "0", "--shell=none", "--style", "none",
                     "--output", where, "--export-json", str(times), "--", shlex.join(argv)]
        if subprocess.run([GNU_TIME, "-v", "-o", str(usage), *hyperfine]).returncode != 0:
            sys.exit(f"measure: {shlex.join(argv)} failed")
        (result,) = json.loads(times.read_text())["results"]
        (wall,) = result["times"]
        return Timed(wall, result["user"], result["system"], usage_of(usage, "Major (requiring I/O) page faults"))


def self_timed(script, *arguments):
    """Runs a Python script of this directory that prints the seconds of what it does, without its own start."""
    path = pathlib.Path(__file__).with_name(script)
    answer = subprocess.run(["/usr/bin/python3", str(path), *map(str, arguments)],
                            check=True, stdout=subprocess.PIPE, text=True)
    return Timed(float(answer.stdout))


def watched(argv):
    """Runs argv once, its output nowhere. Not for times: the anonymous memory is looked at again and again."""
    with tempfile.TemporaryDirectory() as directory:
        usage = pathlib.Path(directory, "usage")
        child = subprocess.Popen([GNU_TIME, "-v", "-o", str(usage), *argv], stdout=subprocess.DEVNULL)
        anonymous = 0
        while child.poll() is None:
            anonymous = max(anonymous, anonymous_bytes_of_child(child.pid))
            time.sleep(0.001)
        if child.returncode != 0:
            sys.exit(f"measure: {shlex.join(argv)} ended with {child.returncode}")
        return Watched(usage_of(usage, "Maximum resident set size (kbytes)") * 1024, anonymous)


def usage_of(report, name):
    """One number of what `time -v` wrote."""
    for line in report.read_text().splitlines():
        if line.startswith(f"\t{name}: "):
            return int(line.rpartition(" ")[2])
    sys.exit(f"measure: {GNU_TIME} tells no '{name}'")


def anonymous_bytes_of_child(parent):
    """What the only child of `parent` itself holds at this moment, which no tool tells: file pages come and go
    with their mapping. 0 where there is no child yet, or no more."""
    try:
        child = pathlib.Path(f"/proc/{parent}/task/{parent}/children").read_text().split()
        if not child:
            return 0
        for line in pathlib.Path(f"/proc/{child[0]}/status").read_text().splitlines():
            if line.startswith("RssAnon:"):
                return int(line.split()[1]) * 1024
    except (FileNotFoundError, ProcessLookupError):
        pass
    return 0
