"""Whole imports beside `cat` and friends, in interleaved pairs; see bench/import.sh."""

import argparse
import json
import os
import pathlib
import shutil
import statistics
import struct
import subprocess
import tempfile

from measure import require_tools, self_timed, timed, watched


def summary(values):
    return {
        "median": statistics.median(values),
        "min": min(values),
        "max": max(values),
        "runs": len(values),
    }


def shards(model):
    return sorted(model.glob("*.safetensors"))


def warm(paths):
    for path in paths:
        with open(path, "rb") as file:
            while file.read(1 << 24):
                pass


def cold(paths):
    """Drops the files' pages; False where that is not allowed."""
    os.sync()
    for path in paths:
        with open(path, "rb") as file:
            os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def touch_memory(bytes_wanted):
    """Uses and frees memory before a timed run. On a virtual machine that gives free pages back to its host,
    the first use of a page is many times slower than the copy that is measured. By large pages, since what
    is given back are blocks of that size."""
    code = (f"import mmap; m = mmap.mmap(-1, {max(bytes_wanted, 4096)}, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS); "
            "m.madvise(mmap.MADV_HUGEPAGE); [m.write(b'x' * (1 << 20)) for _ in range(len(m) >> 20)]")
    subprocess.run(["/usr/bin/python3", "-c", code], check=True)


