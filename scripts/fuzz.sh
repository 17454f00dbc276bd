#!/usr/bin/env bash
# Builds the libFuzzer targets of the two text readers with clang (AddressSanitizer
# and UndefinedBehaviorSanitizer on) in build-fuzz and runs each for SECONDS
# (default 60) on a scratch copy of its seed corpus in fuzz/corpus/. Exits
# non-zero when a target reports a crash, a leak, a timeout, running out of
# memory or a sanitizer finding; the input that found it is left in
# build-fuzz/findings/.
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
jobs=$(nproc)
bash scripts/install-deps.sh

CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTARN_FUZZ=ON -DTARN_WERROR=ON
ninja -C build-fuzz -j "$jobs" fuzz_table fuzz_model

findings=build-fuzz/findings
rm -rf "$findings" build-fuzz/corpus
mkdir -p "$findings"
export ASAN_OPTIONS=detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

# Both targets at once, each on one core; a target's log is printed when it fails.
fuzz_target() {
  local name=$1 max_len=$2
  local corpus=build-fuzz/corpus/$name
  mkdir -p "$corpus"
  cp fuzz/corpus/"$name"/* "$corpus"/
  build-fuzz/fuzz/fuzz_"$name" "$corpus" \
    -max_total_time="$seconds" -rss_limit_mb=2048 -max_len="$max_len" -timeout=10 \
    -print_final_stats=1 -artifact_prefix="$findings/${name}-" \
    > "build-fuzz/fuzz_$name.log" 2>&1
}
echo "fuzz: table and model readers for ${seconds}s each"
fuzz_target table 4096 &
table_pid=$!
fuzz_target model 4096 &
model_pid=$!

status=0
for name in table model; do
  pid_var=${name}_pid
  if wait "${!pid_var}"; then
    echo "fuzz: $name passed: $(grep -E '^stat::number_of_executed_units' "build-fuzz/fuzz_$name.log" \
      | awk '{print $2}') inputs run"
  else
    echo "fuzz: $name FAILED; the end of build-fuzz/fuzz_$name.log:" >&2
    tail -n 60 "build-fuzz/fuzz_$name.log" >&2
    status=1
  fi
done
if [ "$status" -ne 0 ]; then
  echo "fuzz: the inputs that failed are in $findings/" >&2
fi
exit "$status"
