#!/usr/bin/env python3
"""Runs two or more builds of tarn_bench in turns and prints, per benchmark,
the best time of each (microseconds) and the ratio of the first to the
second; a benchmark that one build lacks shows a dash there. Taking the best
of interleaved runs keeps the load of a shared machine out of the comparison.

    bench/compare.py REGEX OLD/tarn_bench NEW/tarn_bench [ROUNDS]
"""
import collections
import json
import subprocess
import sys


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    pattern, bins = sys.argv[1], sys.argv[2:4]
    rounds = int(sys.argv[4]) if len(sys.argv) > 4 else 5
    best = collections.defaultdict(dict)
    for _ in range(rounds):
        for b in bins:
            out = subprocess.run([b, "--benchmark_filter=" + pattern, "--benchmark_min_time=0.1",
                                  "--benchmark_repetitions=3", "--benchmark_format=json"],
                                 capture_output=True, text=True, check=True).stdout
            for r in json.loads(out)["benchmarks"]:
                if r.get("run_type") == "iteration":
                    d = best[r["name"]]
                    d[b] = min(d.get(b, float("inf")), r["real_time"])
    for name, d in best.items():
        times = "  ".join("%10.1f" % d[b] if b in d else "%10s" % "-" for b in bins)
        both = len(bins) > 1 and all(b in d for b in bins)
        ratio = "   x%.2f" % (d[bins[0]] / d[bins[1]]) if both else ""
        print("%-28s %s%s" % (name, times, ratio))


if __name__ == "__main__":
    main()
