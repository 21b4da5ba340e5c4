#!/usr/bin/env bash
# Runs the C++ benchmarks (and the Python ones when present). Timings on a
# shared two-core machine swing by a quarter: compare ratios within one run.
set -euo pipefail
build=${1:-build}

# The figures belong to the build that made them: say which. `make bench`
# measures the tree `make build` makes, the one the README tells users to
# build.
cache="$build/CMakeCache.txt"
if [[ -f "$cache" ]]; then
  type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$cache")
  cxx=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$cache")
  flags=$(sed -n "s/^CMAKE_CXX_FLAGS_${type^^}:[A-Z]*=//p" "$cache")
  echo "bench: $build, build type ${type:-none} ($flags), $("${cxx:-c++}" --version | head -n1)"
  echo "bench: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)"
fi
if [[ -x "$build/bin/zotdigest_bench" ]]; then
  "$build/bin/zotdigest_bench" --benchmark_counters_tabular=true
else
  echo "bench: no benchmarks built yet"
fi
if [[ -x "$build/bin/zotdigest_engine_bench" ]]; then
  QUORIX_MODULE_PATH="$PWD/$build/lib" "$build/bin/zotdigest_engine_bench" \
    --benchmark_counters_tabular=true
fi
if [[ -d bench/python ]]; then
  for f in bench/python/*.py; do
    PYTHONPATH="$PWD/$build/python" QUORIX_MODULE_PATH="$PWD/$build/lib" ZOTDIGEST_BUILD="$PWD/$build" \
      /usr/bin/python3 "$f"
  done
fi
