"""Prints the goals of parse_bench from its JSON (standard input): medians of interleaved repetitions."""

import collections
import json
import statistics
import sys

GOALS = [
    ("8", "tokenizer.json -> TokenizerData / simdjson DOM -> the same vectors", "tokenizerOurs/raw",
     "tokenizerSimdjsonVectors/raw", 0.45),
    ("8b", "the same / simdjson's DOM alone", "tokenizerOurs/raw", "tokenizerSimdjsonDom/raw", 1.15),
    ("9", "all non-ASCII escaped / simdjson DOM -> the same vectors", "tokenizerOurs/escaped",
     "tokenizerSimdjsonVectors/escaped", 0.75),
    ("10", "records -> Value / RapidJSON DOM", "treeOurs/records", "treeRapidjson/records", 2.0),
    ("10b", "tokenizer.json -> Value / RapidJSON DOM", "treeOurs/tokenizer", "treeRapidjson/tokenizer", 2.0),
    ("11", "header of 100,000 tensors -> entries / simdjson + entries + sort", "headerOurs", "headerSimdjson", 0.80),
    ("11b", "the same / Python json.loads", "headerOurs", "headerPython", 0.12),
]


def main():
    runs = collections.defaultdict(list)
    for run in json.load(sys.stdin)["benchmarks"]:
        if run["run_type"] == "iteration":
            # Python times itself; everything else is the CPU time of this process.
            manual = "manual_time" in run["run_name"]
            name = run["run_name"].removesuffix("/manual_time").removesuffix("/iterations:1")
            runs[name].append(run["real_time" if manual else "cpu_time"])
    for goal, what, ours, theirs, limit in GOALS:
        mine, other = statistics.median(runs[ours]), statistics.median(runs[theirs])
        ratio = mine / other
        verdict = "reached" if ratio <= limit else "MISSED"
        print(f"{goal:>4}  {what:<66} {ratio:9.3f} x   ({mine:.1f} / {other:.1f} ms, {len(runs[ours])} runs; "
              f"goal {limit:g}) {verdict}")


if __name__ == "__main__":
    main()
