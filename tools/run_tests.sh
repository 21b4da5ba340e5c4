#!/usr/bin/env bash
# Builds and runs every suite: the C++ tests in the release, ASan+UBSan and
# TSan trees, and the Python suites against the release tree. Ends with the
# skipped tests, one tally line (passed, failed, skipped) and a non-zero exit
# status if anything failed. Under CI=true the suites turn the skips that
# mean a missing build or environment into failures themselves.
set -uo pipefail
cd "$(dirname "$0")/.."

PY=/usr/bin/python3
JOBS=${JOBS:-$(nproc)}
logdir=build/test-logs
mkdir -p "$logdir"

passed=0
failed=0
skipped=0
skips=()
broken=()

# configure DIR ARGS...: configures a tree, warnings as errors, the first time and again whenever
# its arguments differ from the last run's (a tree configured by hand or by
# an older version of this script gets them too); otherwise ninja re-runs
# cmake by itself when the build files change.
configure() {
  local dir=$1; shift
  set -- -DZOTDIGEST_WARNINGS_AS_ERRORS=ON "$@"
  local stamp="$dir/.run_tests-args" args
  args=$(printf '%q ' "$@")
  if [[ ! -f "$dir/build.ninja" || ! -f "$stamp" || "$(<"$stamp")" != "$args" ]]; then
    cmake -S . -B "$dir" -G Ninja "$@" >"$logdir/$(basename "$dir")-configure.log" 2>&1 || {
      cat "$logdir/$(basename "$dir")-configure.log"; return 1; }
    printf '%s' "$args" >"$stamp"
  fi
}

# ctest_tree NAME DIR: runs ctest in a tree and adds its counts.
ctest_tree() {
  local name=$1 dir=$2 log="$logdir/$1-ctest.log"
  echo "== ctest ($name)"
  (cd "$dir" && ctest -j"$JOBS" --output-on-failure --timeout 600) >"$log" 2>&1
  local rc=$?
  grep -E '^(The following tests (FAILED|did not run)|[[:space:]]+[0-9]+ - )|tests passed' "$log" || true
  local line total nfail nskip skippedTest
  line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n1)
  if [[ -n "$line" ]]; then
    nfail=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
    total=$(sed -E 's/.* failed out of ([0-9]+).*/\1/' <<<"$line")
    # ctest counts a skipped test among the passed ones.
    nskip=0
    while read -r skippedTest; do
      skips+=("ctest-$name: $skippedTest")
      nskip=$((nskip + 1))
    done < <(sed -nE 's/^[[:space:]]+[0-9]+ - (.*) \(Skipped\)$/\1/p' "$log")
    passed=$((passed + total - nfail - nskip))
    failed=$((failed + nfail))
    skipped=$((skipped + nskip))
  elif ! grep -q 'No tests were found' "$log"; then
    failed=$((failed + 1))
  fi
  if ((rc != 0)); then
    broken+=("ctest-$name")
    [[ -z "$line" ]] && tail -n 40 "$log"
  fi
}

# build_tree NAME DIR ARGS...: configure and build; a failed build counts.
build_tree() {
  local name=$1 dir=$2; shift 2
  echo "== build ($name)"
  if ! configure "$dir" "$@" || ! cmake --build "$dir" -j"$JOBS" >"$logdir/$name-build.log" 2>&1; then
    tail -n 60 "$logdir/$name-build.log" 2>/dev/null
    broken+=("build-$name")
    failed=$((failed + 1))
    return 1
  fi
}

