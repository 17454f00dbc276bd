#!/usr/bin/env bash
# Wall time of one job of 64 tasks (-d 4 -s 4 -n 16) on 1, 2, 4, ... threads,
# and the speed-up over one thread. Every task runs exactly LOOPS EM passes
# (-c 0 never converges), so each task costs the same whatever its draws.
#
#   bench/thread_scaling.sh [TARNSSM] [DATA] [THREADS...]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
tarnssm=$(realpath "${1:-$top/build/tarnssm}")
data=$(realpath "${2:-$top/examples/data/sim-expression.txt}")
shift $(( $# > 2 ? 2 : $# ))
threads=("$@")
[ ${#threads[@]} -gt 0 ] || threads=(1 2)
loops=${LOOPS:-300}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
base=""
printf '%8s %12s %10s\n' threads seconds speedup
for n in "${threads[@]}"; do
  t=$(cd "$work" && "$tarnssm" --threads "$n" -d 4 -s 4 -n 16 -l "$loops" -c 0 --state off \
        "$data" 2>&1 | awk -F'\t' '/^X-ALL-TIME:/ {print $2}')
  [ -n "$base" ] || base=$t
  printf '%8s %12.3f %10.2f\n' "$n" "$t" "$(echo "$base / $t" | bc -l)"
done
