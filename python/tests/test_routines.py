"""The module's routines: array merge, column build and column merge."""

import numpy as np
import pytest

from zotdigest import HostError, RandomStream, TDigest, column_digests, merge_columns, merge


def weights(digests):
    return np.vectorize(lambda d: d.NumDataPoints, otypes=[np.uint64])(digests)


class TestMergeDigests:
    parts = [TDigest(np.arange(k, k + 100.0)) for k in (0, 100, 200)]

    @pytest.mark.parametrize("container", [list, tuple, lambda p: np.array(p, dtype=object).reshape(1, 3)])
    def test_merges_a_list_or_array_into_one_digest(self, container):
        merged = merge(container(self.parts))
        assert isinstance(merged, TDigest)
        assert merged.NumDataPoints == 300
        assert merged.icdf(0.0) < 1 and merged.icdf(1.0) > 298

    def test_a_single_digest_and_a_stream_are_accepted(self):
        assert merge(self.parts[0], RandomStream(seed=1)).NumDataPoints == 100

    @pytest.mark.parametrize(
        "digests, identifier",
        [
            ([], "QUORIX:class:RequireClass"),
            (np.arange(3.0), "QUORIX:class:RequireClass"),
            ([TDigest(None, 50), TDigest(None, 60)], "stats:tdigest:MergeDeltaMismatch"),
        ],
        ids=["empty", "numbers", "delta-mismatch"],
    )
    def test_bad_inputs_are_refused(self, digests, identifier):
        with pytest.raises(HostError) as e:
            merge(digests)
        assert e.value.identifier == identifier


class TestColumnDigests:
    @pytest.mark.parametrize("shape, result", [((3, 4), (1, 4)), ((3, 4, 2), (1, 4, 2)), ((5,), (1, 1))])
    def test_one_digest_per_column_in_the_modules_shape(self, shape, result):
        data = np.random.default_rng(1).normal(size=shape)
        digests = column_digests(data)
        assert digests.dtype == object and digests.shape == result
        columns = data.reshape(data.shape[0], -1, order="F")
        for i, d in enumerate(digests.ravel(order="F")):
            np.testing.assert_array_equal(d.centroids()[0], np.sort(columns[:, i]))

    @pytest.mark.parametrize("shape, result", [((0, 0), (0, 0)), ((0, 5), (0, 5)), ((5, 0), (1, 0))])
    def test_empty_data_gives_an_empty_object_array(self, shape, result):
        assert column_digests(np.zeros(shape)).shape == result

    def test_delta_and_stream_are_passed(self):
        digests = column_digests(np.ones((4, 3), np.int32), 30, RandomStream(seed=2))
        assert [d.Delta for d in digests.flat] == [30.0] * 3
        assert weights(digests).tolist() == [[4, 4, 4]]

    def test_complex_data_is_refused(self):
        with pytest.raises(HostError) as e:
            column_digests(np.ones((2, 2), complex))
        assert e.value.identifier == "QUORIX:class:RequireReal"


class TestMergeColumns:
    def test_merges_down_the_first_dimension(self):
        digests = column_digests(np.arange(24.0).reshape(2, 3, 4))
        stacked = np.concatenate([digests, digests, digests], axis=0)
        merged = merge_columns(stacked)
        assert merged.shape == (1, 3, 4)
        assert np.all(weights(merged) == 6)

    def test_a_stream_is_accepted_and_empty_input_gives_empty_output(self):
        merged = merge_columns(np.array([[TDigest(1.0)], [TDigest(2.0)]], dtype=object), RandomStream(seed=3))
        assert merged.shape == (1, 1) and merged[0, 0].NumDataPoints == 2
        assert merge_columns(np.empty((0, 3), dtype=object)).shape == (0, 3)


def test_column_digests_default_to_delta_100():
    data = np.random.default_rng(9).normal(size=(500, 2))
    default = column_digests(data, stream=RandomStream(seed=4))
    explicit = column_digests(data, 100.0, RandomStream(seed=4))
    omitted = column_digests(data, None, RandomStream(seed=4))
    for a, b, c in zip(default.flat, explicit.flat, omitted.flat):
        assert a.Delta == b.Delta == c.Delta == 100.0
        np.testing.assert_array_equal(a.centroids()[0], b.centroids()[0])
        np.testing.assert_array_equal(a.centroids()[0], c.centroids()[0])
