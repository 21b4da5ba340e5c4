#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those missing, so a
# second run costs a dpkg query and nothing else.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libtbb-dev zlib1g-dev libcli11-dev
  python3-dev pybind11-dev python3-numpy python3-pytest
  python3-dask python3-distributed
  xz-utils  # tools/tsan_tbb.sh unpacks the oneTBB source tarball
  valgrind  # instruction counts of bench/callgrind/core_ops.cpp
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
  echo "deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "deps: installing ${missing[*]}"
sudo=""
if [[ $(id -u) -ne 0 ]]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
