"""10^8 values in 100 chunks: a two-process Dask cluster against one process.

Reports throughput of each path, how the cluster's task time splits between
building chunk digests and merging them, and how many bytes the digests
weigh on the wire. Checks that both answers hold every value and agree with
each other within the rank bound of the tests.
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
QS = np.array([0.001, 0.01, 0.5, 0.99, 0.999])


def main():
    x = da.random.RandomState(42).normal(size=N, chunks=N // CHUNKS)

    # One process: the same values, chunk by chunk, merged as they come.
    t0 = time.perf_counter()
    local = None
    for block in x.to_delayed():
        part = zotdigest.TDigest(block.compute(scheduler="sync"))
        local = part if local is None else zotdigest.merge([local, part])
    local_s = time.perf_counter() - t0

    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  host="127.0.0.1", dashboard_address=None,
                                  silence_logs=40) as cluster, \
            distributed.Client(cluster) as client:
        client.get_task_stream()  # start recording
        t0 = time.perf_counter()
        with distributed.get_task_stream(client) as ts:
            dist = zd.digest(x).compute()
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
    spread = np.abs(local.icdf(QS) - dist.icdf(QS))
    assert np.all(spread < 0.05), spread

    wire = len(pickle.dumps(dist))
    print(f"values: {N:.0e} in {CHUNKS} chunks")
    print(f"one process      : {local_s:7.2f} s  {N / local_s / 1e6:7.1f} M values/s")
    print(f"2-process cluster: {dist_s:7.2f} s  {N / dist_s / 1e6:7.1f} M values/s"
          f"  (speed-up {local_s / dist_s:.2f}x)")
    total = build + merge + other
    print(f"cluster task time: generate {other:.2f} s, build digests {build:.2f} s,"
          f" merge {merge:.2f} s ({100 * merge / total:.1f}% of task time),"
          f" transfers {moved:.2f} s")
    print(f"one pickled digest: {wire} bytes")


if __name__ == "__main__":
    main()
