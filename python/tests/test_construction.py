"""Constructor forms, the shapes of answers, and answers worth having."""

import numpy as np
import pytest

from zotdigest import HostError, RandomStream, TDigest

DATA = np.random.default_rng(11).normal(size=2000)


FORMS = {"none": ((), 100), "data": ((DATA,), 100), "data-delta": ((DATA, 50), 50), "python-int": ((7,), 100),
         "data-delta-stream": ((DATA, 50, RandomStream(seed=1)), 50), "python-float-delta": ((DATA, 50.0), 50),
         "data-none-stream": ((DATA, None, RandomStream(seed=1)), 100), "empty-delta": ((DATA, []), 100),
         "no-data-delta": (([], 50), 50), "empty-matrix-delta": ((np.zeros((0, 3), np.int8), 50), 50)}


@pytest.mark.parametrize("args, delta", FORMS.values(), ids=list(FORMS))
def test_every_constructor_form_adds_all_data(args, delta):
    d = TDigest(*args)
    size = np.size(args[0]) if args else 0
    assert (d.Delta, d.NumDataPoints) == (delta, size)
    assert 0 < d.NumCentroids <= size or size == 0 == d.NumCentroids


def test_keyword_arguments_name_the_same_inputs():
    a, b = TDigest(DATA, None, RandomStream(seed=4)), TDigest(data=DATA, stream=RandomStream(seed=4))
    np.testing.assert_array_equal(a.centroids()[0], b.centroids()[0])


@pytest.mark.parametrize("delta", [np.float32(50), np.int64(50), [50, 60], True, 50j, "50", 0, -1.5, np.nan])
def test_a_delta_not_a_real_double_scalar_above_zero_is_refused(delta):
    with pytest.raises(HostError) as info:
        TDigest(DATA, delta)
    wrong = "Value" if type(delta) in (int, float) else "Type"  # a Python number, but not above zero
    assert info.value.identifier == f"stats:tdigest:DeltaInvalid{wrong}"
    assert delta != -1.5 or "-1.500000" in str(info.value)  # the message gives the value


class TestAnswerShapes:
    digest = TDigest(DATA, None, RandomStream(seed=2))

    def test_a_number_gives_a_float_and_a_numpy_scalar_a_float64(self):
        for query in ("cdf", "icdf", "trimmedMean"):
            assert type(getattr(self.digest, query)(0.25)) is float
        answer = self.digest.cdf(np.float32(0.25))
        assert type(answer) is np.float64 and answer == pytest.approx(self.digest.cdf(0.25), abs=1e-7)

    @pytest.mark.parametrize("shape, answer_shape", [((0,), (0,)), ((1,), (1,)), ((5,), (5,)), ((4, 1), (4, 1)),
                                                     ((1, 4), (1, 4)), ((2, 3, 4), (2, 12))])
    def test_an_array_gives_the_modules_answer_in_element_order_1d_stays_1d(self, shape, answer_shape):
        q = np.random.default_rng(3).uniform(0, 0.49, size=shape)
        for query in ("cdf", "icdf", "trimmedMean"):
            answer = getattr(self.digest, query)(q)
            assert answer.shape == answer_shape
            np.testing.assert_array_equal(answer.ravel(order="F"), getattr(self.digest, query)(q.ravel(order="F")))
        assert self.digest.icdf(q.ravel().tolist()).shape == (q.size,)

    def test_centroids_are_1d_float64_means_and_uint64_counts(self):
        means, counts = self.digest.centroids()
        assert means.dtype == np.float64 and counts.dtype == np.uint64
        assert means.shape == counts.shape == (self.digest.NumCentroids,)
        assert np.all(np.diff(means) >= 0) and counts.sum() == DATA.size
        assert [a.shape for a in TDigest().centroids()] == [(0,), (0,)]


def test_answers_are_about_the_numbers_handed_over_and_add_and_merge_accumulate():
    # 150 values one apart, too few to share a centroid: each is a centroid of
    # its own, so value k is the quantile (k + 1/2) / 150 and trimming 10 %
    # at each end leaves 15 .. 134 (the accuracy suite is the module's).
    x = np.random.default_rng(5).permutation(150).astype(float)
    d = TDigest(x[:75], None, RandomStream(seed=1))
    d.add(x[75:])
    k = np.arange(1.0, 149.0)
    np.testing.assert_allclose(d.icdf((k + 0.5) / 150), k, rtol=1e-12)
    np.testing.assert_allclose(d.cdf(k), (k + 0.5) / 150, rtol=1e-12)
    assert d.trimmedMean(0.1) == pytest.approx(74.5, rel=1e-12)
    b = TDigest(DATA)
    d.merge(b)
    assert (d.NumDataPoints, b.NumDataPoints) == (x.size + DATA.size, DATA.size)

