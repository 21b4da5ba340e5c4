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
  python3-pandas  # dask.dataframe and Dask Series; python3-dask only recommends it
  python3-matplotlib  # TDigest.plot, zotdigest plot, make docs
  python3-mypy  # the typed usage example in the Python tests
  python3-setuptools python3-wheel python3-pip  # pip install . / pip wheel .
  # Optional imports of dask, distributed and pandas: present on a developer's
  # machine, so present everywhere, or the suites take other paths there.
  python3-lz4 python3-scipy
  debian-archive-keyring  # tools/tsan_tbb.sh checks the source indexes
  xz-utils  # tools/tsan_tbb.sh unpacks the oneTBB source tarball
  valgrind  # instruction counts of bench/callgrind/core_ops.cpp
  time  # bench/python/cli_bench.py reads the tool's peak RSS with GNU time
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
# apt and dpkg talk a lot: their output goes to a log, shown if they fail.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { $sudo apt-get update -qq && $sudo apt-get install -y -qq -o Dpkg::Use-Pty=0 \
         --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "deps: the installation failed (see above)" >&2
  exit 1
fi
echo "deps: installed ${#missing[@]} packages and what they depend on"
