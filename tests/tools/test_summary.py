#!/usr/bin/python3
"""tarnssm-summary over real runs of tarnssm: the table, D against numpy, names, failed and
missing sets, the edge of k, the --each layout and the error exits.

usage: test_summary.py TARNSSM TARNSSM_SUMMARY EXAMPLES_DIR
Exit status 77 (skipped) when matplotlib or numpy is missing.
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile

failures = []
REPS = {"1": "7", "2": "3", "3": "5"}     # replicate labels of the renamed table, in order


def check(cond, what):
    if not cond:
        failures.append(what)
        print("FAIL: " + what)


def run(cmd, cwd):
    return subprocess.run(cmd, cwd=cwd, capture_output=True, text=True, timeout=120)


def expect_error(tool, cwd, args, what):
    r = run([tool] + args, cwd)
    errs = [l for l in r.stderr.splitlines() if l.startswith("ERROR: ")]
    check(r.returncode == 1 and len(errs) == 1, "%s: status %d, stderr %r" % (what, r.returncode, r.stderr))
    return errs


def tsv(path):
    lines = open(path).read().splitlines()
    head = lines[0].split("\t")
    return [dict(zip(head, l.split("\t"))) for l in lines[1:]]


def renamed_table(src, dst):
    """The example with renamed header keys, replicate labels 7, 3, 5 and an ignored @TIME line."""
    out = []
    for line in open(src).read().split("\n"):
        if line.startswith("@time"):
            out += ["$PrimaryKeyGroupID\thour", "$SecondaryKeyGroupID\trep", "@hour" + line[5:], "@TIME\t9"]
        elif line.startswith("@replicate"):
            out.append("\t".join(["@rep"] + [REPS[x] for x in line.split("\t")[1:]]))
        else:
            out.append(line)
    open(dst, "w").write("\n".join(out))
    return [l.split("\t")[0] for l in out if l and l[0] not in "#$@"]


def module_from_model(np, work, prefix, k, s, each=False):
    """D = diag(L)^-1 H' R^-1/2 with L = diag(H' R^-1 H), from the model files."""
    if each:
        h = np.loadtxt(os.path.join(work, "%s.D%03d.S%03d.H.dat" % (prefix, k, s)), ndmin=2)
        r = np.loadtxt(os.path.join(work, "%s.D%03d.S%03d.R.dat" % (prefix, k, s)), ndmin=1)
    else:
        text = open(os.path.join(work, "%s.D%03d.S%03d.A.dat" % (prefix, k, s))).read()
        block = lambda name: np.array([[float(x) for x in l.split("\t")] for l in
                                       re.search(name + r"\t\d+\t\d+\n(.*?)\n\n", text, re.S).group(1).split("\n")])
        h, r = block("SSM::H"), block("SSM::R")[:, 0]
    lv = np.diag(h.T @ np.diag(1 / r) @ h)
    return np.diag(1 / lv) @ h.T @ np.diag(r ** -0.5)


def check_module(np, work, prefix, k, s, names, each=False):
    path = os.path.join(work, "%s.D%03d.S%03d.module.tsv" % (prefix, k, s))
    check(os.path.exists(path), "%s missing" % path)
    if not os.path.exists(path):
        return
    rows = tsv(path)
    d = np.array([[float(row["x%d" % (j + 1)]) for j in range(k)] for row in rows]).T
    want = module_from_model(np, work, prefix, k, s, each)
    check([row["object"] for row in rows] == names, "%s: object names %r" % (path, [r["object"] for r in rows][:5]))
    check(d.shape == want.shape and np.allclose(d, want, rtol=1e-7, atol=0),
          "%s: D differs from diag(L)^-1 H' R^-1/2, largest error %g"
          % (path, np.max(np.abs(d - want)) if d.shape == want.shape else -1))


def check_pngs(plots, names):
    for name in names:
        p = os.path.join(plots, name)
        check(os.path.exists(p) and open(p, "rb").read(8) == b"\x89PNG\r\n\x1a\n", p + " missing or not a PNG")


def plant(work, prefix, k, s, new_set, bic=None, loglik=None, nan_in_model=False):
    """A copy of a set under a new set number, its summary and/or model spoiled."""
    for kind in "ABK":
        shutil.copy(os.path.join(work, "%s.D%03d.S%03d.%s.dat" % (prefix, k, s, kind)),
                    os.path.join(work, "%s.D%03d.S%03d.%s.dat" % (prefix, k, new_set, kind)))
    b_path = os.path.join(work, "%s.D%03d.S%03d.B.dat" % (prefix, k, new_set))
    f = open(b_path).read().rstrip("\n").split("\t")
    f[1] = "%03d" % new_set
    f[2] = loglik or f[2]
    f[3] = bic or f[3]
    open(b_path, "w").write("\t".join(f) + "\n")
    if nan_in_model:
        a_path = os.path.join(work, "%s.D%03d.S%03d.A.dat" % (prefix, k, new_set))
        lines = open(a_path).read().split("\n")
        i = lines.index(next(l for l in lines if l.startswith("SSM::R"))) + 1
        lines[i] = "nan"
        open(a_path, "w").write("\n".join(lines))


def main():
    try:
        import matplotlib  # noqa: F401
        import numpy as np
    except Exception:
        print("matplotlib or numpy is missing: skipped")
        return 77
    tarnssm, tool, examples = (os.path.abspath(a) for a in sys.argv[1:4])
    work = tempfile.mkdtemp(prefix="tarn-summary-")
    try:
        data = os.path.join(work, "renamed.txt")
        names = renamed_table(os.path.join(examples, "data", "sim-expression.txt"), data)
        r = run([tarnssm, "-d", "2-4", "-s", "2", "-n", "2", "-l", "30", data], work)
        check(r.returncode == 0, "tarnssm failed: " + r.stderr[-500:])

        # The table against the .B. files, read independently.
        truth = {}
        for p in glob.glob(os.path.join(work, "result.D*.S*.B.dat")):
            f = open(p).read().rstrip("\n").split("\t")
            truth.setdefault(int(f[0]), []).append((int(f[1]), float(f[2]), float(f[3]), int(f[4])))
        plots = os.path.join(work, "plots")
        r = run([tool, "--data", data, "--plots", plots, "result"], work)
        check(r.returncode == 0, "summary failed: " + r.stderr)
        rows = {int(t["k"]): t for t in tsv(os.path.join(work, "result.summary.tsv"))}
        check(sorted(rows) == sorted(truth) == [2, 3, 4], "table dims %r vs %r" % (sorted(rows), sorted(truth)))
        best_k = min(truth, key=lambda k: min(s[2] for s in truth[k]))
        for k, sets in truth.items():
            t, best = rows.get(k, {}), max(sets, key=lambda s: s[1])
            got = (int(t.get("best_set", 0)), float(t.get("best_loglik", 0)), float(t.get("bic", 0)),
                   int(t.get("loops", 0)), float(t.get("bic_min", 0)), float(t.get("bic_max", 0)))
            want = best + (min(s[2] for s in sets), max(s[2] for s in sets))
            check(all(abs(a - b) < 5e-7 for a, b in zip(got, want)), "k=%d: %r vs %r" % (k, got, want))
            check((t.get("chosen") == "*") == (k == best_k), "k=%d: chosen mark (best k %d)" % (k, best_k))
        best_s = max(truth[best_k], key=lambda s: s[1])[0]
        check_module(np, work, "result", best_k, best_s, names)
        check("replicates 7, 3, 5" in r.stdout, "replicate labels not shown: " + r.stdout)
        check_pngs(plots, ["bic.png", "states.png", "module.png", "fit.png"])

        # Another set picked, a short module picture, and D of that set.
        r = run([tool, "--plots", os.path.join(work, "p2"), "--k", "2", "--set", "2", "--top", "3", "result"], work)
        check(r.returncode == 0, "--k 2 --set 2 failed: " + r.stderr)
        check_module(np, work, "result", 2, 2, [str(i + 1) for i in range(len(names))])
        check_pngs(os.path.join(work, "p2"), ["states.png", "module.png", "fit.png"])

        # Failed sets are never chosen; missing sets are listed. Planted: k=3 set 4 with a NaN in
        # its model and an absurd, winning likelihood; k=2 set 3 with a NaN BIC; k=4 set 4 with a
        # NaN log-likelihood.
        plant(work, "result", 3, 1, 4, loglik="9850000000000000000000000000000.000000",
              bic="-19700000000000000000000000000000.000000", nan_in_model=True)
        plant(work, "result", 2, 1, 3, bic="nan")
        plant(work, "result", 4, 1, 4, loglik="-nan")
        r = run([tool, "--data", data, "--plots", os.path.join(work, "p3"), "result"], work)
        check(r.returncode == 0, "summary with failed sets: " + r.stderr)
        rows = {int(t["k"]): t for t in tsv(os.path.join(work, "result.summary.tsv"))}
        check([k for k in rows if rows[k]["chosen"] == "*"] == [best_k], "a failed set was chosen")
        check([(rows[k]["failed"], rows[k]["missing"]) for k in (2, 3, 4)] == [("1", "4"), ("1", "3"), ("1", "3")],
              "failed/missing columns %r" % rows)
        check(rows[2]["best_set"] in "12" and rows[3]["best_set"] in "12", "a failed set is best of its k")
        check(all("failed, never chosen: k = %d, set %d" % ks in r.stdout for ks in ((2, 3), (3, 4), (4, 4)))
              and "missing sets: k = 2: set 4; k = 3: set 3; k = 4: set 3" in r.stdout,
              "failed or missing sets not listed: " + r.stdout)
        expect_error(tool, work, ["--k", "3", "--set", "4", "result"], "a failed set picked")

        # The edge of k, on summaries whose BIC is set by hand (no model files: no D, no pictures).
        for bics, note in (((30, 20, 10), "try larger k"), ((10, 20, 30), "try smaller k"),
                           ((30, 10, 20), "")):
            for k, bic in zip((2, 3, 4), bics):
                open(os.path.join(work, "edge.D%03d.S001.B.dat" % k), "w").write(
                    "%03d\t001\t%f\t%f\t9\tMonotone\tConverged\n" % (k, -bic / 2.0, bic))
            r = run([tool, "edge"], work)
            chosen = [t for t in tsv(os.path.join(work, "edge.summary.tsv")) if t["chosen"] == "*"]
            check(r.returncode == 0 and len(chosen) == 1 and chosen[0]["note"].endswith(note or "lowest BIC")
                  and (note in r.stdout), "edge %r: note %r, stdout %r" % (bics, chosen, r.stdout))

        # The --each layout: D from the H and R files, states and fit from the Xs, Ys and Y files.
        r = run([tarnssm, "-d", "3", "-n", "2", "-l", "20", "--each", "on", "-o", "each", data], work)
        check(r.returncode == 0, "tarnssm --each on failed: " + r.stderr[-500:])
        r = run([tool, "--data", data, "--plots", os.path.join(work, "p4"), "each"], work)
        check(r.returncode == 0, "summary of --each on failed: " + r.stderr)
        check_module(np, work, "each", 3, 1, names, each=True)
        check_pngs(os.path.join(work, "p4"), ["bic.png", "states.png", "module.png", "fit.png"])

        # Errors: no files; a summary line that does not parse; state columns not matching k;
        # a --data table that is not the run's.
        expect_error(tool, work, ["nothing"], "no summary files")
        for prefix in ("bad", "cols"):
            for kind in "ABK":
                shutil.copy(os.path.join(work, "result.D002.S001.%s.dat" % kind),
                            os.path.join(work, "%s.D002.S001.%s.dat" % (prefix, kind)))
        open(os.path.join(work, "bad.D002.S001.B.dat"), "w").write(
            "002\t001\tnot-a-number\t12.5\t30\tMonotone\tConverged\n")
        expect_error(tool, work, ["bad"], "unparsable summary line")
        k_path = os.path.join(work, "cols.D002.S001.K.dat")
        head, rest = open(k_path).read().split("# Xs\n", 1)
        block, tail = rest.split("\n\n", 1)
        block = "\n".join(re.sub(r"\t[^\t]*$", "", l) for l in block.split("\n"))
        open(k_path, "w").write(head + "# Xs\n" + block + "\n\n" + tail)
        errs = expect_error(tool, work, ["cols"], "state columns do not match k")
        check(any("k = 2" in e for e in errs), "column error does not name k: %r" % errs)
        expect_error(tool, work, ["--data", os.path.join(examples, "data", "grunfeld-11firms.txt"), "result"],
                     "--data of another table")
        r = run([tool, "--help"], work)
        check(all(o in r.stdout for o in ("--data", "--plots", "--k", "--set", "--top", "--clip", "--fit"))
              and r.stdout.count("default") >= 8, "--help: " + r.stdout)
    finally:
        if failures:
            print("work dir kept: " + work)
        else:
            shutil.rmtree(work, ignore_errors=True)
    print("%d failures" % len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
