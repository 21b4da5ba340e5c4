"""Weighted digests: counts, repeats, ranks against the exact weighted CDF,
the grouped build's binding, and every refused weight (the build against its
definition: the engine's tests)."""

import numpy as np
import pytest
from digest_bits import saved as state

import zotdigest

B = zotdigest.BLOCK_SIZE


@pytest.fixture(scope="module")
def pairs():
    rng = np.random.default_rng(8)
    x = rng.lognormal(size=B + 5000)
    w = rng.integers(0, 10, size=x.size).astype(np.uint64)
    return x, w


def test_counts_and_repeats(pairs):
    x, w = pairs
    d = zotdigest.digest(x, weights=w)
    assert d.NumDataPoints == int(w.sum()) == sum(d.centroids()[1])
    # A weight w counts as w repeats of the value, in NumDataPoints and in the
    # centroid counts, whatever the weights' integer or float dtype.
    small = x[:3000], w[:3000]
    repeated = zotdigest.digest(np.repeat(small[0], small[1].astype(np.int64)))
    for weights in (small[1], small[1].astype(np.int16), small[1].astype(float)):
        d = zotdigest.digest(small[0], weights=weights)
        assert d.NumDataPoints == repeated.NumDataPoints
        assert state(d) == state(zotdigest.digest(small[0], weights=small[1]))
    assert zotdigest.digest([1.0, 2.0, 3.0], weights=[True, False, True]).NumDataPoints == 2
    assert zotdigest.digest([1.0, np.nan], weights=[4, 5]).NumDataPoints == 4


def test_ranks_within_the_unweighted_bound(pairs):
    x, w = pairs
    delta = 100.0
    d = zotdigest.digest(x, delta=delta, weights=w, threads=2)
    order = np.argsort(x, kind="stable")
    sx, cum = x[order], np.cumsum(w[order].astype(float))
    total = cum[-1]
    for q in (1e-3, 0.01, 0.1, 0.25, 0.5, 0.75, 0.9, 0.99, 0.999):
        v = d.icdf(q)
        below = cum[np.searchsorted(sx, v, "left") - 1] / total if v > sx[0] else 0.0
        at = cum[np.searchsorted(sx, v, "right") - 1] / total if v >= sx[0] else 0.0
        error = max(below - q, q - at, 0.0)
        assert error <= max(4 * q * (1 - q) / delta, 5 / total), q


@pytest.mark.parametrize("weights, error, match", [
    ([1, -2, 3], ValueError, "weight -2 at position 1 is negative"),
    ([1.0, 2.5, 3.0], ValueError, "2.5 at position 1 is not a whole number"),
    ([1.0, np.nan, 3.0], ValueError, "nan at position 1 is not a finite number"),
    ([1.0, 2.0, np.inf], ValueError, "inf at position 2 is not a finite number"),
    ([1.0, -1.0, 3.0], ValueError, "at position 1 is negative"),
    ([1, 2], ValueError, "one weight per value"),
    (np.ones((3, 1, 2)), ValueError, "one weight per value"),
    ([2.0**64, 0, 0], ValueError, "does not fit in 64 bits"),
    ([2**64, 0, 0], ValueError, "does not fit in 64 bits"),
    ([2**63, 2**63, 0], ValueError, "sum to more than 2\\*\\*64 - 1"),
    (["1", "2", "3"], TypeError, "whole numbers"),
    ([1j, 1, 1], TypeError, "whole numbers"),
    (np.array([1, "a", 2], dtype=object), TypeError, "'a' at position 1 is not a number"),
])
def test_bad_weights_are_refused_before_any_work(weights, error, match):
    with pytest.raises(error, match=match):
        zotdigest.digest([1.0, 2.0, 3.0], weights=weights)


def test_weights_need_one_array_of_real_values():
    with pytest.raises(TypeError, match="iterable of chunks"):
        zotdigest.digest(iter([np.ones(2), np.ones(2)]), weights=[1, 1, 1, 1])
    with pytest.raises(TypeError, match="real numbers"):
        zotdigest.digest(np.ones(2, complex), weights=[1, 1])
