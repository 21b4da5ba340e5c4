"""Pickling and copying go through the runtime's save and restore."""

import copy
import pickle

import numpy as np
import pytest

from zotdigest import RandomStream, TDigest, column_digests


@pytest.fixture(params=["pickle-default", "pickle-highest", "copy", "deepcopy"])
def roundtrip(request):
    return {
        "pickle-default": lambda obj: pickle.loads(pickle.dumps(obj)),
        "pickle-highest": lambda obj: pickle.loads(pickle.dumps(obj, protocol=pickle.HIGHEST_PROTOCOL)),
        "copy": copy.copy,
        "deepcopy": copy.deepcopy,
    }[request.param]


def state(d):
    means, counts = d.centroids()
    return d.Delta, d.NumCentroids, d.NumDataPoints, means.tolist(), counts.tolist()


@pytest.mark.parametrize(
    "make",
    [
        lambda: TDigest(),
        lambda: TDigest(None, 25),
        lambda: TDigest(3.5),
        lambda: TDigest(np.repeat([1.0, 2.0], 500)),
        lambda: TDigest(np.random.default_rng(2).normal(size=20_000), 40, RandomStream(seed=1)),
    ],
    ids=["empty", "empty-delta-25", "one", "repeated", "many"],
)
def test_a_copy_has_the_same_state(roundtrip, make):
    d = make()
    assert state(roundtrip(d)) == state(d)


def test_a_copy_is_independent(roundtrip):
    d = TDigest(np.arange(100.0))
    c = roundtrip(d)
    c.add(np.arange(50.0))
    assert (d.NumDataPoints, c.NumDataPoints) == (100, 150)


def test_a_copy_answers_like_the_original(roundtrip):
    d = TDigest(np.random.default_rng(3).exponential(size=5000))
    q = np.linspace(0, 1, 11)
    np.testing.assert_array_equal(roundtrip(d).icdf(q), d.icdf(q))


def test_object_arrays_of_digests_round_trip(roundtrip):
    digests = column_digests(np.arange(12.0).reshape(3, 4))
    copies = roundtrip(digests)
    assert copies.shape == digests.shape
    assert [state(c) for c in copies.flat] == [state(d) for d in digests.flat]


def test_the_reduced_state_is_a_dict_of_numpy_arrays():
    factory, (saved,) = TDigest(np.arange(10.0)).__reduce__()
    assert callable(factory)
    assert list(saved) == ["AVLTreeSummary", "Delta", "NumCentroids", "NumDataPoints"]
    assert all(isinstance(v, np.ndarray) for v in saved.values())
    assert saved["AVLTreeSummary"].dtype == np.int64
