"""10^8 values in 100 chunks: a two-process Dask cluster against one process.

Both build the reproducible digest with seed 0: zotdigest.digest on the
values held in memory, zotdigest.dask.digest on the cluster (which also
makes the values there, chunk by chunk; their making in one process is
timed and reported beside). Reports throughput of each path, how the
cluster's task time splits between building chunk subtrees and merging them,
and how many bytes a digest weighs on the wire. Checks that both answers are
the same digest, bit for bit (target: cluster within 1.3x of one process).
"""

import pickle
import time

import numpy as np

import dask.array as da
import distributed

import zotdigest
import zotdigest.dask as zd

N = 10**8
CHUNKS = 100


def main():
    x = da.random.RandomState(42).normal(size=N, chunks=N // CHUNKS)

    # One process: the values made, then digested in memory.
    t0 = time.perf_counter()
    values = x.compute(scheduler="sync")
    make_s = time.perf_counter() - t0
    t0 = time.perf_counter()
    local = zotdigest.digest(values, seed=0)
    local_s = time.perf_counter() - t0
    del values

    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  host="127.0.0.1", dashboard_address=None,
                                  silence_logs=40) as cluster, \
            distributed.Client(cluster) as client:
        client.get_task_stream()  # start recording
        t0 = time.perf_counter()
        with distributed.get_task_stream(client) as ts:
            dist = zd.digest(x, seed=0).compute()
        dist_s = time.perf_counter() - t0
        build = merge = other = 0.0
        for task in ts.data:
            spent = sum(s["stop"] - s["start"] for s in task["startstops"]
                        if s["action"] == "compute")
            if "-merge-" in task["key"]:
                merge += spent
            elif "-chunk-" in task["key"]:
                build += spent
            else:
                other += spent
        moved = sum(s["stop"] - s["start"] for task in ts.data
                    for s in task["startstops"] if s["action"] == "transfer")

    assert local.NumDataPoints == dist.NumDataPoints == N
    same = pickle.dumps(local.__getstate__()) == pickle.dumps(dist.__getstate__())

    wire = len(pickle.dumps(dist))
    print(f"values: {N:.0e} in {CHUNKS} chunks")
    print(f"one process      : {local_s:7.2f} s  {N / local_s / 1e6:7.1f} M values/s"
          f"  (making the values took {make_s:.2f} s more)")
    print(f"2-process cluster: {dist_s:7.2f} s  {N / dist_s / 1e6:7.1f} M values/s"
          f"  ({dist_s / local_s:.2f}x one process, {dist_s / (local_s + make_s):.2f}x with making;"
          f" same digest: {same})")
    total = build + merge + other
    print(f"cluster task time: generate {other:.2f} s, build digests {build:.2f} s,"
          f" merge {merge:.2f} s ({100 * merge / total:.1f}% of task time),"
          f" transfers {moved:.2f} s")
    print(f"one pickled digest: {wire} bytes")


if __name__ == "__main__":
    main()
