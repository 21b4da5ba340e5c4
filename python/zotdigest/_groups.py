"""Digests per group: the keys of a group column as codes, and the mapping
from key to digest that zotdigest.digest_by returns.

Keys are ordered and missing keys are dropped as pandas' groupby does by
default (sort=True, dropna=True; a categorical keeps all its categories, in
their order, as groupby's default observed=False does in the pandas this
package is tested with). pandas is used when it is installed; NumPy arrays
of numbers, bools, datetimes or str work without it.
"""

import collections.abc as _abc

import numpy as _np

from . import _core
from ._core import ReproducibleBuild, TDigest
from ._weights import checked_weights


def _pandas():
    try:
        import pandas
    except ImportError:
        return None
    return pandas


def _drops_unobserved(pd):
    # groupby keeps unobserved categories by default before pandas 3.
    return int(pd.__version__.split(".")[0]) >= 3


def _factorize_pandas(pd, by):
    if isinstance(by, (pd.Series, pd.Index)):
        data = by.array
    elif isinstance(by, (_np.ndarray, pd.api.extensions.ExtensionArray)):
        data = by
    else:
        # A list: the dtype a Series of it would have (floats with NaN, not
        # objects, for [1, None, 2.5]).
        data = pd.Series(list(by), dtype=None if len(by) else object).array
    if isinstance(getattr(data, "dtype", None), pd.CategoricalDtype):
        cat = pd.Categorical(data)
        codes = _np.asarray(cat.codes, dtype=_np.int64)
        keys = cat.categories
        if _drops_unobserved(pd):
            used = _np.zeros(len(keys), dtype=bool)
            used[codes[codes >= 0]] = True
            remap = _np.cumsum(used, dtype=_np.int64) - 1
            codes = _np.where(codes >= 0, remap[_np.maximum(codes, 0)], -1)
            keys = keys[used]
        return codes, pd.CategoricalIndex(keys, categories=cat.categories, ordered=cat.ordered)
    if isinstance(data, _np.ndarray) and data.dtype.kind in "iub":
        counted = _counted_ints(data, pd.Index)
        if counted is not None:
            return counted
    codes, keys = pd.factorize(data)
    keys = keys if isinstance(keys, pd.Index) else pd.Index(keys)
    try:
        order = keys.argsort()
    except TypeError:
        # Keys that do not compare (say ints and str): pandas' own order.
        codes, keys = pd.factorize(data, sort=True)
        keys = keys if isinstance(keys, pd.Index) else pd.Index(keys)
        return _np.asarray(codes, dtype=_np.int64), keys
    # Sorting the few distinct keys and renumbering costs far less than
    # factorize(sort=True) on many values; the answer is the same.
    return _renumbered(_np.asarray(codes, dtype=_np.int64), order), keys[order]


def _renumbered(codes, order):
    """Codes of the keys taken in `order`; -1 stays -1."""
    rank = _np.empty(len(order) + 1, dtype=_np.int64)
    rank[order] = _np.arange(len(order))
    rank[-1] = -1
    return rank[codes]


def _counted_ints(data, index=_np.asarray):
    """Codes and keys of integer or bool keys by counting, when their range
    is small (as common keys' is); else None."""
    numbers = data.view(_np.uint8) if data.dtype.kind == "b" else data
    if numbers.size and int(numbers.max()) - int(numbers.min()) <= max(numbers.size, 1 << 16):
        low = numbers.min()
        if numbers.dtype.kind == "i":
            offsets = numbers.astype(_np.intp, copy=False) - _np.intp(low)
        else:
            offsets = (numbers - low).astype(_np.intp, copy=False)
        present = _np.bincount(offsets) > 0
        rank = _np.cumsum(present, dtype=_np.int64) - 1
        # Modular arithmetic in the keys' own dtype gives them back exactly.
        keys = (_np.flatnonzero(present).astype(numbers.dtype) + low).astype(data.dtype)
        return rank[offsets], index(keys)
    return None


def _named(pd, keys, by):
    # As groupby names its index after the key column.
    if isinstance(by, (pd.Series, pd.Index)) and by.name is not None:
        keys = keys.rename(by.name)
    return keys


