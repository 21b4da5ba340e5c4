"""10^7 log-normal values in 1,000 groups of Zipf sizes, 10 chunks: the
per-group digests on a two-process Dask cluster against one process.

zotdigest.digest_by on the values held in memory, zotdigest.dask.digest_by on
the cluster (which makes the values there, twice: once for the keys' counts,
once for the digests; making them once in one process is timed and reported
beside). Reports the time of each path, how the cluster's task time splits
between its three steps, and checks that every group's digest is the same,
bit for bit.
"""

import os
import pickle
import time

import dask
import dask.array as da
import distributed

import zotdigest
import zotdigest.dask as zd

N = 10**7
GROUPS = 1_000
CHUNKS = 10


def main():
    rs = da.random.RandomState(42)
    x = rs.lognormal(size=N, chunks=N // CHUNKS)
    keys = rs.zipf(1.3, size=N, chunks=N // CHUNKS) % GROUPS

    t0 = time.perf_counter()
    values, by = da.compute(x, keys, scheduler="sync")
    make_s = time.perf_counter() - t0
    t0 = time.perf_counter()
    local = zotdigest.digest_by(values, by, seed=0)
    local_s = time.perf_counter() - t0
    del values, by

    sizes = sorted(local.count.tolist())
    print(f"values: {N:.0e} in {len(local)} groups (largest {sizes[-1]}, median {sizes[len(sizes) // 2]}),"
          f" {CHUNKS} chunks")
    print(f"one process      : {local_s:7.2f} s  {N / local_s / 1e6:7.1f} M values/s"
          f"  (making the values took {make_s:.2f} s more)")
    # Dask's nanny starts workers with MALLOC_TRIM_THRESHOLD_ set, so that
    # every large allocation of a worker is fresh pages: shown beside a
    # worker environment without it.
    environ = dask.config.get("distributed.nanny.pre-spawn-environ")
    untrimmed = {k: v for k, v in environ.items() if k != "MALLOC_TRIM_THRESHOLD_"}
    for label, env in (("no malloc trim", untrimmed), ("Dask's worker env", environ)):
        # The nanny sets these in this process's environment too.
        os.environ.pop("MALLOC_TRIM_THRESHOLD_", None)
        with dask.config.set({"distributed.nanny.pre-spawn-environ": env}):
            cluster_run(label, x, keys, local, local_s, make_s)


def cluster_run(label, x, keys, local, local_s, make_s):
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  host="127.0.0.1", dashboard_address=None,
                                  silence_logs=40) as cluster, \
            distributed.Client(cluster) as client:
        client.get_task_stream()  # start recording
        t0 = time.perf_counter()
        with distributed.get_task_stream(client) as ts:
            dist = zd.digest_by(x, keys, seed=0)
        dist_s = time.perf_counter() - t0
        spent = {"-keys-": 0.0, "-pieces-": 0.0, "-batch-": 0.0, "other": 0.0}
        for task in ts.data:
            step = next((s for s in spent if s in str(task["key"])), "other")
            spent[step] += sum(s["stop"] - s["start"] for s in task["startstops"]
                               if s["action"] == "compute")
        tasks = len(ts.data)

    same = list(local.keys()) == list(dist.keys()) and all(
        pickle.dumps(a.__getstate__()) == pickle.dumps(b.__getstate__())
        for a, b in zip(local.values(), dist.values()))
    print(f"2-process cluster, {label}: {dist_s:7.2f} s  {N / dist_s / 1e6:7.1f} M values/s"
          f"  ({dist_s / local_s:.2f}x one process, {dist_s / (local_s + make_s):.2f}x with making;"
          f" same digests: {same})")
    print(f"  task time ({tasks} tasks): count keys {spent['-keys-']:.2f} s,"
          f" build pieces {spent['-pieces-']:.2f} s, join and merge {spent['-batch-']:.2f} s,"
          f" making values and the rest {spent['other']:.2f} s")


if __name__ == "__main__":
    main()
