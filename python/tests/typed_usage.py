"""A small typed use of the package: mypy --strict must accept it."""

import pickle

import numpy as np
from numpy.typing import NDArray

import zotdigest
from zotdigest import RandomStream, TDigest


def summarise(values: NDArray[np.float64], path: str) -> tuple[float, NDArray[np.float64], int]:
    d = TDigest(values, 100.0, RandomStream(seed=1))
    d.update([1.0, 2.0])
    median: float = d.quantile(0.5)
    tails: NDArray[np.float64] = d.percentile([1.0, 99.0])
    share: float = d.cdf(0.0) + d.trimmed_mean(0.1) + d.delta
    merged = zotdigest.merge(TDigest(values[i::2]) for i in range(2))
    zotdigest.save(path, [d, merged], label=["all", "halves"])
    loaded = zotdigest.load(path, labels=True)
    again = TDigest.from_bytes(pickle.loads(pickle.dumps(d)).to_bytes())
    groups = zotdigest.digest_by(values, values > 0).merge(zotdigest.digest_by(values, values > 0))
    zotdigest.save(path, groups)
    per_group: NDArray[np.float64] = zotdigest.load_by(path).quantile([0.5, 0.99])
    return median + share, tails + per_group[0], again.count + len(loaded) + merged.count
