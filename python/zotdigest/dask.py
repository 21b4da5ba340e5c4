"""Digests of Dask collections.

``digest(x, seed=s)`` is the reproducible build of zotdigest.digest, computed
on the cluster: its result equals ``zotdigest.digest(x.compute(), seed=s)``
bit for bit, whatever the chunking and the number of workers (N-d arrays in
Fortran order, the element order zotdigest.digest reads them in).

    import dask.array as da, zotdigest.dask as zd
    x = da.random.normal(size=10_000_000, chunks=1_000_000)
    d = zd.digest(x, delta=100, seed=7).compute()   # a zotdigest.TDigest
    d.icdf([0.5, 0.99])

How. The elements are flattened and rechunked so that every chunk holds
2**K whole blocks of zotdigest.BLOCK_SIZE values (the last chunk fewer),
2**K chosen near the collection's own chunk size. Chunk i then starts at
block i * 2**K: its worker builds node i of tree level K with the engine's
build started at that block, and those nodes are merged pairwise in the
fixed tree of the definition (node j of level L + 1 from nodes 2j and
2j + 1 of level L, an odd node out carried up unchanged). Every merge is
the one the in-memory build makes, so the digests are the same. Digests
travel between workers pickled, in their compact form (about 16 kB at
delta 100).

With a RandomStream instead of a seed, the older per-chunk build runs: one
digest per chunk, seeded from the stream, merged ``split_every`` at a time;
reproducible for a given stream state and chunking, but not equal to
zotdigest.digest.

Nothing in the graph holds a pointer: tasks carry NumPy blocks, numbers and
pickled digests only.
"""

import numbers as _numbers

import numpy as _np

import dask as _dask
import dask.array as _da

from . import BLOCK_SIZE as _BLOCK_SIZE
from . import RandomStream, ReproducibleBuild as _ReproducibleBuild, TDigest
from . import column_digests as _column_build
from ._core import merge_tree_nodes as _merge_tree_nodes
from . import merge_columns as _merge_columns
from . import merge as _merge_digests

__all__ = ["digest", "column_digests", "quantile", "cdf"]

_SEED_SPACE = 2**32


# --- tasks ---------------------------------------------------------------------
# Module-level functions, so that workers unpickle them by name.


def _stream_for(seed):
    return None if seed is None else RandomStream("mrg32k3a", seed)


def _chunk_digest(block, delta, seed):
    block = _np.asarray(block)
    stream = _stream_for(seed)
    if stream is None:
        return TDigest(block, delta)
    # With a stream the module adds serially, drawing only from that stream.
    return TDigest(block, delta, stream)


def _combine_digests(digests, seed):
    return _merge_digests(list(digests), _stream_for(seed))


def _subtree_digest(block, delta, seed, first_block):
    build = _ReproducibleBuild(delta, seed, None, first_block)
    build.append(_np.asarray(block))
    return build.finish()


def _merge_nodes(left, right, level, index, seed):
    return _merge_tree_nodes(left, right, level, index, seed)


def _chunk_columns(block, delta, seed):
    return _column_build(_np.asarray(block), delta, _stream_for(seed))


def _combine_columns(parts, seed):
    stacked = _np.concatenate(list(parts), axis=0)
    return _merge_columns(stacked, _stream_for(seed))


# --- graph building --------------------------------------------------------------


class _Seeds:
    """Seeds for the tasks of one graph: None without a user stream, else a
    base drawn once from the stream plus the task's ordinal."""

    def __init__(self, stream):
        if stream is None:
            self._base = None
        elif isinstance(stream, RandomStream):
            self._base = int(stream.rand(1)[0] * _SEED_SPACE) % _SEED_SPACE
        else:
            raise TypeError("stream must be a zotdigest.RandomStream or None, not %s"
                            % type(stream).__name__)
        self._next = 0

    def take(self):
        if self._base is None:
            return None
        seed = (self._base + self._next) % _SEED_SPACE
        self._next += 1
        return seed


