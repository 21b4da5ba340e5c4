"""Digests of Dask collections on a real two-process cluster on loopback."""

import os
import pathlib

import numpy as np
import pytest

dask = pytest.importorskip("dask")
distributed = pytest.importorskip("distributed")
import dask.array as da  # noqa: E402
import dask.dataframe as dd  # noqa: E402
import pandas as pd  # noqa: E402
from digest_bits import saved as _state  # noqa: E402

import zotdigest  # noqa: E402
import zotdigest.dask as zd  # noqa: E402

# Fewer than 200 values with delta 100: no value can join another, so a
# digest holds exactly its values whatever the order of adds and merges,
# and a lost or repeated chunk shows (the accuracy suite is the module's).
RNG = np.random.default_rng(6)


def values_one_apart(n):
    return RNG.permutation(n).astype(float)


@pytest.fixture(scope="module")
def client():
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, host="127.0.0.1",
                                       dashboard_address=None, silence_logs=40, death_timeout=60)
    c = distributed.Client(cluster, timeout=60)
    try:
        yield c
    finally:
        c.close(timeout=30)
        cluster.close(timeout=30)


def assert_holds_exactly(d, values):
    means, counts = d.centroids()
    np.testing.assert_array_equal(means, np.sort(np.asarray(values, dtype=float).ravel()))
    assert np.all(counts == 1) and d.NumDataPoints == np.size(values)


def test_arrays_and_series_hold_exactly_their_values(client):
    values = values_one_apart(190)
    d = zd.digest(da.from_array(values, chunks=7), delta=100, split_every=3).compute()
    assert isinstance(d, zotdigest.TDigest) and d.Delta == 100.0
    assert_holds_exactly(d, values)
    assert_holds_exactly(zd.digest(dd.from_pandas(pd.Series(values[:90]), npartitions=6)).compute(), values[:90])
    # Empty collections, and empty chunks among full ones, add nothing.
    empty = zd.digest(da.zeros((0,), chunks=1), delta=50).compute()
    assert (empty.NumDataPoints, empty.Delta) == (0, 50.0)
    x = da.concatenate([da.zeros((0,), chunks=1), da.from_array(values, chunks=50)])
    assert zd.digest(x).compute().NumDataPoints == values.size


def test_column_digests_and_the_quantile_and_cdf_one_liners(client):
    values = np.stack([values_one_apart(150) * k for k in (1, 10, 100)], axis=1)
    cols = zd.column_digests(da.from_array(values, chunks=(40, 2))).compute()
    assert cols.shape == zotdigest.column_digests(values).shape == (1, 3)
    for j in range(3):
        assert_holds_exactly(cols[0, j], values[:, j])
    empty = zd.column_digests(da.zeros((0, 4), chunks=(1, 4))).compute()
    assert empty.shape == zotdigest.column_digests(np.zeros((0, 4))).shape
    u = da.from_array(values_one_apart(150), chunks=30)
    q, c = zd.quantile(u, [0.25, 0.5]), zd.cdf(u, 74.0)  # ranks 37 and 74.5 among 0 .. 149
    assert isinstance(q, np.ndarray) and q.tolist() == [37.0, 74.5] and isinstance(c, np.ndarray)
    assert float(c) == pytest.approx(74.5 / 150, rel=1e-12)


def _die_once(block, marker):
    # Kills its worker process the first time it runs, mid-computation.
    if block.size and not pathlib.Path(marker).exists():
        pathlib.Path(marker).write_text("died")
        os._exit(1)
    return block


def test_killed_worker_is_retried_without_a_wrong_answer(client, tmp_path):
    values = values_one_apart(180)
    x, marker = da.from_array(values, chunks=18), str(tmp_path / "died-once")
    # The last block kills its worker once, losing the digests held there.
    # meta is given so that Dask never calls the function here to infer it.
    last = x[162:].map_blocks(_die_once, marker, dtype=x.dtype, meta=np.array((), dtype=x.dtype))
    d = zd.digest(da.concatenate([x[:162], last])).compute()
    assert pathlib.Path(marker).exists()
    assert_holds_exactly(d, values)


