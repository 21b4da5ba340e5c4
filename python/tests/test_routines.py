"""The module's routines: array merge, column build and column merge."""

import numpy as np
import pytest

from zotdigest import RandomStream, TDigest, column_digests, merge, merge_columns


def weights(digests):
    return np.vectorize(lambda d: d.NumDataPoints, otypes=[np.uint64])(digests)


PARTS = [TDigest(np.arange(k, k + 100.0)) for k in (0, 100, 200)]


CONTAINERS = [list, tuple, iter, lambda p: (d for d in p), lambda p: dict(enumerate(p)).values(),
              lambda p: np.array(p, dtype=object).reshape(1, 3)]


@pytest.mark.parametrize("container", CONTAINERS)
def test_merge_takes_an_iterable_or_array_into_one_digest(container):
    merged = merge(container(PARTS))
    assert isinstance(merged, TDigest) and merged.NumDataPoints == 300
    # 300 centroids, too few to compress: the ends are exact, and icdf(0)
    # extrapolates half a gap below the first.
    assert (merged.icdf(0.0), merged.icdf(1.0), merged.NumCentroids) == (-0.5, 299.0, 300)
    assert merge(PARTS[0], RandomStream(seed=1)).NumDataPoints == 100


# Every shape rule is the host suite's (table_routines_test); here the
# object arrays Python gets back.
@pytest.mark.parametrize("shape, result", [((3, 4, 2), (1, 4, 2)), ((5,), (1, 1)), ((0, 5), (0, 5))])
def test_column_digests_give_one_digest_per_column_in_the_modules_shape(shape, result):
    data = np.random.default_rng(1).normal(size=shape)
    digests = column_digests(data)
    assert digests.dtype == object and digests.shape == result
    for i, d in enumerate(digests.ravel(order="F")):  # each column exact (fewer values than delta)
        np.testing.assert_array_equal(d.centroids()[0], np.sort(data.reshape(shape[0], -1, order="F")[:, i]))


def test_column_digests_take_delta_and_stream_and_merge_columns_merges_down_the_first_dimension():
    digests = column_digests(np.ones((4, 3), np.int32), 30, RandomStream(seed=2))
    assert [d.Delta for d in digests.flat] == [30.0] * 3 and weights(digests).tolist() == [[4, 4, 4]]
    digests = column_digests(np.arange(24.0).reshape(2, 3, 4))
    merged = merge_columns(np.concatenate([digests, digests, digests], axis=0))
    assert merged.shape == (1, 3, 4) and np.all(weights(merged) == 6)
    merged = merge_columns(np.array([[TDigest(1.0)], [TDigest(2.0)]], dtype=object), RandomStream(seed=3))
    assert merged.shape == (1, 1) and merged[0, 0].NumDataPoints == 2
    assert merge_columns(np.empty((0, 3), dtype=object)).shape == (0, 3)
