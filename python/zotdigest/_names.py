"""The everyday Python names of TDigest, beside the module's own.

Each is a thin call of a registered member: the answers are the module's,
bit for bit, in the same shapes.
"""

import numbers as _numbers

import numpy as _np

from ._core import TDigest, merge as _module_merge


def quantile(self, q):
    """quantile(q)

    The estimated quantile at each probability in `q` (0 <= q <= 1); the
    module's icdf. A number in gives a float out; a sequence or array gives
    an array of its shape. A q outside [0, 1] raises HostValueError
    'stats:tdigest:IcdfInvalidQuantile'; an empty digest gives NaN.
    """
    return self.icdf(q)


def percentile(self, p):
    """percentile(p)

    The estimated percentile at each `p` in [0, 100]: quantile(p / 100).
    Shapes as quantile; a p outside [0, 100] raises HostValueError
    'stats:tdigest:IcdfInvalidQuantile'.
    """
    if isinstance(p, _numbers.Real) and not isinstance(p, _np.generic):
        return self.icdf(float(p) / 100.0)
    return self.icdf(_np.divide(_np.asarray(p), 100))


def trimmed_mean(self, p):
    """trimmed_mean(p)

    The mean after cutting a fraction `p` (0 <= p < 0.5) of the weight from
    each end, for each element of `p`; the module's trimmedMean. Shapes as
    quantile. A p outside [0, 0.5) raises HostValueError
    'stats:tdigest:TrimmedMeanInvalidTrim'; an empty digest raises
    HostValueError 'stats:tdigest:TrimmedMeanNoData'.
    """
    return self.trimmedMean(p)


def update(self, data, stream=None):
    """update(data, stream=None)

    Adds every element of `data` (a number, a sequence or an array of any
    numeric dtype and shape); the module's add. With a RandomStream the
    additions are serial and reproducible. Complex, boolean and text data
    raise HostTypeError 'QUORIX:class:RequireReal'. Returns None.
    """
    if stream is None:
        self.add(data)
    else:
        self.add(data, stream)


def _count(self):
    """The number of data points added (an int); the module's NumDataPoints."""
    return int(self.NumDataPoints)


def _delta(self):
    """The compression parameter (a float, read only); the module's Delta.
    A larger delta keeps more centroids and answers more accurately."""
    return self.Delta


def merge(digests, stream=None):
    """merge(digests, stream=None)

    One new digest merging `digests`: a list, tuple, NumPy object array or
    any other iterable of TDigest (a generator too), all of equal Delta
    (else HostValueError 'stats:tdigest:MergeDeltaMismatch'). The digests
    are unchanged. With a RandomStream the merge is reproducible.
    """
    if digests is not None and not isinstance(digests, (list, tuple, _np.ndarray, TDigest)):
        digests = list(digests)
    return _module_merge(digests, stream)


def install():
    for function in (quantile, percentile, trimmed_mean, update):
        setattr(TDigest, function.__name__, function)
    TDigest.count = property(_count, doc=_count.__doc__)
    TDigest.delta = property(_delta, doc=_delta.__doc__)