# pytest_dir NAME PATH: runs a pytest suite against the release tree.
pytest_dir() {
  local name=$1 path=$2 log="$logdir/pytest-$1.log"
  [[ -d "$path" ]] || return 0
  echo "== pytest ($name)"
  PYTHONPATH="$PWD/build/python${PYTHONPATH:+:$PYTHONPATH}" \
  QUORIX_MODULE_PATH="$PWD/build/lib" ZOTDIGEST_BUILD="$PWD/build" \
    "$PY" -m pytest -q -rs -p no:cacheprovider "$path" >"$log" 2>&1
  local rc=$?
  tail -n 15 "$log"
  local line p f e s reason
  line=$(grep -E '^=*.*(passed|failed|error|skipped|no tests ran)' "$log" | tail -n1)
  p=$(grep -oE '[0-9]+ passed' <<<"$line" | grep -oE '[0-9]+' || echo 0)
  f=$(grep -oE '[0-9]+ failed' <<<"$line" | grep -oE '[0-9]+' || echo 0)
  e=$(grep -oE '[0-9]+ errors?' <<<"$line" | grep -oE '[0-9]+' || echo 0)
  s=$(grep -oE '[0-9]+ skipped' <<<"$line" | grep -oE '[0-9]+' || echo 0)
  while read -r reason; do skips+=("pytest-$name: $reason"); done \
    < <(sed -nE 's/^SKIPPED (.*)$/\1/p' "$log")
  passed=$((passed + p))
  failed=$((failed + f + e))
  skipped=$((skipped + s))
  # 5 means no tests were collected: not a failure of the suite.
  if ((rc != 0 && rc != 5)); then
    broken+=("pytest-$name")
    ((f + e == 0)) && failed=$((failed + 1))
  fi
}

# step NAME COMMAND...: a check that is one command; its output goes to a
# log, shown when it fails. Counts as one test.
step() {
  local name=$1 log="$logdir/$1.log"; shift
  echo "== $name"
  if "$@" >"$log" 2>&1; then
    tail -n 3 "$log"
    passed=$((passed + 1))
  else
    tail -n 40 "$log"
    broken+=("$name")
    failed=$((failed + 1))
  fi
}

# install_consumer TREE: installs the tree's C++ package into a temporary
# prefix, then builds and runs tests/install_consumer against it alone.
install_consumer() {
  local tree=$1 work rc
  work=$(mktemp -d) || return 1
  cmake --install "$tree" --prefix "$work/prefix" --component dev &&
    cmake -S tests/install_consumer -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_COMPILER="$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$tree/CMakeCache.txt")" &&
    cmake --build "$work/build" &&
    "$work/build/consumer" | tee "$work/out" && grep -qx 'median of 5 values: 3' "$work/out"
  rc=$?
  rm -rf "$work"
  return $rc
}

if build_tree release build -DCMAKE_BUILD_TYPE=RelWithDebInfo; then
  ctest_tree release build
  pytest_dir python python/tests
  pytest_dir cli tests/cli
  step install-consumer install_consumer build
fi

if build_tree asan build-asan -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
     -DZOTDIGEST_SANITIZE=ON -DZOTDIGEST_FUZZ=ON -DZOTDIGEST_PYTHON=OFF -DZOTDIGEST_BENCH=OFF; then
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:intercept_tls_get_addr=0 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest_tree asan build-asan
fi

# The TSan tree links a oneTBB of its own, built with ThreadSanitizer from
# Debian's source package (tools/tsan_tbb.sh): TSan cannot see the
# synchronisation inside Debian's uninstrumented libtbb and reports work
# handed between its threads as races. The other trees use Debian's. The
# build RPATH makes the tests load this copy.
tsan_tbb=$PWD/build-tsan/tbb
echo "== oneTBB for tsan"
if JOBS=$JOBS tools/tsan_tbb.sh "$tsan_tbb"; then
  if build_tree tsan build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
       -DZOTDIGEST_TSAN=ON -DZOTDIGEST_PYTHON=OFF -DZOTDIGEST_CLI=OFF -DZOTDIGEST_BENCH=OFF \
       -DTBB_DIR:PATH="$tsan_tbb/lib/cmake/TBB"; then
    TSAN_OPTIONS="halt_on_error=1 suppressions=$PWD/tools/tsan.supp" ctest_tree tsan build-tsan
  fi
else
  broken+=("tsan-tbb")
  failed=$((failed + 1))
fi

# Everything the trees and the Python code used must come from a package
# that `make deps` installs: a machine that has been worked on can hide a
# missing install step.
trees=()
for t in build build-asan build-tsan; do [[ -f $t/build.ninja ]] && trees+=("$t"); done
((${#trees[@]})) && step deps-cxx tools/deps_check_cxx.sh "${trees[@]}"
if [[ -x ../shared/tools/deps-audit ]]; then
  step deps-python ../shared/tools/deps-audit tools/deps.sh
fi
echo
for name in "${skips[@]}"; do echo "skipped: $name"; done
if ((${#broken[@]})); then echo "failing steps: ${broken[*]}"; fi
echo "tally: $passed passed, $failed failed, $skipped skipped"
((failed == 0 && ${#broken[@]} == 0))