def _missing(keys):
    if keys.dtype.kind == "f" or keys.dtype.kind == "c":
        return _np.isnan(keys)
    if keys.dtype.kind in "mM":
        return _np.isnat(keys)
    if keys.dtype.kind == "O":
        return _np.array([k is None or (isinstance(k, float) and k != k) for k in keys], dtype=bool)
    return _np.zeros(keys.shape, dtype=bool)


def _factorize_numpy(by):
    by = _np.asarray(by)
    counted = _counted_ints(by) if by.dtype.kind in "iub" else None
    if counted is not None:
        return counted
    present = ~_missing(by)
    keys, inverse = _np.unique(by[present], return_inverse=True)
    codes = _np.full(by.shape, -1, dtype=_np.int64)
    codes[present] = inverse
    return codes, keys


def factorize_keys(by):
    """factorize_keys(by) -> (codes, keys)

    `by`: a 1-D array of keys (a list, a NumPy array, a pandas Series,
    Index or Categorical). Returns `codes`, an int64 array of by's length
    with the position of each key in `keys` (-1 for a missing key: NaN,
    None, NaT, pandas.NA), and `keys`, the distinct keys in the order
    pandas' groupby gives them (a pandas Index when pandas is installed,
    else a NumPy array).
    """
    if isinstance(by, (str, bytes)) or _np.ndim(by) != 1:
        raise ValueError(f"zotdigest.digest_by: the keys must be a 1-D array, got "
                         f"{type(by).__name__} of {_np.ndim(by)} dimensions")
    pd = _pandas()
    if pd is not None:
        codes, keys = _factorize_pandas(pd, by)
        return codes, _named(pd, keys, by)
    return _factorize_numpy(by)


def _key_index(keys):
    """A function from key to position in `keys`, raising KeyError."""
    pd = _pandas()
    if pd is not None and isinstance(keys, pd.Index):

        def locate(key):
            try:
                position = keys.get_loc(key)
            except (TypeError, ValueError, pd.errors.InvalidIndexError) as error:
                # An unhashable or malformed key is simply not a key here.
                raise KeyError(key) from error
            if not isinstance(position, (int, _np.integer)):
                raise KeyError(key)
            return int(position)

        return locate
    table = {key: position for position, key in enumerate(keys)}

    def locate(key):
        try:
            return table[key]
        except TypeError as error:
            raise KeyError(key) from error

    return locate


