#!/usr/bin/env bash
# Builds the project twice (optimised, and with AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs the whole test suite on both builds,
# then fuzzes the two text readers for a minute each (scripts/fuzz.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARN_WERROR=ON
ninja -C build -j "$jobs"
(cd build && ctest --output-on-failure -j "$jobs")

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTARN_SANITIZE=ON -DTARN_WERROR=ON
ninja -C build-asan -j "$jobs"
(cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --output-on-failure -j "$jobs")

bash scripts/fuzz.sh 60
