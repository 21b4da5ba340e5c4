"""RandomStream: the published sequence, seeding and reproducible digests."""

import numpy as np
import pytest

from zotdigest import HostError, RandomStream, TDigest, merge


def test_seed_0_gives_the_published_first_draws():
    np.testing.assert_allclose(
        RandomStream(seed=0).rand(3), [0.127011122046577, 0.318527565396794, 0.309186015583270], rtol=0, atol=1e-15
    )


def test_streams_of_one_seed_agree_and_of_two_seeds_differ():
    a, b, c = RandomStream(seed=9), RandomStream("mrg32k3a", 9), RandomStream(seed=10)
    first = a.rand(50)
    np.testing.assert_array_equal(first, b.rand(50))
    assert not np.array_equal(first, c.rand(50))
    assert np.all((first > 0) & (first < 1))


def test_reset_returns_to_the_start_of_a_stream():
    s = RandomStream(seed=4)
    first = s.rand(5)
    s.reset()
    np.testing.assert_array_equal(s.rand(5), first)
    s.reset(0)
    assert s.seed == 0
    np.testing.assert_array_equal(s.rand(5), RandomStream().rand(5))


def test_the_default_stream_is_one_shared_seedable_stream():
    RandomStream.default().reset(0)
    expected = RandomStream(seed=0).rand(4)
    np.testing.assert_array_equal(RandomStream.default().rand(2), expected[:2])
    np.testing.assert_array_equal(RandomStream.default().rand(2), expected[2:])
    assert RandomStream.default().generator == "mrg32k3a"


@pytest.mark.parametrize(
    "args, identifier",
    [
        (("mrg32k3a", -1), "QUORIX:random:InvalidSeed"),
        (("mrg32k3a", 2**32), "QUORIX:random:InvalidSeed"),
        (("twister", 0), "QUORIX:random:UnknownGenerator"),
    ],
)
def test_bad_generators_and_seeds_are_refused(args, identifier):
    with pytest.raises(HostError) as e:
        RandomStream(*args)
    assert e.value.identifier == identifier


def test_rand_counts():
    assert RandomStream().rand(0).shape == (0,)
    with pytest.raises(ValueError):
        RandomStream().rand(-1)


class TestReproducibleDigests:
    x = np.random.default_rng(6).normal(size=30_000)

    @staticmethod
    def centroids(d):
        return np.concatenate([d.centroids()[0], d.centroids()[1].astype(float)])

    def test_a_seeded_stream_and_the_serial_path_give_identical_centroids(self):
        a = TDigest(self.x, None, RandomStream(seed=12))
        b = TDigest(self.x, 20, RandomStream(seed=12))
        c = TDigest(self.x, None, RandomStream(seed=12))
        np.testing.assert_array_equal(self.centroids(a), self.centroids(c))
        assert a.NumCentroids != b.NumCentroids

    def test_add_and_merge_with_a_stream_are_reproducible(self):
        def build():
            s = RandomStream(seed=3)
            d = TDigest()
            d.add(self.x[:10_000], s)
            d.merge(TDigest(self.x[10_000:], None, s), s)
            return d, merge([d, d], RandomStream(seed=5))

        (d1, m1), (d2, m2) = build(), build()
        np.testing.assert_array_equal(self.centroids(d1), self.centroids(d2))
        np.testing.assert_array_equal(self.centroids(m1), self.centroids(m2))
        assert d1.NumDataPoints == self.x.size
