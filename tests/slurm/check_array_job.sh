#!/usr/bin/env bash
# Checks, in the current directory, what an array job of
# examples/jobs/*-array.sh left behind. Shared by the Slurm and Grid Engine
# tests.
#
#   check_array_job.sh PREFIX "DIMS" SETS TASKS      e.g. res "2 3" 2 5
#
# Task ID (1..TASKS) stands for dim DIMS[(ID-1)/SETS] and set number
# ID % SETS + 1. Its log PREFIX.log.NNNNNN must end normally and name that
# set's A, B and K files, which must exist; a task past DIMS x SETS only warns.
# Prints one line per failed check and exits 1 if any failed.
set -uo pipefail
prefix=$1
read -r -a dims <<< "$2"
sets=$3
tasks=$4
total=$((${#dims[@]} * sets))

fail=0
check() { "$@" && return; echo "array job check failed: $*" >&2; fail=1; return 1; }
# shellcheck disable=SC2317  # called through check
ends_normally() { tail -n 1 "$1" | grep -q '^X-ALL-TIME:'; }
for ((id = 1; id <= tasks; id++)); do
  log=$(printf '%s.log.%06d' "$prefix" "$id")
  check test -f "$log" || continue
  check ends_normally "$log"
  if ((id > total)); then
    check grep -q '^WARNING: ID exceeded the total sets.$' "$log"
    continue
  fi
  dim=${dims[(id - 1) / sets]}
  k=$(printf '%03d' "$dim")
  s=$(printf '%03d' $((id % sets + 1)))
  check grep -q "^\[JobID:$id\] SGE Job dispatched. dim=$dim," "$log"
  for part in A B K; do
    check test -s "$prefix.D$k.S$s.$part.dat"
    check grep -qF " $prefix.D$k.S$s.$part.dat" "$log"
  done
  check grep -qs "^$k	$s	" "$prefix.D$k.S$s.B.dat"
done
check test "$(find . -maxdepth 1 -name "$prefix.D*.dat" | wc -l)" -eq $((3 * total))
exit "$fail"
