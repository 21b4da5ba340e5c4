"""Reading a CSV table: `zotdigest build --column ... --by ...` against
pandas.read_csv (C engine) on the same file, in the same run.

Writes N rows of three columns (an endpoint key among 100, Zipf-distributed,
a log-normal latency and an integer count), then times pandas.read_csv of
the whole file and the command-line build of one digest per endpoint, and
prints both rates in MB/s of the file. Target: the tool at least as fast as
pandas (ratio >= 1). pandas only parses; the tool parses and builds 100
digests.
"""

import os
import pathlib
import subprocess
import tempfile
import time

import numpy as np

N = int(os.environ.get("ZOTDIGEST_CSV_BENCH_N", 10**7))


def write_table(path, n):
    rng = np.random.default_rng(19)
    names = np.array([f"/api/v1/endpoint{k}" for k in range(100)])
    with open(path, "w") as f:
        f.write("endpoint,latency,count\n")
        step = 10**6
        for start in range(0, n, step):
            m = min(step, n - start)
            keys = names[np.minimum(rng.zipf(1.5, m) - 1, 99)]
            lat = np.char.mod("%.6g", rng.lognormal(3.0, 1.0, m))
            cnt = rng.integers(1, 50, m).astype(str)
            rows = np.char.add(np.char.add(np.char.add(np.char.add(keys, ","), lat), ","), cnt)
            f.write("\n".join(rows.tolist()))
            f.write("\n")


def best_of(runs, work):
    times = []
    for _ in range(runs):
        t0 = time.perf_counter()
        work()
        times.append(time.perf_counter() - t0)
    return min(times)


def main():
    build = pathlib.Path(os.environ.get("ZOTDIGEST_BUILD", "build"))
    tool = build / "bin" / "zotdigest"
    if not tool.exists():
        print("csv_bench: the command-line tool is not built")
        return
    try:
        import pandas as pd
    except ImportError:
        print("csv_bench: pandas is not installed")
        return
    with tempfile.TemporaryDirectory() as tmp:
        data, out = pathlib.Path(tmp) / "t.csv", pathlib.Path(tmp) / "t.zd"
        write_table(data, N)
        mb = data.stat().st_size / 1e6
        pandas_s = best_of(2, lambda: pd.read_csv(data, engine="c"))
        cli_s = best_of(2, lambda: subprocess.run(
            [str(tool), "build", str(data), "--column", "latency", "--by", "endpoint", "-q", "-o",
             str(out)], check=True))
    print(f"csv_bench: {N:.0e} rows x 3 columns, {mb:.0f} MB: pandas.read_csv {pandas_s:.2f} s "
          f"({mb / pandas_s:.0f} MB/s), zotdigest build --by {cli_s:.2f} s ({mb / cli_s:.0f} MB/s), "
          f"ratio {pandas_s / cli_s:.2f} (target >= 1)")


if __name__ == "__main__":
    main()
