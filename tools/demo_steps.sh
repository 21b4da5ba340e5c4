#!/usr/bin/env bash
# Two days of latency-like numbers, summarised, questioned and merged.
set -euo pipefail
tool=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
step() { printf '\n$ %s\n' "$*"; "$@"; }
zotdigest() { "$tool" "$@"; }

/usr/bin/python3 - <<'PY'
import numpy as np
r = np.random.default_rng(1)
np.save("monday.npy", r.lognormal(3, .5, 1_000_000))
np.save("tuesday.npy", r.lognormal(3.1, .6, 1_000_000))
PY
echo "monday.npy, tuesday.npy: 1,000,000 latencies each (ms)"
step zotdigest build monday.npy -o monday.zd
step zotdigest build tuesday.npy -o tuesday.zd
step zotdigest summary monday.zd
step zotdigest quantile tuesday.zd 0.5 0.99 0.999
step zotdigest merge monday.zd tuesday.zd --label week -o week.zd
step zotdigest cdf week.zd 20 50 100
step zotdigest info week.zd
printf '\n$ seq 1 1000000 | zotdigest quantile - 0.5\n'
seq 1 1000000 | zotdigest quantile - 0.5