def test_seeded_digest_equals_the_in_memory_build_whatever_the_chunks(client):
    B = zotdigest.BLOCK_SIZE
    values = np.random.default_rng(14).lognormal(size=3 * B + 77).astype(np.float32)
    expected = _state(zotdigest.digest(values, seed=9))
    for chunks in (50_000, B - 1, 2 * B + 5):
        got = zd.digest(da.from_array(values, chunks=chunks), seed=9).compute()
        assert _state(got) == expected, chunks
    series = dd.from_pandas(pd.Series(values), npartitions=7)
    assert _state(zd.digest(series, seed=9).compute()) == expected
    m = values[:70_000].reshape(7_000, 10)  # N-d: Fortran order, as zotdigest.digest reads it
    got = zd.digest(da.from_array(m, chunks=(1_500, 3)), seed=2).compute()
    assert _state(got) == _state(zotdigest.digest(m, seed=2))
    with pytest.raises(ValueError, match="not both"):
        zd.digest(da.from_array(values), seed=1, stream=zotdigest.RandomStream())


# --- per group -------------------------------------------------------------------

B = zotdigest.BLOCK_SIZE
# Two keys of several blocks (3 and 2, the last ones short) among rare keys
# and missing ones, interleaved, so that partitions cut blocks and groups.
_rng = np.random.default_rng(19)
GROUP_KEYS = _rng.choice([3.0, 1.0, np.nan, 7.0, -2.0, 0.5], p=[0.6, 0.3, 0.04, 0.03, 0.02, 0.01],
                         size=4 * B + 333)
GROUP_VALUES = _rng.lognormal(size=GROUP_KEYS.size).astype(np.float32)
# A quarter of the weights are 0, so kept pairs' blocks start elsewhere than
# the values'; key 3 still has two blocks of kept pairs, key 7 none.
GROUP_WEIGHTS = _rng.choice([0, 1, 2, 9], size=GROUP_KEYS.size)
GROUP_WEIGHTS[GROUP_KEYS == 7.0] = 0


def assert_same_groups(got, expected):
    assert isinstance(got, zotdigest.GroupedDigests)
    keys, want = got.keys(), expected.keys()
    assert keys.equals(want) and keys.dtype == want.dtype and keys.name == want.name, (keys, want)
    assert [_state(d) for d in got.values()] == [_state(d) for d in expected.values()]


@pytest.fixture(scope="module")
def grouped_expected():
    # By definition: the in-memory build of each key's values, in order.
    present = ~np.isnan(GROUP_KEYS)
    keys = np.unique(GROUP_KEYS[present])
    digests = [zotdigest.digest(GROUP_VALUES[GROUP_KEYS == k], seed=5) for k in keys]
    assert max(d.NumDataPoints for d in digests) > 2 * B
    return zotdigest.GroupedDigests(pd.Index(keys), digests)


@pytest.mark.parametrize("layout", ["one chunk", "small chunks", "uneven chunks", "frame", "unaligned"])
def test_grouped_digests_equal_the_in_memory_build_whatever_the_partitions(client, grouped_expected,
                                                                          layout):
    n = GROUP_KEYS.size
    if layout == "frame":
        frame = pd.DataFrame({"k": GROUP_KEYS, "x": GROUP_VALUES})
        got = zd.digest_by(dd.from_pandas(frame, npartitions=5), by="k", on="x", seed=5)
        expected = zotdigest.GroupedDigests(grouped_expected.keys().rename("k"), grouped_expected.values())
        return assert_same_groups(got, expected)
    if layout == "unaligned":  # Series of other partitions than the values', arrays of other chunks
        values = dd.from_pandas(pd.Series(GROUP_VALUES), npartitions=3)
        by = da.from_array(GROUP_KEYS, chunks=B + 17)
    else:
        chunks = {"one chunk": n, "small chunks": 100_000,
                  "uneven chunks": tuple(np.diff([0, 5, B - 3, B, 3 * B + 1, n]))}[layout]
        values, by = da.from_array(GROUP_VALUES, chunks=chunks), da.from_array(GROUP_KEYS, chunks=chunks)
    assert_same_groups(zd.digest_by(values, by, seed=5), grouped_expected)


