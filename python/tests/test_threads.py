"""Python threads: separate digests at once, one digest in turn. That a long
call releases the GIL shows in the Ctrl-C tests (test_errors.py): their
signal arrives while the call runs."""

import itertools
import threading

import numpy as np

from zotdigest import RandomStream, TDigest, merge

QS = np.linspace(0.0, 1.0, 101)


def run_threads(targets):
    """Runs each callable on its own thread; re-raises the first exception
    a thread raised."""
    errors = []

    def guarded(target):
        try:
            target()
        except BaseException as e:  # noqa: BLE001 - handed to the test thread
            errors.append(e)

    threads = [threading.Thread(target=guarded, args=(t,)) for t in targets]
    for t in threads:
        t.start()
    for t in threads:
        t.join(300)  # a hang guard only
    assert not any(t.is_alive() for t in threads), "a thread is stuck"
    if errors:
        raise errors[0]


def interleavings(a, b, steps):
    """The weight pairs that orders of `steps` merges of b into a and as many
    of a into b pass through, and those they end with."""
    passed, ends = {(a, b)}, set()
    for order in set(itertools.permutations("ab" * steps)):
        x, y = a, b
        for who in order:
            x, y = (x + y, y) if who == "a" else (x, x + y)
            passed.add((x, y))
        ends.add((x, y))
    return passed, ends


def test_threads_on_separate_digests_get_the_answers_of_one_thread_and_take_turns_on_one_seeing_whole_adds():
    data = [np.random.default_rng(k).normal(size=300_000) for k in range(4)]

    def answers(k):
        d = TDigest(data[k][:100_000], None, RandomStream(seed=k))
        d.add(data[k][100_000:], RandomStream(seed=10 + k))
        for q in QS:  # many short calls, interleaved with the other threads'
            d.icdf(float(q))
        means, counts = d.centroids()
        return means.tobytes() + counts.tobytes() + d.icdf(QS).tobytes() + d.cdf(QS).tobytes()

    routine_weights = []

    def crossed(target, source):  # the method and the routine each hold both digests
        for _ in range(3):
            target.merge(source)
            routine_weights.append(merge([target, source]).NumDataPoints)

    def reader():  # never sees an add half done
        while (n := int(shared.centroids()[1].sum())) < 1_200_000:
            assert n % 300_000 == 0, n
            if n:
                low, high = shared.icdf(np.array([0.0, 1.0]))
                assert low <= high and 0.0 < shared.cdf(float(high)) <= 1.0

    alone, together = [answers(k) for k in range(4)], [None] * 4
    shared, a, b = TDigest(), TDigest(np.arange(1000.0)), TDigest(np.arange(1000.0))
    run_threads([lambda k=k: together.__setitem__(k, answers(k)) for k in range(4)]
                + [lambda x=x: shared.add(x) for x in data] + [reader, reader]
                + [lambda: crossed(a, b), lambda: crossed(b, a)])
    assert together == alone
    assert shared.NumDataPoints == int(shared.centroids()[1].sum()) == 1_200_000
    # Each merge saw the other digest whole: the weights are those of some
    # order of the six merges, and each routine merged a state on the way.
    passed, ends = interleavings(1000, 1000, 3)
    assert (a.NumDataPoints, b.NumDataPoints) in ends
    assert len(routine_weights) == 6 and set(routine_weights) <= {x + y for x, y in passed}
    for d in (a, b):
        assert int(d.centroids()[1].sum()) == d.NumDataPoints

