"""Pickling and copying go through the runtime's save and restore."""

import copy
import pickle

import numpy as np
import pytest
from digest_bits import answers

from zotdigest import RandomStream, TDigest


class Latencies(TDigest):
    pass


# Every pickle protocol (the default among them), copy, deepcopy, the compact form.
ROUND_TRIPS = {f"pickle-{p}": lambda obj, p=p: pickle.loads(pickle.dumps(obj, protocol=p))
               for p in range(pickle.HIGHEST_PROTOCOL + 1)}
ROUND_TRIPS.update(copy=copy.copy, deepcopy=copy.deepcopy, compact=lambda d: type(d).from_bytes(d.to_bytes()))
# The ladder of states: empty, one value, two, a repeated value, many, a subclass.
LADDER = {
    "empty-delta-25": lambda: TDigest(None, 25),
    "one": lambda: TDigest(3.5),
    "two": lambda: TDigest(np.array([1.0, -2.0])),
    "repeated": lambda: TDigest(np.repeat([1.0, 2.0], 500)),
    "many": lambda: TDigest(np.random.default_rng(2).normal(size=20_000), 40, RandomStream(seed=1)),
    "subclass": lambda: Latencies(np.arange(100.0)),
}


@pytest.fixture(params=list(ROUND_TRIPS))
def roundtrip(request):
    return ROUND_TRIPS[request.param]


@pytest.mark.parametrize("make", LADDER.values(), ids=list(LADDER))
def test_a_copy_answers_bit_for_bit_goes_on_alike_and_is_independent(roundtrip, make):
    d = make()
    c = roundtrip(d)
    assert type(c) is type(d) and answers(c) == answers(d)
    more = np.random.default_rng(7).exponential(size=5000)
    c.add(more, RandomStream(seed=3))
    assert c.NumDataPoints == d.NumDataPoints + more.size
    d.add(more, RandomStream(seed=3))
    assert answers(c) == answers(d)


def test_getstate_is_the_saved_properties_in_registration_order():
    d = LADDER["many"]()
    saved = d.__getstate__()
    assert list(saved) == ["AVLTreeSummary", "Delta", "NumCentroids", "NumDataPoints"]
    assert [(v.dtype, v.item()) for k, v in saved.items() if k != "AVLTreeSummary"] == [
        (np.float64, 40.0), (np.uint64, d.NumCentroids), (np.uint64, 20_000)]
    assert saved["AVLTreeSummary"].dtype == np.int64 and TDigest().__getstate__()["AVLTreeSummary"].shape == (4, 0)


def test_a_malformed_tree_and_an_object_never_initialised_are_refused():
    saved = TDigest(np.arange(10.0)).__getstate__()
    saved["AVLTreeSummary"] = saved["AVLTreeSummary"][:3]
    with pytest.raises(ValueError) as e:
        TDigest.__new__(TDigest).__setstate__(saved)
    assert e.value.identifier == "stats:tdigest:DataMalformed"
    d = TDigest.__new__(TDigest)
    for call in (lambda: d.icdf(0.5), lambda: d.Delta, lambda: d.__getstate__(), lambda: repr(d)):
        with pytest.raises(TypeError):
            call()
