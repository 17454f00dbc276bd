#!/usr/bin/env python3
"""Writes a simulated input table for timing runs: P objects driven by a
hidden state of dimension 4, T time points, REPS replicates, about 5% of the
cells missing (NaN), measurement noise of standard deviation NOISE (0.5; a
small NOISE makes a table of high signal to noise).

    bench/make_data.py P T REPS [SEED [NOISE]] > data.txt
"""
import math
import random
import sys


def main():
    p, T, reps = (int(a) for a in sys.argv[1:4])
    rng = random.Random(int(sys.argv[4]) if len(sys.argv) > 4 else 1)
    noise = float(sys.argv[5]) if len(sys.argv) > 5 else 0.5
    k = 4
    # A slowly turning, slightly damped state.
    c, s = 0.95 * math.cos(0.4), 0.95 * math.sin(0.4)
    F = [[c, -s, 0, 0], [s, c, 0, 0], [0, 0, 0.9, 0.2], [0, 0, -0.2, 0.9]]
    H = [[rng.gauss(0, 1) for _ in range(k)] for _ in range(p)]
    out = sys.stdout
    out.write("# Simulated: %d objects, state dimension %d, %d time points, %d replicates, ~5%% missing, noise %g.\n" % (p, k, T, reps, noise))
    out.write("@time\t" + "\t".join(str(t + 1) for _ in range(reps) for t in range(T)) + "\n")
    out.write("@replicate\t" + "\t".join(str(r + 1) for r in range(reps) for _ in range(T)) + "\n")
    columns = []
    for _ in range(reps):
        x = [rng.gauss(0, 1) for _ in range(k)]
        for _ in range(T):
            x = [sum(F[i][j] * x[j] for j in range(k)) + rng.gauss(0, 0.3) for i in range(k)]
            columns.append(list(x))
    for i in range(p):
        cells = []
        for x in columns:
            if rng.random() < 0.05:
                cells.append("NaN")
            else:
                y = sum(H[i][j] * x[j] for j in range(k)) + rng.gauss(0, noise)
                cells.append("%.6f" % y)
        out.write("o%06d\t%s\n" % (i + 1, "\t".join(cells)))


if __name__ == "__main__":
    main()
