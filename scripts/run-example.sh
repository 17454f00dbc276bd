#!/usr/bin/env bash
# Builds tarnssm and runs the main job on the bundled simulated expression data.
# The log goes to the terminal; result files go to examples/out/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release
ninja -C build -j "$(nproc)"
mkdir -p examples/out
./build/tarnssm -n 20 -o examples/out/result "$@" examples/data/sim-expression.txt
