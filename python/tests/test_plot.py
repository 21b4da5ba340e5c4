"""Pictures: TDigest.plot draws what the digest answers; the density drawn
from the centroids integrates to 1 and follows the data's distribution."""

import math
import subprocess
import sys

import numpy as np
import pytest

matplotlib = pytest.importorskip("matplotlib")
matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

from zotdigest import TDigest  # noqa: E402


def normal_cdf(x, mu=0.0, sigma=1.0):
    return 0.5 * (1 + np.vectorize(math.erf)((np.asarray(x) - mu) / (sigma * math.sqrt(2))))


rng = np.random.default_rng(16)
DISTRIBUTIONS = {
    "normal": (rng.normal(size=200_000), normal_cdf),
    "log-normal": (rng.lognormal(size=200_000),
                   lambda x: normal_cdf(np.log(np.maximum(x, 1e-300)))),
    "two modes": (np.concatenate([rng.normal(-3, 1, 100_000), rng.normal(3, 0.5, 100_000)]),
                  lambda x: (normal_cdf(x, -3, 1) + normal_cdf(x, 3, 0.5)) / 2),
}


@pytest.mark.parametrize("data, cdf", DISTRIBUTIONS.values(), ids=list(DISTRIBUTIONS))
def test_the_density_integrates_to_one_and_follows_the_distribution(data, cdf):
    ax = TDigest(data).plot("density")
    (steps,) = ax.patches
    heights, edges, _ = steps.get_data()
    assert np.sum(heights * np.diff(edges)) == pytest.approx(1.0, abs=1e-12)
    assert edges[0] <= data.min() and edges[-1] >= data.max() and len(heights) == 100
    # The weight of every step is the distribution's, within sampling noise
    # and the spread of one centroid.
    assert np.max(np.abs(heights * np.diff(edges) - np.diff(cdf(edges)))) < 0.01
    # The tallest step is where the distribution's mode is.
    exact = np.diff(cdf(edges)) / np.diff(edges)
    assert abs(np.argmax(heights) - np.argmax(exact)) <= 2
    plt.close(ax.figure)


def test_cdf_and_quantile_draw_the_digests_answers_into_the_axes_given():
    d = TDigest(rng.exponential(size=10_000))
    fig, ax = plt.subplots()
    assert d.plot(ax=ax) is ax and d.plot("quantile", ax) is ax
    (x, y), (q, v) = (line.get_data() for line in ax.lines)
    assert np.array_equal(y, d.cdf(x)) and np.array_equal(v, d.quantile(q))
    assert x[0] == d.quantile(0.0) and x[-1] == d.quantile(1.0) and (q[0], q[-1]) == (0, 1)
    plt.close(fig)


def test_bad_kinds_and_empty_digests_are_refused_and_matplotlib_waits_until_called():
    with pytest.raises(ValueError, match="one of cdf, density, quantile"):
        TDigest([1.0]).plot("histogram")
    with pytest.raises(ValueError, match="empty digest"):
        TDigest().plot("density")
    one = TDigest([2.0, 2.0]).plot("density")
    heights, edges, _ = one.patches[0].get_data()
    assert np.sum(heights * np.diff(edges)) == pytest.approx(1.0) and edges[0] < 2 < edges[-1]
    code = "import sys, zotdigest; assert 'matplotlib' not in sys.modules"
    subprocess.run([sys.executable, "-c", code], check=True)
