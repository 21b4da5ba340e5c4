# Types of zotdigest.dask. Dask ships no types of its own: the lazy results
# are Any (a dask Delayed computing to a TDigest or an object array).
from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import RandomStream

def digest(
    data: Any,
    delta: float = ...,
    stream: RandomStream | None = ...,
    split_every: int | None = ...,
    seed: int | None = ...,
) -> Any: ...
# A zotdigest.GroupedDigests (typed Any until the package's stub declares it).
def digest_by(
    data: Any,
    by: Any,
    on: Any = ...,
    *,
    weights: Any = ...,
    delta: float = ...,
    seed: int = ...,
) -> Any: ...
def column_digests(data: Any, delta: float = ..., stream: RandomStream | None = ...) -> Any: ...
def quantile(data: Any, q: ArrayLike, delta: float = ...) -> NDArray[np.float64]: ...
def cdf(data: Any, x: ArrayLike, delta: float = ...) -> NDArray[np.float64]: ...
