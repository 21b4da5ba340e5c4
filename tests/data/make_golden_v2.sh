#!/usr/bin/env bash
# Makes the golden digest file of format version 2 (a digest with a build
# record) and what it must read back as. Run once, when the format version
# was released; the file is committed and read back by tests/cli forever
# after, and the tests build the same values again: the reproducible build
# must keep giving this digest, bit for bit.
#
#   tests/data/make_golden_v2.sh [path/to/zotdigest]
#
# The input is a formula (no random generator): 2 blocks and a short third
# one, so the tree has a merge at each of two levels and an odd node carried.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
tool=${1:-$here/../../build/bin/zotdigest}
py=/usr/bin/python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$py" - "$work" <<'PY'
import sys
import numpy as np
i = np.arange(2 * 262144 + 1000, dtype=np.float64)
np.save(f"{sys.argv[1]}/built.npy", (i * 7919 % 10007) / 100.0 + np.exp((i % 97) / 12.0))
PY

"$tool" build "$work/built.npy" --delta 50 --seed 7 --threads 2 --label built \
  -o "$here/golden_v2_built.zd"

"$py" - "$tool" "$here" <<'PY'
import json, subprocess, sys
tool, here = sys.argv[1], sys.argv[2]
path = f"{here}/golden_v2_built.zd"
run = lambda *a: json.loads(subprocess.run([tool, *a, path, "--json", "--precision", "0"],
                                           check=True, capture_output=True, text=True).stdout)
info = run("info")["files"][0]
d, c = info["digests"][0], run("centroids")["digests"][0]
expected = {"format_version": info["format_version"], "label": d["label"], "delta": d["delta"],
            "data_points": d["data_points"], "build": d["build"],
            "means": [x["mean"] for x in c["centroids"]],
            "counts": [x["count"] for x in c["centroids"]]}
with open(f"{here}/golden_v2_expected.json", "w") as f:
    json.dump(expected, f, indent=1)
    f.write("\n")
PY
echo "golden file written to $here"
