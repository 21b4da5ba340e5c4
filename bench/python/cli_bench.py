"""The command-line build of a large .npy file against the in-process build.

Writes N float64 values to a .npy file, then times `zotdigest build` on it
(its peak resident set from the kernel's accounting of the child) and
zotdigest.digest on the same values held in memory. Both are the
reproducible build, so both must give the same digest; checked through the
centroid listing. Reports the CLI's rate as a fraction of the in-memory rate
(target: at least 0.9) and its peak RSS (the tool reads the file in chunks,
never maps it whole; target: under 64 MB beyond the input's pages).
"""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time

import numpy as np

import zotdigest

N = int(os.environ.get("ZOTDIGEST_CLI_BENCH_N", 10**8))


def main():
    build = pathlib.Path(os.environ.get("ZOTDIGEST_BUILD", "build"))
    tool = build / "bin" / "zotdigest"
    if not tool.exists():
        print("cli_bench: the command-line tool is not built")
        return
    x = np.random.default_rng(3).lognormal(size=N)
    with tempfile.TemporaryDirectory() as tmp:
        data, out = pathlib.Path(tmp) / "x.npy", pathlib.Path(tmp) / "x.zd"
        np.save(data, x)
        del x
        # The peak RSS as GNU time reads it from the tool's own accounting (a
        # fork of this process would count the pages it shares with it).
        t0 = time.perf_counter()
        run = subprocess.run(["/usr/bin/time", "-f", "%M", str(tool), "build", str(data), "-q", "-o",
                              str(out)], check=True, capture_output=True, text=True)
        cli_s = time.perf_counter() - t0
        peak_mb = int(run.stderr.split()[-1]) / 1024
        listed = json.loads(subprocess.run([str(tool), "centroids", str(out), "--json", "--precision", "0"],
                                           check=True, capture_output=True, text=True).stdout)
        x = np.load(data)
    t0 = time.perf_counter()
    d = zotdigest.digest(x)
    mem_s = time.perf_counter() - t0
    means, counts = d.centroids()
    same = [c["mean"] for c in listed["digests"][0]["centroids"]] == means.tolist() and \
        [c["count"] for c in listed["digests"][0]["centroids"]] == counts.tolist()
    print(f"cli_bench: {N:.0e} float64 values: CLI {cli_s:.2f} s ({N / cli_s / 1e6:.1f} M/s), "
          f"in memory {mem_s:.2f} s ({N / mem_s / 1e6:.1f} M/s), rate ratio {mem_s / cli_s:.2f}, "
          f"CLI peak RSS {peak_mb:.0f} MB, same digest: {same}")
    if not same:
        sys.exit("cli_bench: the CLI and Python digests differ")


if __name__ == "__main__":
    main()
