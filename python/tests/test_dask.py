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

import zotdigest  # noqa: E402
import zotdigest.dask as zd  # noqa: E402

# Rank error allowed for a digest of delta 100 over these sizes: the estimate
# of quantile q must lie between the exact quantiles q - eps and q + eps.
RANK_EPS = 0.01
QS = np.array([0.01, 0.05, 0.1, 0.25, 0.5, 0.75, 0.9, 0.95, 0.99])


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


def assert_within_rank(values, estimates, qs=QS):
    values = np.asarray(values, dtype=float).ravel()
    lo, hi = (np.quantile(values, np.clip(qs + e, 0, 1)) for e in (-RANK_EPS, RANK_EPS))
    assert np.all(estimates >= lo) and np.all(estimates <= hi), (qs, estimates, lo, hi)


def assert_exact_and_within_rank(d, values):
    assert d.NumDataPoints == np.size(values)
    assert_within_rank(values, d.icdf(QS))


def test_arrays_and_series_give_exact_weight_and_the_in_memory_answer_within_bounds(client):
    values = np.random.default_rng(6).exponential(size=200_000)
    d = zd.digest(da.from_array(values, chunks=7_000), delta=100, split_every=3).compute()
    assert isinstance(d, zotdigest.TDigest) and d.Delta == 100.0
    assert_exact_and_within_rank(d, values)
    assert_exact_and_within_rank(zotdigest.TDigest(values), values)  # in memory, the same bound
    assert_exact_and_within_rank(zd.digest(dd.from_pandas(pd.Series(values[:30_000]), npartitions=6)).compute(),
                                 values[:30_000])
    # Empty collections, and empty chunks among full ones, add nothing.
    empty = zd.digest(da.zeros((0,), chunks=1), delta=50).compute()
    assert (empty.NumDataPoints, empty.Delta) == (0, 50.0)
    x = da.concatenate([da.zeros((0,), chunks=1), da.from_array(values, chunks=10_000)])
    assert zd.digest(x).compute().NumDataPoints == values.size


@pytest.mark.parametrize("dtype", ["float64", "float32", "int8", "uint8", "int16", "uint16", "int32", "uint32",
                                   "int64", "uint64"])
def test_every_element_type_passes(client, dtype):
    values = np.random.default_rng(7).integers(0, 100, size=(300, 40)).astype(dtype)
    assert_exact_and_within_rank(zd.digest(da.from_array(values, chunks=(100, 20))).compute(), values)


def test_column_digests_and_the_quantile_and_cdf_one_liners(client):
    values = np.random.default_rng(10).normal(size=(20_000, 3)) * [1, 10, 100]
    cols = zd.column_digests(da.from_array(values, chunks=(3_000, 2))).compute()
    assert cols.shape == zotdigest.column_digests(values).shape == (1, 3)
    for j in range(3):
        assert_exact_and_within_rank(cols[0, j], values[:, j])
    empty = zd.column_digests(da.zeros((0, 4), chunks=(1, 4))).compute()
    assert empty.shape == zotdigest.column_digests(np.zeros((0, 4))).shape
    u = da.from_array(np.random.default_rng(12).uniform(size=40_000), chunks=8_000)
    q = zd.quantile(u, [0.25, 0.5])
    assert isinstance(q, np.ndarray) and q.shape == (2,)
    assert_within_rank(u.compute(), q, np.array([0.25, 0.5]))
    c = zd.cdf(u, 0.5)
    assert isinstance(c, np.ndarray) and abs(float(c) - 0.5) < RANK_EPS


def _die_once(block, marker):
    # Kills its worker process the first time it runs, mid-computation.
    if block.size and not pathlib.Path(marker).exists():
        pathlib.Path(marker).write_text("died")
        os._exit(1)
    return block


def test_killed_worker_is_retried_without_a_wrong_answer(client, tmp_path):
    values = np.random.default_rng(13).normal(size=60_000)
    x, marker = da.from_array(values, chunks=6_000), str(tmp_path / "died-once")
    # The last block kills its worker once, losing the digests held there.
    # meta is given so that Dask never calls the function here to infer it.
    last = x[54_000:].map_blocks(_die_once, marker, dtype=x.dtype, meta=np.array((), dtype=x.dtype))
    d = zd.digest(da.concatenate([x[:54_000], last])).compute()
    assert pathlib.Path(marker).exists()
    assert_exact_and_within_rank(d, values)


def _state(d):
    return {k: np.asarray(v).tobytes() for k, v in d.__getstate__().items()}


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
