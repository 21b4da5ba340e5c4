"""Weights of a weighted build, checked before any work: whole numbers in
[0, 2**64) whose sum fits in 64 bits, one per value. Booleans count as 0
and 1. The engine receives them as a uint64 array."""

import numbers

import numpy as np

_LIMIT = 2**64


def _first(mask):
    return int(np.flatnonzero(mask)[0])


def _from_objects(weights, who):
    """A uint64 array of an object array's elements, each checked."""
    out = np.empty(weights.size, dtype=np.uint64)
    for i, w in enumerate(weights.ravel(order="K")):
        if isinstance(w, (bool, np.bool_, numbers.Integral)):
            w = int(w)
        elif isinstance(w, numbers.Real):
            w = float(w)
            if w != w or w in (float("inf"), float("-inf")):
                raise ValueError(f"{who}: weight {w} at position {i} is not a finite number")
            if w != int(w):
                raise ValueError(f"{who}: weight {w} at position {i} is not a whole number")
            w = int(w)
        else:
            raise TypeError(f"{who}: weight {w!r} at position {i} is not a number")
        if w < 0:
            raise ValueError(f"{who}: weight {w} at position {i} is negative")
        if w >= _LIMIT:
            raise ValueError(f"{who}: weight {w} at position {i} does not fit in 64 bits")
        out[i] = w
    return out.reshape(weights.shape)


def checked_weights(weights, shape, who):
    """`weights` as a 1-D uint64 array in the module's element order (Fortran
    order) for values of this shape; ValueError or TypeError naming the
    problem."""
    if hasattr(weights, "to_numpy") and not isinstance(weights, np.ndarray):
        weights = weights.to_numpy()
    weights = np.asarray(weights)
    size = int(np.prod(shape, dtype=np.int64))
    if weights.shape != tuple(shape) and weights.shape != (size,):
        raise ValueError(f"{who}: weights of shape {weights.shape} for values of shape "
                         f"{tuple(shape)}: one weight per value is needed")
    kind = weights.dtype.kind
    if kind == "b":
        weights = weights.astype(np.uint64)
    elif kind == "O":
        weights = _from_objects(weights, who)
    elif kind not in "iuf":
        raise TypeError(f"{who}: weights must be whole numbers, not of dtype {weights.dtype}")
    elif kind == "f":
        bad = ~np.isfinite(weights)
        if bad.any():
            i = _first(bad.ravel(order="F"))
            raise ValueError(f"{who}: weight {weights.ravel(order='F')[i]} at position {i} "
                             "is not a finite number")
    flat = weights.ravel(order="F")
    if kind in "if":
        bad = flat < 0
        if bad.any():
            i = _first(bad)
            raise ValueError(f"{who}: weight {flat[i]} at position {i} is negative")
    if kind == "f":
        bad = flat != np.floor(flat)
        if bad.any():
            i = _first(bad)
            raise ValueError(f"{who}: weight {flat[i]} at position {i} is not a whole number")
        bad = flat >= float(_LIMIT)
        if bad.any():
            i = _first(bad)
            raise ValueError(f"{who}: weight {flat[i]} at position {i} does not fit in 64 bits")
    flat = np.ascontiguousarray(flat, dtype=np.uint64)
    if weight_sum(flat) >= _LIMIT:
        raise ValueError(f"{who}: the weights sum to more than 2**64 - 1")
    return flat


def weight_sum(flat):
    """The exact sum of a uint64 array as a Python int, from the two 32-bit
    halves (each half's sum fits for fewer than 2**32 weights)."""
    high = int(np.sum(flat >> np.uint64(32), dtype=np.uint64))
    low = int(np.sum(flat & np.uint64(0xFFFFFFFF), dtype=np.uint64))
    return (high << 32) + low