@pytest.mark.parametrize("layout", ["uneven chunks", "frame", "unaligned"])
def test_weighted_grouped_digests_equal_the_in_memory_build_whatever_the_partitions(client, layout):
    expected = zotdigest.digest_by(GROUP_VALUES, GROUP_KEYS, weights=GROUP_WEIGHTS, seed=5)
    assert (GROUP_WEIGHTS[GROUP_KEYS == 3.0] > 0).sum() > B and expected[7.0].NumDataPoints == 0
    if layout == "frame":
        frame = pd.DataFrame({"k": GROUP_KEYS, "x": GROUP_VALUES, "w": GROUP_WEIGHTS})
        got = zd.digest_by(dd.from_pandas(frame, npartitions=6), by="k", on="x", weights="w", seed=5)
        expected = zotdigest.digest_by(frame, by="k", on="x", weights="w", seed=5)
    elif layout == "unaligned":
        got = zd.digest_by(da.from_array(GROUP_VALUES, chunks=B - 5), da.from_array(GROUP_KEYS, chunks=B - 5),
                           weights=dd.from_pandas(pd.Series(GROUP_WEIGHTS), npartitions=3), seed=5)
    else:
        chunks = tuple(np.diff([0, 5, B - 3, B, 3 * B + 1, GROUP_KEYS.size]))
        values, by, weights = (da.from_array(a, chunks=chunks) for a in (GROUP_VALUES, GROUP_KEYS, GROUP_WEIGHTS))
        got = zd.digest_by(values, by, weights=weights, seed=5)
    assert_same_groups(got, expected)


def test_weights_are_checked_per_partition_and_in_total(client):
    x = da.from_array(np.arange(6.0), chunks=3)
    negative = da.from_array(np.array([1, 1, 1, 1, -1, 1]), chunks=3)
    with pytest.raises(ValueError, match=r"partition 1\): weight -1 at position 1 is negative"):
        zd.digest_by(x, x, weights=negative)
    # Each partition's sum fits in 64 bits; the total does not.
    huge = da.from_array(np.full(6, 2**62, dtype=np.uint64), chunks=3)
    with pytest.raises(ValueError, match="sum to more than"):
        zd.digest_by(x, da.zeros(6, chunks=2), weights=huge)


def test_keys_of_every_kind_missing_keys_and_empty_partitions(client):
    rng = np.random.default_rng(3)
    x = rng.normal(size=400)
    frame = pd.DataFrame({
        "x": x,
        "s": rng.choice(["b", "a", None, "c"], size=400),
        "t": pd.to_datetime(rng.choice(["2026-01-02", "2025-12-31", None], size=400)),
        "c": pd.Categorical(rng.choice(["lo", "hi"], size=400), categories=["lo", "mid", "hi"]),
        "i": rng.integers(0, 400, size=400),  # nearly every value its own group
    })
    ddf = dd.from_pandas(frame, npartitions=4)
    ddf = ddf[(ddf.x < -0.5) | (ddf.x > 0.5)]  # partitions of unknown length
    ddf = dd.concat([ddf, ddf[ddf.x > 99]])  # and empty ones
    computed = ddf.compute()
    for column in "stci":
        got = zd.digest_by(ddf, by=column, on="x", seed=1, delta=50)
        assert_same_groups(got, zotdigest.digest_by(computed, by=column, on="x", seed=1, delta=50))
    nothing = zd.digest_by(ddf[ddf.x > 99], by="i", on="x")
    assert len(nothing) == 0
    none_present = zd.digest_by(da.from_array(x, chunks=50), da.full(400, np.nan, chunks=30))
    assert len(none_present) == 0


def test_grouped_digest_refuses_bad_input_before_work():
    x = da.from_array(np.arange(10.0), chunks=4)
    for call, error in [
        (lambda: zd.digest_by(x, x, weights=x[:9]), ValueError),
        (lambda: zd.digest_by(x, x, weights=x.astype(complex)), TypeError),
        (lambda: zd.digest_by(x, x, weights="w"), TypeError),
        (lambda: zd.digest_by(x, x[:9]), ValueError),
        (lambda: zd.digest_by(x, np.arange(10)), TypeError),
        (lambda: zd.digest_by(x.astype(complex), x), TypeError),
        (lambda: zd.digest_by(dd.from_dask_array(x, columns="v").to_frame(), by="k", on="v"), KeyError),
        (lambda: zd.digest_by(x, x, seed=-1), ValueError),
    ]:
        with pytest.raises(error):
            call()
