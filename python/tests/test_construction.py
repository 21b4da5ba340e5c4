"""Constructor forms, argument errors and the shapes of answers."""

import numpy as np
import pytest

import zotdigest
from zotdigest import HostError, RandomStream, TDigest

DATA = np.random.default_rng(11).normal(size=2000)


def identifier_of(call, *args):
    with pytest.raises(HostError) as info:
        call(*args)
    return info.value.identifier


class TestConstructorForms:
    def test_no_argument_gives_an_empty_digest_of_delta_100(self):
        d = TDigest()
        assert (d.Delta, d.NumCentroids, d.NumDataPoints) == (100.0, 0, 0)

    @pytest.mark.parametrize(
        "args",
        [(DATA,), (DATA, 50), (DATA, 50, RandomStream(seed=1)), (DATA, None, RandomStream(seed=1))],
        ids=["data", "data-delta", "data-delta-stream", "data-none-stream"],
    )
    def test_every_form_adds_all_data(self, args):
        d = TDigest(*args)
        assert d.NumDataPoints == DATA.size
        assert 0 < d.NumCentroids <= DATA.size
        assert d.Delta == (50.0 if args[1:2] == (50,) else 100.0)

    def test_keyword_arguments_name_the_same_inputs(self):
        a = TDigest(DATA, None, RandomStream(seed=4))
        b = TDigest(data=DATA, stream=RandomStream(seed=4))
        np.testing.assert_array_equal(a.centroids()[0], b.centroids()[0])

    @pytest.mark.parametrize("empty", [None, [], (), np.zeros(0), np.zeros((0, 3), np.int8)])
    def test_empty_data_with_a_delta_gives_an_empty_digest_of_that_delta(self, empty):
        d = TDigest(empty, 50)
        assert (d.Delta, d.NumDataPoints) == (50.0, 0)

    @pytest.mark.parametrize("no_delta", [None, []])
    def test_an_empty_delta_keeps_100(self, no_delta):
        assert TDigest(DATA, no_delta).Delta == 100.0

    def test_python_int_and_float_are_double_scalars(self):
        assert TDigest(DATA, 50).Delta == TDigest(DATA, 50.0).Delta == 50.0
        assert TDigest(7).NumDataPoints == 1

    @pytest.mark.parametrize(
        "delta",
        [np.float32(50), np.int64(50), np.array([50.0, 60.0]), [50, 60], True, 50j, "50"],
        ids=["single", "int64", "vector", "list", "bool", "complex", "char"],
    )
    def test_a_delta_not_a_real_double_scalar_is_refused(self, delta):
        assert identifier_of(TDigest, DATA, delta) == "stats:tdigest:DeltaInvalidType"

    @pytest.mark.parametrize("delta", [0, -1.5, np.nan])
    def test_a_delta_not_above_zero_is_refused_with_its_value(self, delta):
        with pytest.raises(HostError) as info:
            TDigest(DATA, delta)
        assert info.value.identifier == "stats:tdigest:DeltaInvalidValue"
        if delta == -1.5:
            assert "-1.500000" in str(info.value)

    @pytest.mark.parametrize(
        "data", [np.array([True, False]), np.array([1 + 2j]), "abc"], ids=["bool", "complex", "char"]
    )
    def test_data_that_is_not_real_numeric_is_refused(self, data):
        assert identifier_of(TDigest, data) == "QUORIX:class:RequireReal"
        assert identifier_of(TDigest().add, data) == "QUORIX:class:RequireReal"

    def test_a_stream_argument_that_is_not_a_stream_is_refused(self):
        assert identifier_of(TDigest, DATA, None, 5.0) == "QUORIX:random:InvalidStream"


class TestAnswerShapes:
    digest = TDigest(DATA, None, RandomStream(seed=2))

    def test_a_python_number_gives_a_python_float(self):
        for query in ("cdf", "icdf", "trimmedMean"):
            answer = getattr(self.digest, query)(0.25)
            assert type(answer) is float

    def test_a_numpy_scalar_gives_a_numpy_float64(self):
        answer = self.digest.cdf(np.float32(0.25))
        assert type(answer) is np.float64
        assert answer == pytest.approx(self.digest.cdf(0.25), abs=1e-7)

    @pytest.mark.parametrize("n", [0, 1, 5])
    def test_a_1d_argument_of_n_gives_1d_of_n(self, n):
        q = np.linspace(0.1, 0.9, n)
        for query in ("cdf", "icdf", "trimmedMean"):
            assert getattr(self.digest, query)(q * 0.5).shape == (n,)
        assert self.digest.icdf(list(q)).shape == (n,)

    @pytest.mark.parametrize(
        "shape, answer_shape",
        [((4, 1), (4, 1)), ((1, 4), (1, 4)), ((2, 3), (2, 3)), ((2, 3, 4), (2, 12)), ((2, 3, 1), (2, 3))],
    )
    def test_2d_and_higher_give_the_modules_2d_answer_in_element_order(self, shape, answer_shape):
        q = np.random.default_rng(3).uniform(size=shape)
        answer = self.digest.icdf(q)
        assert answer.shape == answer_shape
        np.testing.assert_array_equal(answer.ravel(order="F"), self.digest.icdf(q.ravel(order="F")))

    def test_nan_elements_give_nan(self):
        answer = self.digest.cdf(np.array([0.0, np.nan]))
        assert np.isnan(answer[1]) and not np.isnan(answer[0])

    def test_centroids_are_1d_float64_means_and_uint64_counts(self):
        means, counts = self.digest.centroids()
        assert means.dtype == np.float64 and counts.dtype == np.uint64
        assert means.shape == counts.shape == (self.digest.NumCentroids,)
        assert np.all(np.diff(means) >= 0)
        assert counts.sum() == DATA.size

    def test_centroids_of_an_empty_digest_are_empty_1d(self):
        means, counts = TDigest().centroids()
        assert means.shape == counts.shape == (0,)


class TestAccuracy:
    @pytest.mark.parametrize("draw", ["normal", "exponential", "uniform"])
    def test_quantiles_are_within_a_rank_bound_of_numpy(self, draw):
        x = getattr(np.random.default_rng(42), draw)(size=100_000)
        d = TDigest(x, None, RandomStream(seed=1))
        q = np.linspace(0.001, 0.999, 999)
        rank = np.searchsorted(np.sort(x), d.icdf(q)) / x.size
        error = np.abs(rank - q)
        assert error.max() < 0.005
        assert error[(q < 0.01) | (q > 0.99)].max() < 0.0005
        np.testing.assert_allclose(d.cdf(np.quantile(x, q)), q, atol=0.005)

    def test_trimmed_means_agree_with_numpy(self):
        x = np.random.default_rng(5).exponential(size=100_000)
        d = TDigest(x)
        assert d.trimmedMean(0.0) == pytest.approx(x.mean(), rel=1e-9)
        trimmed = np.sort(x)[10_000:90_000].mean()
        assert d.trimmedMean(0.1) == pytest.approx(trimmed, abs=1e-3)

    def test_add_and_merge_accumulate_weight(self):
        a = TDigest(DATA[:500])
        a.add(DATA[500:])
        b = TDigest(DATA)
        a.merge(b)
        assert a.NumDataPoints == 2 * DATA.size
        assert b.NumDataPoints == DATA.size
        assert zotdigest.merge([a, b]).NumDataPoints == 3 * DATA.size
