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


# The ladder of states: empty, one value, two, a repeated value, many.
LADDER = {
    "empty": lambda: TDigest(),
    "empty-delta-25": lambda: TDigest(None, 25),
    "one": lambda: TDigest(3.5),
    "two": lambda: TDigest(np.array([1.0, -2.0])),
    "repeated": lambda: TDigest(np.repeat([1.0, 2.0], 500)),
    "many": lambda: TDigest(np.random.default_rng(2).normal(size=20_000), 40, RandomStream(seed=1)),
}
GRID = np.linspace(0.0, 1.0, 201)
TRIMS = np.linspace(0.0, 0.49, 50)


def bits(values):
    return np.asarray(values, dtype=np.float64).view(np.uint64).tolist()


def state(d):
    means, counts = d.centroids()
    return d.Delta, d.NumCentroids, d.NumDataPoints, means.tolist(), counts.tolist()


def every_answer(d):
    """Every query over a grid, as bit patterns (NaN included)."""
    answers = {"icdf": bits(d.icdf(GRID))}
    if d.NumDataPoints:
        means = d.centroids()[0]
        xs = np.concatenate([means, np.linspace(means[0] - 1, means[-1] + 1, 201)])
        answers["cdf"] = bits(d.cdf(xs))
        answers["trimmedMean"] = bits(d.trimmedMean(TRIMS))
    return answers


@pytest.mark.parametrize("make", LADDER.values(), ids=list(LADDER))
def test_a_copy_answers_every_query_bit_for_bit(roundtrip, make):
    d = make()
    c = roundtrip(d)
    assert type(c) is TDigest
    assert state(c) == state(d)
    assert every_answer(c) == every_answer(d)


@pytest.mark.parametrize("make", [LADDER["one"], LADDER["many"]], ids=["one", "many"])
def test_a_copy_goes_on_like_the_original(roundtrip, make):
    d = make()
    c = roundtrip(d)
    more = np.random.default_rng(7).exponential(size=5000)
    d.add(more, RandomStream(seed=3))
    c.add(more, RandomStream(seed=3))
    assert state(c) == state(d)
    assert every_answer(c) == every_answer(d)


def test_a_copy_is_independent(roundtrip):
    d = TDigest(np.arange(100.0))
    c = roundtrip(d)
    c.add(np.arange(50.0))
    assert (d.NumDataPoints, c.NumDataPoints) == (100, 150)


def test_object_arrays_of_digests_round_trip(roundtrip):
    digests = column_digests(np.arange(12.0).reshape(3, 4))
    copies = roundtrip(digests)
    assert copies.shape == digests.shape
    assert [state(c) for c in copies.flat] == [state(d) for d in digests.flat]


@pytest.mark.parametrize("protocol", range(pickle.HIGHEST_PROTOCOL + 1))
def test_every_pickle_protocol(protocol):
    d = LADDER["many"]()
    assert every_answer(pickle.loads(pickle.dumps(d, protocol=protocol))) == every_answer(d)


class Digest(TDigest):
    """A user's subclass (at module level, where pickle finds it)."""


def test_a_subclass_pickles_as_itself(roundtrip):
    d = Digest(np.arange(10.0))
    c = roundtrip(d)
    assert type(c) is Digest and state(c) == state(d)


class TestState:
    def test_getstate_is_the_saved_properties_in_registration_order(self):
        d = LADDER["many"]()
        saved = d.__getstate__()
        assert list(saved) == ["AVLTreeSummary", "Delta", "NumCentroids", "NumDataPoints"]
        tree = saved["AVLTreeSummary"]
        assert tree.dtype == np.int64 and tree.ndim == 2 and tree.shape[0] == 4
        assert tree.shape[1] >= d.NumCentroids
        assert saved["Delta"].dtype == np.float64 and saved["Delta"].item() == 40.0
        assert saved["NumCentroids"].dtype == np.uint64 and saved["NumCentroids"].item() == d.NumCentroids
        assert saved["NumDataPoints"].dtype == np.uint64 and saved["NumDataPoints"].item() == 20_000

    def test_an_empty_digest_has_an_empty_tree(self):
        assert TDigest().__getstate__()["AVLTreeSummary"].shape == (4, 0)

    def test_restore_sets_only_properties_with_setters(self):
        d = LADDER["many"]()
        saved = d.__getstate__()
        saved["NumCentroids"] = np.array([[999]], dtype=np.uint64)  # read-only: ignored
        c = TDigest.__new__(TDigest)
        c.__setstate__(saved)
        assert c.NumCentroids == d.NumCentroids != 999
        assert every_answer(c) == every_answer(d)

    def test_setstate_replaces_the_digest_of_a_live_object(self):
        d = TDigest(np.arange(10.0))
        source = LADDER["many"]()
        d.__setstate__(source.__getstate__())
        assert state(d) == state(source)

    def test_a_malformed_tree_is_refused(self):
        saved = TDigest(np.arange(10.0)).__getstate__()
        saved["AVLTreeSummary"] = saved["AVLTreeSummary"][:3]
        with pytest.raises(ValueError) as e:
            TDigest.__new__(TDigest).__setstate__(saved)
        assert e.value.identifier == "stats:tdigest:DataMalformed"

    def test_an_object_made_by_new_alone_refuses_calls(self):
        d = TDigest.__new__(TDigest)
        for call in (lambda: d.icdf(0.5), lambda: d.Delta, lambda: d.__getstate__(), lambda: repr(d)):
            with pytest.raises(TypeError):
                call()
