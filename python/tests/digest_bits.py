"""Digests compared bit for bit, shared by the suites."""

import numpy as np


def bits(values):
    return np.asarray(values, dtype=np.float64).view(np.uint64).tolist()


def saved(d):
    """Every saved property, bit for bit."""
    return {k: np.asarray(v).tobytes() for k, v in d.__getstate__().items()}


def answers(d):
    """The state and every query over a grid, as bit patterns (NaN included)."""
    means, counts = d.centroids()
    out = [d.Delta, d.NumCentroids, d.NumDataPoints, bits(means), counts.tolist(),
           bits(d.icdf(np.linspace(0.0, 1.0, 201)))]
    if d.NumDataPoints:
        xs = np.concatenate([means, np.linspace(means[0] - 1, means[-1] + 1, 201)])
        out += [bits(d.cdf(xs)), bits(d.trimmedMean(np.linspace(0.0, 0.49, 50)))]
    return out
