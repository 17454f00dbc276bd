#!/usr/bin/python3
"""Runs tarnssm over three state dimensions and two sets, then tarnssm-summary.

usage: test_summary.py TARNSSM TARNSSM_SUMMARY EXAMPLES_DIR
Exit status 77 (skipped) when matplotlib is missing.
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile

failures = []


def check(cond, what):
    if not cond:
        failures.append(what)
        print("FAIL: " + what)


def run(cmd, cwd):
    return subprocess.run(cmd, cwd=cwd, capture_output=True, text=True, timeout=120)


def expect_error(tool, cwd, args, what):
    r = run([tool] + args, cwd)
    errs = [l for l in r.stderr.splitlines() if l.startswith("ERROR: ")]
    check(r.returncode == 1, "%s: exit status %d, not 1" % (what, r.returncode))
    check(len(errs) == 1, "%s: %d ERROR lines in stderr: %r" % (what, len(errs), r.stderr))
    return errs


def main():
    try:
        import matplotlib  # noqa: F401
    except Exception:
        print("matplotlib is missing: skipped")
        return 77
    tarnssm, tool, examples = (os.path.abspath(a) for a in sys.argv[1:4])
    data = os.path.join(examples, "data", "grunfeld-11firms.txt")
    work = tempfile.mkdtemp(prefix="tarn-summary-")
    try:
        r = run([tarnssm, "-d", "1-3", "-s", "2", "-n", "2", "-l", "30", data], work)
        check(r.returncode == 0, "tarnssm failed: " + r.stderr[-500:])

        # The .B. files, read independently of the tool.
        truth = {}
        for p in glob.glob(os.path.join(work, "result.D*.S*.B.dat")):
            f = open(p).read().rstrip("\n").split("\t")
            truth.setdefault(int(f[0]), []).append(
                (int(f[1]), float(f[2]), float(f[3]), int(f[4]), f[5] == "Monotone", f[6] == "Converged"))
        check(sorted(truth) == [1, 2, 3] and all(len(v) == 2 for v in truth.values()),
              "expected 3 dims x 2 sets of summaries, got %r" % truth)

        plots = os.path.join(work, "plots")
        r = run([tool, "--plots", plots, "result"], work)
        check(r.returncode == 0, "summary failed: " + r.stderr)

        rows = {}
        for line in r.stdout.splitlines():
            f = line.split()
            if f and f[0].isdigit():
                rows[int(f[0])] = f
        check(sorted(rows) == sorted(truth), "table dims %r" % sorted(rows))
        best_k = min(truth, key=lambda k: min(s[2] for s in truth[k]))
        for k, sets in truth.items():
            if k not in rows:
                continue
            f = rows[k]
            best = max(sets, key=lambda s: s[1])
            bics = [s[2] for s in sets]
            lo, hi = f[4].split("..")
            check(int(f[1]) == len(sets), "k=%d: sets %s" % (k, f[1]))
            check(abs(float(f[2]) - best[1]) < 5e-7, "k=%d: best loglik %s vs %f" % (k, f[2], best[1]))
            check(abs(float(f[3]) - best[2]) < 5e-7, "k=%d: BIC %s vs %f" % (k, f[3], best[2]))
            check(abs(float(lo) - min(bics)) < 5e-7 and abs(float(hi) - max(bics)) < 5e-7,
                  "k=%d: BIC range %s" % (k, f[4]))
            check(int(f[5]) == best[3], "k=%d: loops %s vs %d" % (k, f[5], best[3]))
            check(f[6] == "%d/%d" % (sum(s[5] for s in sets), len(sets)), "k=%d: converged %s" % (k, f[6]))
            check(f[7] == "%d/%d" % (sum(s[4] for s in sets), len(sets)), "k=%d: monotone %s" % (k, f[7]))
            check((f[-1] == "*") == (k == best_k), "k=%d: chosen mark wrong (best k %d)" % (k, best_k))

        tsv = os.path.join(work, "result.summary.tsv")
        check(os.path.exists(tsv), "no summary.tsv")
        if os.path.exists(tsv):
            lines = open(tsv).read().splitlines()
            check(lines and lines[0].startswith("k\t"), "tsv header %r" % lines[:1])
            body = [l.split("\t") for l in lines[1:]]
            check(sorted(int(b[0]) for b in body) == sorted(truth), "tsv rows %r" % body)
            check([int(b[0]) for b in body if b[-1] == "*"] == [best_k], "tsv chosen mark")
        for name in ("bic.png", "states.png", "module.png"):
            p = os.path.join(plots, name)
            check(os.path.exists(p) and os.path.getsize(p) > 0, name + " missing or empty")
            if os.path.exists(p):
                check(open(p, "rb").read(8) == b"\x89PNG\r\n\x1a\n", name + " is not a PNG")

        # Another result picked explicitly.
        r = run([tool, "--plots", os.path.join(work, "plots2"), "--k", "1", "--set", "2", "result"], work)
        check(r.returncode == 0 and os.path.getsize(os.path.join(work, "plots2", "states.png")) > 0,
              "--k 1 --set 2 failed: " + r.stderr)

        # Errors: no files; a summary line that does not parse; state columns not matching k.
        expect_error(tool, work, ["nothing"], "no summary files")
        for kind in "ABK":
            shutil.copy(os.path.join(work, "result.D002.S001.%s.dat" % kind),
                        os.path.join(work, "bad.D002.S001.%s.dat" % kind))
        with open(os.path.join(work, "bad.D002.S001.B.dat"), "w") as f:
            f.write("002\t001\tnot-a-number\t12.5\t30\tMonotone\tConverged\n")
        expect_error(tool, work, ["bad"], "unparsable summary line")
        for kind in "AK":
            shutil.copy(os.path.join(work, "result.D002.S001.%s.dat" % kind),
                        os.path.join(work, "cols.D002.S001.%s.dat" % kind))
        shutil.copy(os.path.join(work, "result.D002.S001.B.dat"), os.path.join(work, "cols.D002.S001.B.dat"))
        k_path = os.path.join(work, "cols.D002.S001.K.dat")
        text = open(k_path).read()
        # Drop the last state column of the first Xs block.
        head, rest = text.split("# Xs\n", 1)
        block, tail = rest.split("\n\n", 1)
        block = "\n".join(re.sub(r"\t[^\t]*$", "", l) for l in block.split("\n"))
        open(k_path, "w").write(head + "# Xs\n" + block + "\n\n" + tail)
        errs = expect_error(tool, work, ["cols"], "state columns do not match k")
        check(any("k = 2" in e for e in errs), "column error does not name k: %r" % errs)
    finally:
        if failures:
            print("work dir kept: " + work)
        else:
            shutil.rmtree(work, ignore_errors=True)
    print("%d failures" % len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
