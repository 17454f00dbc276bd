#!/usr/bin/env bash
# Shared by the Slurm and Grid Engine tests, sourced as
#   source check_array_job.sh NAME TARNSSM PROGRAM...
# Skips the test (exit status 77, for CTest) unless it runs as root with every
# PROGRAM at hand. make_work makes the scratch folder $work, whose daemons
# (the pid files $pid_files) are stopped at exit; run_array_job submits the
# array job and checks what every task left behind.
set -euo pipefail
name=$1
tarnssm=$(realpath "${2:?usage: $0 TARNSSM}")
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
skip() { echo "$name test: skipped ($*)"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "needs root"
for tool in "${@:3}"; do command -v "$tool" > /dev/null || skip "$tool not found"; done

make_work() {
  work=$(mktemp -d "/tmp/tarn-$name.XXXXXX")
  chmod 755 "$work"
  mkdir "$work/job"
  trap stop_daemons EXIT
}
stop_daemons() {
  set +e
  local pids=() file pid
  for file in $pid_files; do [ -s "$file" ] && pids+=("$(cat "$file")"); done
  for pid in "${pids[@]}"; do kill "$pid"; done 2> /dev/null
  # sge_qmaster takes a few seconds to shut down.
  alive() { for pid in "${pids[@]}"; do kill -0 "$pid" 2> /dev/null && return 0; done; return 1; }
  for _ in $(seq 30); do alive || break; sleep 0.5; done
  for pid in "${pids[@]}"; do kill -9 "$pid"; done 2> /dev/null
  rm -rf "$work"
}

# run_array_job SUBMIT...: runs SUBMIT data.txt res in $work/job for a job of
# dims 2, 3 x 2 sets = 4 tasks and a task 5 past its end. Task ID stands for
# dim (2 3)[(ID-1)/2] and set ID % 2 + 1: its log res.log.NNNNNN must end
# normally and name that set's A, B and K files, which must exist; task 5
# only warns. On failure prints the files of $logs.
run_array_job() {
  cp "$top/examples/data/sim-expression.txt" "$work/job/data.txt"
  cd "$work/job"
  set +e  # every check runs, and a failed one is reported
  local fail=0 id log k s part
  check() { "$@" && return; echo "array job check failed: $*" >&2; fail=1; return 1; }
  check "$@" data.txt res > "$work/submit.out" 2>&1
  for id in 1 2 3 4 5; do
    log=$(printf 'res.log.%06d' "$id")
    check test -f "$log" || continue
    check grep -q '^X-ALL-TIME:' <(tail -n 1 "$log")
    if ((id == 5)); then check grep -q '^WARNING: ID exceeded the total sets.$' "$log"; continue; fi
    k=$((id < 3 ? 2 : 3))
    s=$(printf '%03d' $((id % 2 + 1)))
    check grep -q "^\[JobID:$id\] SGE Job dispatched. dim=$k," "$log"
    for part in A B K; do
      check test -s "res.D00$k.S$s.$part.dat"
      check grep -qF " res.D00$k.S$s.$part.dat" "$log"
    done
    check grep -qs "^00$k	$s	" "res.D00$k.S$s.B.dat"
  done
  check test "$(find . -maxdepth 1 -name 'res.D*.dat' | wc -l)" -eq 12
  # shellcheck disable=SC2086
  [ "$fail" -eq 0 ] || { ls -la >&2; cat "$work/submit.out" $logs >&2; exit 1; }
  echo "$name test: 1 passed, 0 failed"
}
