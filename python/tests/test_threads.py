"""Python threads: separate digests at once, one digest in turn. That a long
call releases the GIL shows in the Ctrl-C tests (test_errors.py): their timer
thread must run while the call does."""

import threading

import numpy as np

from zotdigest import RandomStream, TDigest, merge

QS = np.linspace(0.0, 1.0, 101)


def test_threads_on_separate_digests_get_the_answers_of_one_thread_and_take_turns_on_one():
    data = [np.random.default_rng(k).normal(size=300_000) for k in range(4)]

    def answers(k):
        d = TDigest(data[k][:100_000], None, RandomStream(seed=k))
        d.add(data[k][100_000:], RandomStream(seed=10 + k))
        for q in QS:  # many short calls, interleaved with the other threads'
            d.icdf(float(q))
        means, counts = d.centroids()
        return means.tobytes() + counts.tobytes() + d.icdf(QS).tobytes() + d.cdf(QS).tobytes()

    def crossed(target, source):  # the method and the routine each hold both digests
        for _ in range(4):
            target.merge(source), merge([target, source])

    alone, together = [answers(k) for k in range(4)], [None] * 4
    shared, a, b = TDigest(), TDigest(np.arange(1000.0)), TDigest(np.arange(1000.0))
    threads = [threading.Thread(target=lambda k=k: together.__setitem__(k, answers(k))) for k in range(4)]
    threads += [threading.Thread(target=shared.add, args=(x,)) for x in data]
    threads += [threading.Thread(target=crossed, args=pair) for pair in [(a, b), (b, a)]]
    for t in threads:
        t.start()
    for t in threads:
        t.join(120)
    assert not any(t.is_alive() for t in threads), "a thread is stuck"
    assert together == alone
    assert shared.NumDataPoints == int(shared.centroids()[1].sum()) == 1_200_000
    assert a.NumDataPoints > 1000 and int(a.centroids()[1].sum()) == a.NumDataPoints