class Bench:
    def __init__(self, args):
        self.okv2 = str(pathlib.Path(args.build) / "bin" / "okv2")
        self.args = args
        self.results = {}

    def sample(self, directory, *options):
        subprocess.run([self.okv2, "sample", str(directory), *options], check=True, stderr=subprocess.DEVNULL)
        return directory

    def check(self, container):
        subprocess.run([self.okv2, "verify", str(container)], check=True, stdout=subprocess.DEVNULL)

    def importing(self, model, out, measure=timed):
        self.prepare(model, out)
        return measure([self.okv2, "import", "-q", str(model), "-o", str(out)])

    def cat(self, model, out):
        self.prepare(model, out)
        return timed(["cat", *map(str, shards(model))], output=out)

    def prepare(self, model, out):
        out.unlink(missing_ok=True)
        touch_memory(sum(file.stat().st_size for file in shards(model)) * 5 // 4)

    def ratio(self, goal, what, limit, ours, theirs, pairs=None):
        """Alternates ours() and theirs(); keeps the ratio of each pair."""
        os.sync()  # what was written before is not for these runs to write back
        ratios, our_runs, their_runs = [], [], []
        for k in range(pairs or self.args.pairs):
            # Each goes first in every other pair: what the first leaves behind in the kernel hits both alike.
            if k % 2 == 0:
                their_runs.append(theirs())
                our_runs.append(ours())
            else:
                our_runs.append(ours())
                their_runs.append(theirs())
            ratios.append(our_runs[-1].wall / their_runs[-1].wall)
        self.results[goal] = {
            "what": what,
            "limit": limit,
            "unit": "x",
            **summary(ratios),
            "ours_s": summary([run.wall for run in our_runs]),
            "theirs_s": summary([run.wall for run in their_runs]),
        }
        self.show(goal)
        return our_runs

    def value(self, goal, what, limit, unit, values):
        self.results[goal] = {"what": what, "limit": limit, "unit": unit, **summary(values)}
        self.show(goal)

    def show(self, goal):
        row = self.results[goal]
        verdict = "reached" if row["median"] <= row["limit"] else "MISSED"
        print(
            f"{goal:>4}  {row['what']:<62} {row['median']:9.3f} {row['unit']:<3} "
            f"(min {row['min']:.3f}, max {row['max']:.3f}; goal {row['limit']:g}) {verdict}",
            flush=True,
        )

    def run(self):
        args = self.args
        with tempfile.TemporaryDirectory(dir=args.work, prefix="okv2-bench-") as work:
            work = pathlib.Path(work)
            model = self.sample(work / "model", "--size", args.size, "--shards", "4")
            files = shards(model)
            model_bytes = sum(file.stat().st_size for file in files)
            tokenizer_bytes = (model / "tokenizer.json").stat().st_size
            tensors = count_tensors(files)
            out = work / "out"
            warm(files)
            self.importing(model, out)
            self.check(out)

            ours = self.ratio("1", f"import of {args.size}, {tensors} tensors, 4 shards, to disk / cat", 1.0,
                              lambda: self.importing(model, out), lambda: self.cat(model, out))
            self.value("4", "user CPU of goal 1", 0.03, "s", [run.user for run in ours])
            limit = (tensors * 1024 + 5.5 * tokenizer_bytes + 2e6) / 1e6
            held = [self.importing(model, out, measure=watched) for _ in range(3)]
            self.value("5", "peak memory of goal 1", 128, "MB", [run.peak / 1e6 for run in held])
            self.value("6", "anonymous memory of goal 1, the command's own included", limit, "MB",
                       [run.anonymous / 1e6 for run in held])
            if has_numpy():
                def numpy_loop():
                    self.prepare(model, out)
                    return self_timed("numpy_copy.py", out, *files)

                self.ratio("3", "import / numpy memmap tofile loop", 0.60,
                           lambda: self.importing(model, out), numpy_loop)
            out.unlink(missing_ok=True)

            memory_out = pathlib.Path(args.memory) / f"okv2-bench-{os.getpid()}"
            try:
                self.ratio("2", "import into tmpfs / cat", 1.10,
                           lambda: self.importing(model, memory_out), lambda: self.cat(model, memory_out))
            finally:
                memory_out.unlink(missing_ok=True)

            self.cold(model, files, model_bytes, out)
            shutil.rmtree(model)
            out.unlink(missing_ok=True)

            count = "1000" if args.quick else "100000"
            small = self.sample(work / "small", "--tensors", count,
                                "--size", "2M" if args.quick else "220M")
            warm(shards(small))
            # A tenth of a second each, which anything else on the machine moves: more of them.
            self.ratio("7", f"import of {count} small tensors / cat", 2.0,
                       lambda: self.importing(small, out), lambda: self.cat(small, out), 3 * args.pairs)
            self.check(out)

    def cold(self, model, files, model_bytes, out):
        plan = model.with_name("plan.json")
        with open(plan, "wb") as file:
            subprocess.run([self.okv2, "plan", "--json", str(model)], check=True, stdout=file)

        def read_write_loop():
            self.prepare(model, out)
            cold(files)
            return self_timed("read_write_loop.py", out, plan)

        def ours():
            self.prepare(model, out)
            cold(files)
            return timed([self.okv2, "import", "-q", str(model), "-o", str(out)])

        runs = self.ratio("12", "cold cache: import / pread-write loop of 256 KB, same order", 1.15, ours,
                          read_write_loop)
        self.value("12b", "cold cache: major faults a MB", 1, "", [
            run.major_faults / (model_bytes / 1e6) for run in runs])


def count_tensors(files):
    total = 0
    for path in files:
        with open(path, "rb") as file:
            (length,) = struct.unpack("<Q", file.read(8))
            header = json.loads(file.read(length))
        total += len(header) - ("__metadata__" in header)
    return total


def has_numpy():
    return subprocess.run(["/usr/bin/python3", "-c", "import numpy"], stderr=subprocess.DEVNULL).returncode == 0


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", help="a release build directory with bin/okv2")
    parser.add_argument("--size", default="2G")
    parser.add_argument("--pairs", type=int, default=15)
    parser.add_argument("--work")
    parser.add_argument("--memory", default="/dev/shm")
    parser.add_argument("--json")
    parser.add_argument("--quick", action="store_true", help="small inputs, one pair: checks answers only")
    args = parser.parse_args()
    if args.quick:
        args.size, args.pairs = "4M", 1
    require_tools(args.quick)
    args.work = args.work or args.build
    bench = Bench(args)
    bench.run()
    if args.json:
        pathlib.Path(args.json).write_text(json.dumps(bench.results, indent=1))


if __name__ == "__main__":
    main()
