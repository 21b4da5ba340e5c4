#!/usr/bin/env bash
# The main job: ten million log-normal values (think response times in
# milliseconds) summarised on every core, the digest's quantiles set
# beside the exact ones, then the commands of every day.
set -euo pipefail
tool=$(realpath "$1")
py=/usr/bin/python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

if [[ -t 1 ]]; then bold=$'\e[1m' dim=$'\e[2m' plain=$'\e[0m'; else bold="" dim="" plain=""; fi
heading() { printf '\n%s== %s ==%s\n' "$bold" "$*" "$plain"; }
# step "what it shows" command...: prints the command, then runs it.
step() {
  local note=$1
  shift
  printf '\n%s$ %s%s   %s# %s%s\n' "$bold" "$*" "$plain" "$dim" "$note" "$plain"
  "$@"
}
show() { printf '%s$ %s%s\n' "$bold" "$*" "$plain"; }
zotdigest() { "$tool" "$@"; }
now() { echo "$EPOCHREALTIME"; }

n=10000000
cores=$(nproc)

heading "1. Ten million values"
"$py" - "$n" <<'PY'
import sys
import numpy as np
n = int(sys.argv[1])
rng = np.random.default_rng(2024)
np.save("latency.npy", rng.lognormal(mean=3.0, sigma=0.8, size=n))  # median e^3 = 20 ms
np.save("tuesday.npy", rng.lognormal(mean=3.2, sigma=0.9, size=n // 10))
print(f"latency.npy: {n:,} log-normal values (median 20 ms, long right tail), "
      f"{n * 8 / 1e6:.0f} MB of float64")
PY

heading "2. Their digest, built on all cores ($cores)"
show zotdigest build latency.npy -o latency.zd
start=$(now)
zotdigest build latency.npy -o latency.zd
stop=$(now)
size=$(stat -c %s latency.zd)
"$py" - "$n" "$start" "$stop" "$size" "$cores" <<'PY'
import sys
n, start, stop, size, cores = int(sys.argv[1]), *map(float, sys.argv[2:4]), *map(int, sys.argv[4:])
seconds = stop - start
print(f"built in {seconds:.2f} s: {n / seconds / 1e6:.2f} M values/s on {cores} cores")
print(f"latency.zd: {size:,} bytes ({size / 1000:.1f} kB) for {n * 8 / 1e6:.0f} MB of input, "
      f"{n * 8 / size:,.0f} times smaller")
PY

heading "3. Quantiles: the digest against the exact answer"
qs=(0.001 0.01 0.5 0.99 0.999)
show zotdigest quantile latency.zd "${qs[*]}" --json
zotdigest quantile latency.zd "${qs[@]}" --json >quantiles.json
"$py" - <<'PY'
import json
import numpy as np
answer = json.load(open("quantiles.json"))["digests"][0]["quantiles"]
q = np.array([a["p"] for a in answer])
estimate = np.array([a["value"] for a in answer])
data = np.sort(np.load("latency.npy"))
n = len(data)
exact = np.quantile(data, q)
# Rank error: the fraction of the data below the estimate, against q.
below = np.searchsorted(data, estimate, side="left") / n
rank_error = np.abs(below - q)
print(f"{'q':>7}  {'estimate':>10}  {'exact':>10}  {'rank error':>10}  {'value error':>11}")
for row in zip(q, estimate, exact, rank_error, estimate / exact - 1):
    print("{:>7}  {:>10.4f}  {:>10.4f}  {:>10.1e}  {:>+10.3f}%".format(
        *row[:4], 100 * row[4]))
worst = int(round(np.max(rank_error) * n))
print(f"rank error: |fraction of the {n:,} values below the estimate - q|\n"
      f"(the worst estimate has {worst:,} values on the wrong side of it)")
PY

heading "4. Every day"
step "the digest at a glance" zotdigest summary latency.zd
step "the share of requests under 10, 50, 100, 250 ms" zotdigest cdf latency.zd 10 50 100 250
step "another day; --seed: the seed of the reproducible build" \
  zotdigest build tuesday.npy --seed 7 --label tuesday -o tuesday.zd
step "digests merge" zotdigest merge latency.zd tuesday.zd --label week -o week.zd
step "what the file holds" zotdigest info week.zd
printf '\n%s$ seq 1 1000000 | zotdigest quantile - 0.5 0.99%s   %s# numbers from a pipe%s\n' \
  "$bold" "$plain" "$dim" "$plain"
seq 1 1000000 | zotdigest quantile - 0.5 0.99