def _split_every(split_every):
    if split_every is None:
        split_every = _dask.config.get("split_every", 4)
    if split_every is False:
        return None  # everything in one merge
    if isinstance(split_every, bool) or not isinstance(split_every, _numbers.Integral) \
            or split_every < 2:
        raise ValueError("split_every must be an integer of at least 2, or False")
    return int(split_every)


def _tree_reduce(parts, combine, seeds, split_every, name):
    """Combines delayed parts, `split_every` at a time, until one is left."""
    fan = _split_every(split_every)
    level = 0
    while len(parts) > 1:
        width = len(parts) if fan is None else fan
        parts = [
            _dask.delayed(combine, pure=True)(
                parts[i:i + width], seeds.take(),
                dask_key_name="%s-merge-%d-%d" % (name, level, i // width))
            for i in range(0, len(parts), width)
        ]
        level += 1
    return parts[0]


def _check_delta(delta):
    """Refuses a bad delta here, with the module's own identifier, instead of
    in every task."""
    if isinstance(delta, bool) or not isinstance(delta, _numbers.Real):
        raise TypeError("delta must be a real number, not %s" % type(delta).__name__)
    TDigest(None, float(delta))
    return float(delta)


def _chunks_of(data):
    """The delayed blocks of a Dask array or Series, in order."""
    try:
        import dask.dataframe as _dd
    except ImportError:  # pragma: no cover - dataframes are optional
        _dd = None
    if isinstance(data, _da.Array):
        return list(data.to_delayed().ravel())
    if _dd is not None and isinstance(data, _dd.Series):
        return [_dask.delayed(_np.asarray, pure=True)(p) for p in data.to_delayed()]
    raise TypeError("data must be a dask.array.Array or a dask.dataframe.Series, not %s"
                    % type(data).__name__)


def _flat_elements(data):
    """The elements of a Dask array (Fortran order) or Series as a 1-D Dask
    array of known chunk sizes."""
    try:
        import dask.dataframe as _dd
    except ImportError:  # pragma: no cover - dataframes are optional
        _dd = None
    if isinstance(data, _da.Array):
        flat = data.transpose().ravel() if data.ndim > 1 else data.reshape(-1)
    elif _dd is not None and isinstance(data, _dd.Series):
        flat = data.to_dask_array(lengths=True)
    else:
        raise TypeError("data must be a dask.array.Array or a dask.dataframe.Series, not %s"
                        % type(data).__name__)
    if any(_np.isnan(c) for c in flat.chunks[0]):
        flat = flat.compute_chunk_sizes()
    return flat


def _blocks_per_chunk(flat):
    """2**K blocks, near the collection's largest chunk."""
    largest = max(flat.chunks[0]) if flat.chunks[0] else 0
    blocks = max(1, int(round(largest / _BLOCK_SIZE)))
    return 1 << (blocks.bit_length() - 1)


def _reproducible_digest(data, delta, seed):
    if isinstance(seed, bool) or not isinstance(seed, _numbers.Integral) or not 0 <= seed < _SEED_SPACE:
        raise ValueError("seed must be a whole number in [0, 2**32)")
    seed = int(seed)
    flat = _flat_elements(data)
    name = "zotdigest-" + _dask.base.tokenize(flat, delta, seed, _BLOCK_SIZE)
    if flat.shape[0] == 0:
        return _dask.delayed(_subtree_digest, pure=True)(
            _np.empty(0), delta, seed, 0, dask_key_name=name + "-empty")
    per_chunk = _blocks_per_chunk(flat)
    level = per_chunk.bit_length() - 1
    chunks = flat.rechunk(per_chunk * _BLOCK_SIZE).to_delayed().ravel()
    nodes = [
        _dask.delayed(_subtree_digest, pure=True)(
            block, delta, seed, i * per_chunk, dask_key_name="%s-chunk-%d" % (name, i))
        for i, block in enumerate(chunks)
    ]
    while len(nodes) > 1:
        level += 1
        nodes = [
            _dask.delayed(_merge_nodes, pure=True)(
                nodes[j], nodes[j + 1], level, j // 2, seed,
                dask_key_name="%s-merge-%d-%d" % (name, level, j // 2))
            if j + 1 < len(nodes) else nodes[j]
            for j in range(0, len(nodes), 2)
        ]
    return nodes[0]


# --- public API ------------------------------------------------------------------


def digest(data, delta=100.0, stream=None, split_every=None, seed=None):
    """A lazy TDigest of every element of a Dask array (any shape, any of the
    ten numeric dtypes) or Dask Series.

    Without a stream: the reproducible build with `seed` (0 when None), equal
    bit for bit to zotdigest.digest(data.compute(), delta, seed) whatever the
    chunks and workers (see the module's note); `split_every` is checked but
    the tree is fixed.

    With a RandomStream: one digest per chunk, then a tree of array merges
    taking `split_every` digests at a time (Dask's default when None; False
    merges all at once).

    An empty collection gives an empty digest with this delta. Raises
    zotdigest.HostError for a bad delta at once, and for bad data (complex,
    non-numeric) when computed.
    """
    delta = _check_delta(delta)
    _split_every(split_every)
    if stream is None:
        return _reproducible_digest(data, delta, 0 if seed is None else seed)
    if seed is not None:
        raise ValueError("give a seed or a stream, not both")
    seeds = _Seeds(stream)
    name = "zotdigest-" + _dask.base.tokenize(data, delta, seeds._base, split_every)
    parts = [
        _dask.delayed(_chunk_digest, pure=True)(
            block, delta, seeds.take(), dask_key_name="%s-chunk-%d" % (name, i))
        for i, block in enumerate(_chunks_of(data))
    ]
    if not parts:
        return _dask.delayed(_chunk_digest, pure=True)(
            _np.empty(0), delta, seeds.take(), dask_key_name=name + "-empty")
    return _tree_reduce(parts, _combine_digests, seeds, split_every, name)


def column_digests(data, delta=100.0, stream=None):
    """A lazy object array of TDigests, one per column of a 2-D Dask array
    chunked along rows: the module's column build per block of rows, then
    the module's column merge across blocks. The shape is the in-memory
    column build's: 1 x N, or 0 x N when there are no rows.
    """
    if not isinstance(data, _da.Array) or data.ndim != 2:
        raise TypeError("data must be a 2-D dask.array.Array")
    delta = _check_delta(delta)
    seeds = _Seeds(stream)
    if data.numblocks[1] != 1:
        # Every block must hold whole rows.
        data = data.rechunk({1: -1})
    name = "zotdigest-columns-" + _dask.base.tokenize(data, delta, seeds._base)
    blocks = list(data.to_delayed()[:, 0])
    if data.shape[0] == 0:
        blocks = blocks[:1]
    parts = [
        _dask.delayed(_chunk_columns, pure=True)(
            block, delta, seeds.take(), dask_key_name="%s-block-%d" % (name, i))
        for i, block in enumerate(blocks)
    ]
    return _tree_reduce(parts, _combine_columns, seeds, None, name)


def quantile(data, q, delta=100.0):
    """Estimated quantiles of a Dask collection as a NumPy array (computes)."""
    result = digest(data, delta).compute()
    return _np.asarray(result.icdf(_as_query(q)))


def cdf(data, x, delta=100.0):
    """Estimated cumulative distribution at x as a NumPy array (computes)."""
    result = digest(data, delta).compute()
    return _np.asarray(result.cdf(_as_query(x)))


def _as_query(values):
    if isinstance(values, _numbers.Real) and not isinstance(values, bool):
        return float(values)
    return _np.asarray(values, dtype=float)
