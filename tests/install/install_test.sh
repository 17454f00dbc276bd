#!/usr/bin/env bash
# Installs the build into a scratch prefix and uses it from there: the help of
# tarnssm, a tiny run summarised by tarnssm-summary, and both manual pages
# rendered without warnings.
# usage: install_test.sh BUILD_DIR      exit status 77: skipped
set -euo pipefail
build=$(cd "$1" && pwd)
examples=$(cd "$(dirname "$0")/../../examples" && pwd)
command -v man > /dev/null || { echo "SKIP: man is not installed (Debian package man-db)"; exit 77; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
fail() { echo "FAIL: $*"; exit 1; }

cmake --install "$build" --prefix "$prefix" > "$scratch/install.log" || { cat "$scratch/install.log"; fail "cmake --install"; }
for f in bin/tarnssm bin/tarnssm-summary share/man/man1/tarnssm.1 share/man/man1/tarnssm-summary.1; do
  [ -f "$prefix/$f" ] || fail "$f is not installed"
done
# The help goes to standard error, with status 0.
help=$("$prefix/bin/tarnssm" -h 2>&1 > /dev/null) || fail "tarnssm -h exits with $?"
grep -q -- '--constrain-Fg X | -g X' <<< "$help" || fail "tarnssm -h prints no help"

# A tiny run and its summary, from the installed copies.
if /usr/bin/python3 -c 'import matplotlib' 2> /dev/null; then
  mkdir "$scratch/run" && cd "$scratch/run"
  "$prefix/bin/tarnssm" -n 2 -l 50 -d 1-2 "$examples/data/grunfeld-11firms.txt" > run.log 2>&1 || { tail -20 run.log; fail "tarnssm run"; }
  "$prefix/bin/tarnssm-summary" --plots plots result > summary.out 2>&1 || { cat summary.out; fail "tarnssm-summary"; }
  grep -q 'lowest BIC' summary.out || { cat summary.out; fail "no summary table"; }
  [ -s plots/bic.png ] || fail "tarnssm-summary --plots drew no bic.png"
else
  echo "skipping the summary: /usr/bin/python3 with matplotlib (python3-matplotlib) is missing"
fi

# Both pages render without warnings and are found by name under the prefix.
for page in tarnssm tarnssm-summary; do
  warnings=$(MANWIDTH=80 MANPAGER=cat man --warnings -l "$prefix/share/man/man1/$page.1" 2>&1 > /dev/null) || fail "man -l $page.1"
  [ -z "$warnings" ] || fail "man warnings in $page.1: $warnings"
  [ "$(man -M "$prefix/share/man" -w "$page")" = "$prefix/share/man/man1/$page.1" ] || fail "man does not find $page under the prefix"
done
echo "install tree OK"