class GroupedDigests(_abc.Mapping):
    """A read-only mapping from key to TDigest, one digest per group, keys
    in order; with queries over all groups at once.

    GroupedDigests(keys, digests): `keys` distinct and ordered (as
    factorize_keys gives them), `digests` a sequence of TDigest of one
    Delta, one per key. zotdigest.digest_by and zotdigest.load_by make them.

    keys() gives the keys as an array (a pandas Index when pandas is
    installed), as pandas' Series.keys() does; iteration goes over them in
    order. The digests are the mapping's own: querying them is fine,
    updating one changes the mapping.
    """

    __slots__ = ("_keys", "_digests", "_locate")

    def __init__(self, keys, digests):
        digests = list(digests)
        deltas = _core._digest_property(digests, "Delta")  # TypeError for other objects
        if isinstance(keys, _np.ndarray) or _pandas() is None:
            keys = _np.asarray(keys)
        else:
            pd = _pandas()
            keys = keys if isinstance(keys, pd.Index) else pd.Index(keys)
        if len(keys) != len(digests):
            raise ValueError(f"GroupedDigests: {len(keys)} keys but {len(digests)} digests")
        if len(deltas) and (deltas != deltas[0]).any():
            raise ValueError("GroupedDigests: the digests must share one Delta")
        if not (keys.is_unique if hasattr(keys, "is_unique") else
                len(_np.unique(keys)) == len(keys)):
            raise ValueError("GroupedDigests: the keys must be distinct")
        self._keys = keys
        self._digests = digests
        self._locate = _key_index(keys)

    # --- the mapping ---

    def __getitem__(self, key):
        return self._digests[self._locate(key)]

    def __len__(self):
        return len(self._digests)

    def __iter__(self):
        return iter(self._keys)

    def __contains__(self, key):
        try:
            self._locate(key)
        except KeyError:
            return False
        return True

    def keys(self):
        """The keys in order: a pandas Index (a NumPy array without pandas)."""
        return self._keys

    def values(self):
        """The digests in key order (a list)."""
        return list(self._digests)

    def items(self):
        return zip(self._keys, self._digests)

    # --- queries over all groups ---

    @property
    def count(self):
        """The number of values of each group: a uint64 array in key order."""
        return _core._digest_property(self._digests, "NumDataPoints")

    @property
    def delta(self):
        """The digests' Delta (None for a mapping of no groups)."""
        return self._digests[0].Delta if self._digests else None

    def _query(self, name, points):
        points = _np.asarray(points, dtype=_np.float64)
        if points.ndim > 1:
            raise ValueError(f"GroupedDigests.{name}: give a number or a 1-D sequence")
        return _query_all(self._digests, name, points)

    def quantile(self, q):
        """quantile(q)

        The estimated quantile of every group at each probability in `q`:
        a float64 array of shape (groups, len(q)), or (groups,) for a
        number q. Row i is self[keys()[i]].quantile(q); a group without
        values gives NaN. A q outside [0, 1] raises HostValueError
        'stats:tdigest:IcdfInvalidQuantile'.
        """
        return self._query("quantile", q)

    def cdf(self, x):
        """cdf(x)

        The estimated cumulative distribution of every group at each `x`:
        shapes as quantile. Row i is self[keys()[i]].cdf(x); a group without
        values gives a row of NaN (where its own cdf raises).
        """
        return self._query("cdf", x)

    def to_pandas(self, q=(0.5, 0.9, 0.99)):
        """to_pandas(q=(0.5, 0.9, 0.99))

        A pandas DataFrame indexed by key with one column of quantiles per
        probability in `q`.
        """
        import pandas as pd

        q = _np.atleast_1d(_np.asarray(q, dtype=_np.float64))
        return pd.DataFrame(self.quantile(q), index=pd.Index(self._keys), columns=list(q))

    def merge(self, other, stream=None):
        """merge(other, stream=None)

        A new mapping over the union of both mappings' keys (ordered as
        factorize_keys orders them): a key in both gets a new digest, a copy
        of this mapping's digest with other's merged into it (with `stream`
        when given, as TDigest.merge); a key in one gets a copy of its
        digest. Both mappings are unchanged. Raises ValueError when the two
        have digests of different Delta.
        """
        if not isinstance(other, GroupedDigests):
            raise TypeError(f"GroupedDigests.merge: expected GroupedDigests, got "
                            f"{type(other).__name__}")
        if self._digests and other._digests and self.delta != other.delta:
            raise ValueError(f"GroupedDigests.merge: the mappings have different Delta "
                             f"({self.delta!r} and {other.delta!r})")
        pd = _pandas()
        if pd is None:
            both = _np.concatenate([_np.asarray(self._keys), _np.asarray(other._keys)])
        else:
            both = pd.Index(self._keys).append(pd.Index(other._keys))
        codes, keys = factorize_keys(both)
        digests = [None] * len(keys)
        for position, source in enumerate(self._digests + other._digests):
            code = codes[position]
            if digests[code] is None:
                digests[code] = TDigest.from_bytes(source.to_bytes())
            elif stream is None:
                digests[code].merge(source)
            else:
                digests[code].merge(source, stream)
        return GroupedDigests(keys, digests)

    def __reduce__(self):
        # The digests pickle in their compact form.
        return (type(self), (self._keys, self._digests))

    def __repr__(self):
        shown = 3
        keys = list(self._keys[:shown])
        parts = [f"{k!r}: {self._digests[i].count}" for i, k in enumerate(keys)]
        if len(self) > shown:
            parts.append("...")
        delta = self._digests[0].Delta if self._digests else None
        return (f"GroupedDigests({len(self)} groups, delta={delta!r}, "
                f"counts {{{', '.join(parts)}}})")


def _query_all(digests, name, points):
    answers = _core._query_digests(digests, "icdf" if name == "quantile" else "cdf",
                                   points.reshape(-1))
    return answers[:, 0] if points.ndim == 0 else answers


