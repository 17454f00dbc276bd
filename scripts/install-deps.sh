#!/usr/bin/env bash
# Installs the build and test dependencies from Debian packages (run as root).
set -euo pipefail
packages=(
  g++ cmake ninja-build
  libgtest-dev libgmock-dev libbenchmark-dev
  libopenblas-openmp-dev
  clang libclang-rt-14-dev libomp-dev
  slurm-wlm munge
  python3-matplotlib
  man-db dpkg-dev
  gridengine-master gridengine-exec gridengine-client
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: need root to install: ${missing[*]}" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  # The Grid Engine test builds its own cell: the packages set up none.
  echo "gridengine-common shared/gridengineconfig boolean false" | debconf-set-selections
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
