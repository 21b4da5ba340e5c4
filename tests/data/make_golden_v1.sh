#!/usr/bin/env bash
# Makes the golden digest files of format version 1 and what they must read
# back as. Run once, when the format version was released; the files are
# committed and read back by tests/cli and tests/cli_unit forever after.
# Never regenerate them for a later version: add golden_v2_* files instead.
#
#   tests/data/make_golden_v1.sh [path/to/zotdigest]
#
# The inputs are formulas (no random generator), the digests are built on
# the serial path with a seed, and the expectations are what the files hold:
# labels, Delta, data points and every centroid (mean, count).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
tool=${1:-$here/../../build/bin/zotdigest}
py=/usr/bin/python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$py" - "$work" <<'PY'
import math, sys
import numpy as np
work = sys.argv[1]
# A skewed column: a wrapped linear sequence plus an exponential tail.
with open(f"{work}/single.txt", "w") as f:
    for i in range(20000):
        x = (i * 7919 % 10007) / 100.0 + math.exp((i % 97) / 12.0)
        f.write(repr(x) + ("\n" if i % 5 == 4 else " "))
# Three columns of different shape, C order, float32.
i = np.arange(5000, dtype=np.float64)
m = np.stack([np.sin(i) * 10.0, (i * 13 % 101) - 50.0, np.sqrt(i)], axis=1).astype("<f4")
np.save(f"{work}/columns.npy", m)
with open(f"{work}/other.txt", "w") as f:
    for i in range(3000):
        f.write(repr(1000.0 + (i * 31 % 1009) / 7.0) + "\n")
PY

"$tool" build "$work/single.txt" --delta 20 --seed 11 --label single -o "$here/golden_v1_single.zd"
"$tool" build "$work/columns.npy" --columns --delta 30 --seed 5 -o "$here/golden_v1_columns.zd"
"$tool" build --delta 100 -o "$here/golden_v1_empty.zd" </dev/null
echo 42.5 | "$tool" build --delta 100 --seed 1 --label one -o "$here/golden_v1_one.zd"
"$tool" build "$work/other.txt" --delta 20 --seed 12 -o "$work/other.zd"
"$tool" merge "$here/golden_v1_single.zd" "$work/other.zd" --label merged -o "$here/golden_v1_merged.zd"

# Expectations: every centroid of every digest, as the files hold them.
"$py" - "$tool" "$here" <<'PY'
import json, subprocess, sys
tool, here = sys.argv[1], sys.argv[2]
expected = {}
for name in ["single", "columns", "empty", "one", "merged"]:
    path = f"{here}/golden_v1_{name}.zd"
    run = lambda *a: json.loads(subprocess.run([tool, *a, path, "--json"], check=True,
                                               capture_output=True, text=True).stdout)
    info = run("info")["files"][0]
    cents = run("centroids")["digests"]
    expected[name] = {
        "digest_count": info["digest_count"],
        "digests": [
            {"label": d["label"], "delta": d["delta"], "data_points": d["data_points"],
             "centroids": d["centroids"],
             "means": [c["mean"] for c in c_["centroids"]],
             "counts": [c["count"] for c in c_["centroids"]]}
            for d, c_ in zip(info["digests"], cents)
        ],
    }
with open(f"{here}/golden_v1_expected.json", "w") as f:
    json.dump(expected, f, indent=1)
    f.write("\n")
PY
echo "golden files written to $here"