# --- building ------------------------------------------------------------------

_NUMERIC = {_np.dtype(t) for t in ("int8", "int16", "int32", "int64", "uint8", "uint16", "uint32",
                                   "uint64", "float32", "float64")}


def _column(frame, name, what):
    if isinstance(name, str):
        try:
            return frame[name]
        except KeyError:
            raise KeyError(f"zotdigest.digest_by: no column {name!r} for {what}; the columns are "
                           f"{list(frame.columns)}") from None
    return name


def _values_array(values):
    pd = _pandas()
    if pd is not None and isinstance(values, (pd.Series, pd.Index)):
        dtype = values.dtype
        if isinstance(dtype, pd.api.extensions.ExtensionDtype) and dtype.kind in "iuf":
            # Nullable numbers: pandas.NA is a missing value, NaN to a digest.
            values = (values.to_numpy(dtype=_np.float64, na_value=_np.nan) if values.hasnans
                      else values.to_numpy(dtype=dtype.numpy_dtype))
        else:
            values = values.to_numpy()
    values = _np.asarray(values)
    if values.ndim != 1:
        raise ValueError(f"zotdigest.digest_by: the values must be a 1-D array, got {values.ndim} "
                         f"dimensions")
    if values.dtype not in _NUMERIC:
        raise TypeError(f"zotdigest.digest_by: the values must be numbers (one of the ten numeric "
                        f"dtypes), got dtype {values.dtype}")
    return values


def digest_by(values, by, *, on=None, weights=None, delta=100.0, seed=0, threads=None):
    """digest_by(values, by, *, weights=None, delta=100.0, seed=0, threads=None)
    digest_by(df, by="key column", on="value column", weights=None, ...)

    One reproducible digest per key: a GroupedDigests mapping each key of
    `by` (a 1-D array of keys of the values' length: numbers, bools, str,
    datetimes, categoricals; NumPy, pandas or a list) to the digest of the
    values with that key. The digest of key g is, bit for bit,
    zotdigest.digest(values[by == g], delta, seed) (the group's values in
    input order), whatever the threads and the number or order of groups.
    Keys are ordered and missing keys (NaN, None, NaT, pandas.NA) dropped
    with their values as pandas' groupby does by default. Values and keys
    pair up by position (pandas indexes are not aligned); pandas.NA among
    nullable values counts as NaN, which a digest leaves out.

    `weights`: None, or non-negative whole numbers of the values' length
    (as zotdigest.digest takes them). With a DataFrame `df`, `by`, `on` and
    `weights` may name columns.
    """
    if on is not None or _is_frame(values):
        if not _is_frame(values):
            raise TypeError("zotdigest.digest_by: on= names a column of a DataFrame; the values "
                            f"are a {type(values).__name__}")
        if on is None:
            raise ValueError("zotdigest.digest_by: name the column of values with on=")
        frame = values
        values = _column(frame, on, "on")
        by = _column(frame, by, "by")
        if weights is not None:
            weights = _column(frame, weights, "weights")
    elif isinstance(by, str) or isinstance(weights, str):
        raise TypeError("zotdigest.digest_by: by= and weights= name columns only of a DataFrame")
    values = _values_array(values)
    ReproducibleBuild(float(delta), seed, threads)  # checks delta, seed and threads first
    try:
        keys_count = len(by)
    except TypeError:
        raise ValueError(f"zotdigest.digest_by: the keys must be a 1-D array, got "
                         f"{type(by).__name__}") from None
    if keys_count != len(values):
        raise ValueError(f"zotdigest.digest_by: {keys_count} keys for {len(values)} values")
    if weights is not None:
        weights = checked_weights(weights, values.shape, "zotdigest.digest_by")
    codes, keys = factorize_keys(by)
    digests = _core._grouped_digests(_np.ascontiguousarray(values), codes, len(keys),
                                     weights=weights, delta=float(delta), seed=seed,
                                     threads=threads)
    return GroupedDigests(keys, digests)


def _is_frame(data):
    pd = _pandas()
    return pd is not None and isinstance(data, pd.DataFrame)
