"""RandomStream: the published sequence, seeding and reproducible digests."""

import numpy as np
import pytest

from zotdigest import RandomStream, TDigest, merge


def test_streams_of_one_seed_agree_reset_and_the_default_stream_is_shared():
    a, first = RandomStream(seed=9), RandomStream("mrg32k3a", 9).rand(50)
    np.testing.assert_array_equal(a.rand(50), first)
    assert not np.array_equal(first, RandomStream(seed=10).rand(50)) and np.all((first > 0) & (first < 1))
    a.reset()
    np.testing.assert_array_equal(a.rand(5), first[:5])
    a.reset(0)
    assert a.seed == 0
    np.testing.assert_array_equal(a.rand(5), RandomStream().rand(5))
    RandomStream.default().reset(0)
    expected = RandomStream(seed=0).rand(4)
    np.testing.assert_array_equal(RandomStream.default().rand(2), expected[:2])
    np.testing.assert_array_equal(RandomStream.default().rand(2), expected[2:])
    assert RandomStream.default().generator == "mrg32k3a"
    assert RandomStream().rand(0).shape == (0,)
    with pytest.raises(ValueError):
        RandomStream().rand(-1)


def test_a_seeded_stream_makes_build_add_and_merge_reproducible():
    x = np.random.default_rng(6).normal(size=30_000)

    def build():
        s = RandomStream(seed=3)
        d = TDigest(x[:10_000], None, s)
        d.add(x[10_000:20_000], s)
        d.merge(TDigest(x[20_000:], None, s), s)
        return [(t.NumDataPoints, *(a.tobytes() for a in t.centroids()))
                for t in (d, merge([d, d], RandomStream(seed=5)))]

    first = build()
    assert first == build() and first[0][0] == x.size
