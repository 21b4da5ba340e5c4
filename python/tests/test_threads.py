"""Python threads: separate digests at once, one digest in turn, no GIL held."""

import threading
import time

import numpy as np

import zotdigest
from zotdigest import RandomStream, TDigest

QS = np.linspace(0.0, 1.0, 101)


def run_threads(targets, timeout=120):
    threads = [threading.Thread(target=t) for t in targets]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout)
    assert not any(t.is_alive() for t in threads), "a thread is stuck"


def test_threads_on_separate_digests_get_the_answers_of_one_thread():
    data = [np.random.default_rng(k).normal(size=300_000) for k in range(4)]

    def answers(k):
        d = TDigest(data[k][:100_000], None, RandomStream(seed=k))
        d.add(data[k][100_000:], RandomStream(seed=10 + k))
        for q in QS:  # many short calls, interleaved with the other threads'
            d.icdf(float(q))
        means, counts = d.centroids()
        return means.tobytes() + counts.tobytes() + d.icdf(QS).tobytes() + d.cdf(QS).tobytes()

    alone = [answers(k) for k in range(4)]
    together = [None] * 4
    run_threads([lambda k=k: together.__setitem__(k, answers(k)) for k in range(4)])
    assert together == alone


def test_a_long_call_holds_neither_the_gil_nor_other_digests():
    busy = TDigest()
    # Digests share a lock when their addresses hash alike (one chance in
    # 64): of three, at least one is on a lock of its own.
    others = [TDigest(np.arange(100.0)) for _ in range(3)]
    big = np.random.default_rng(1).normal(size=4_000_000)
    # The serial add of four million values takes seconds.
    worker = threading.Thread(target=busy.add, args=(big, RandomStream(seed=1)))
    worker.start()
    time.sleep(0.1)
    waits = []
    for d in others:  # Python code, and calls on other digests, run meanwhile
        started = time.monotonic()
        d.icdf(0.5), d.cdf(50.0), d.add(np.arange(10.0))
        waits.append(time.monotonic() - started)
    still_running = worker.is_alive()
    worker.join()
    assert still_running, "the long call ended before the short ones: no overlap shown"
    assert min(waits) < 0.5, waits
    assert [d.NumDataPoints for d in others] == [110] * 3 and busy.NumDataPoints == big.size


def test_calls_on_one_digest_wait_for_each_other_and_crossed_merges_do_not_deadlock():
    d = TDigest()
    chunks = np.array_split(np.random.default_rng(4).normal(size=200_000), 8)
    run_threads([lambda c=c: d.add(c) for c in chunks])
    assert d.NumDataPoints == zotdigest.merge([d]).NumDataPoints == 200_000
    a = TDigest(np.random.default_rng(5).normal(size=1000))
    b = TDigest(np.random.default_rng(6).normal(size=1000))

    def merge_into(target, source):
        for _ in range(4):
            target.merge(source)
            zotdigest.merge([target, source])

    run_threads([lambda: merge_into(a, b), lambda: merge_into(b, a)], timeout=60)
    # Each of the eight merges added the other digest's weight of the moment.
    for x in (a, b):
        assert x.NumDataPoints > 1000 and int(x.centroids()[1].sum()) == x.NumDataPoints
