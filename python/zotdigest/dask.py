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

Per group. ``digest_by(ddf, by="endpoint", on="latency", seed=s)`` gives
the GroupedDigests of zotdigest.digest_by on the computed data, bit for bit:
the digest of key g is the reproducible digest of g's values in input order,
so it is a fixed tree over g's own blocks, whatever partition each value
sits in. Two passes over the data:

1. Per partition, the distinct keys and their counts. The client orders
   all keys (as factorize_keys orders the whole column) and derives, for
   each key, its total n and its offset o in every partition: the
   partition holds positions [o, o + c) of the key's sequence.
2. Per partition, the values of each key, in order. The blocks of the key
   lying wholly inside [o, o + c) are built there, as the largest aligned
   subtrees (2**L blocks from a block index divisible by 2**L, built with
   first_block); a block cut by the partition's edges travels as its raw
   values, at most one such fragment at each end.
3. Per batch of consecutive keys (about one batch per partition, cut so
   that the batches hold similar numbers of travelling values): each cut
   block's fragments are joined in partition order into its leaf, and the
   leaves and subtrees are merged in the fixed tree of the key.
   Keys of one block (most keys, when there are many) go as arrays, not
   one by one: their leaves are built in one grouped call per partition
   (keys lying wholly there) and per batch (the rest).

The input is read twice (persist it first if reading it is costly), and
batches, not keys, make the tasks of the last step.

With weights, every partition checks its weights and drops the pairs of
weight 0 before anything else, in both passes: the counts, offsets and
blocks above are over the kept pairs, as the weighted build cuts blocks.
Pass 1 also gives each partition's exact weight sum, and the client
refuses a total over 2**64 - 1 before pass 2. Cut pieces travel with
their weights, and leaves and subtrees are weighted builds; the merges
are those of the unweighted tree.
"""

import numbers as _numbers

import numpy as _np

import dask as _dask
import dask.array as _da

from . import BLOCK_SIZE as _BLOCK_SIZE
from ._groups import GroupedDigests as _GroupedDigests
from ._groups import _NUMERIC, _values_array as _group_values_array
from ._groups import factorize_keys as _factorize_keys
from ._weights import checked_weights as _checked_weights, weight_sum as _weight_sum
from . import RandomStream, ReproducibleBuild as _ReproducibleBuild, TDigest
from . import column_digests as _column_build
from . import _core
from ._core import merge_tree_nodes as _merge_tree_nodes
from . import merge_columns as _merge_columns
from . import merge as _merge_digests

__all__ = ["digest", "digest_by", "column_digests", "quantile", "cdf"]

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


# --- per group -------------------------------------------------------------------


def _partition_values(values):
    """A partition's values as a 1-D NumPy array, as zotdigest.digest_by reads
    them. A nullable integer column becomes float64 (NA as NaN) in every
    partition, not only in those holding an NA, so that the blocks a key's
    values share across partitions are of one class."""
    dtype = getattr(values, "dtype", None)
    if hasattr(values, "to_numpy") and not isinstance(dtype, _np.dtype) and dtype is not None \
            and getattr(dtype, "kind", "O") not in "fc":
        values = values.to_numpy(dtype=_np.float64, na_value=_np.nan)
    return _group_values_array(values)


def _partition_keys(by, values):
    codes, keys = _factorize_keys(by)
    if values is not None and len(values) != len(codes):
        raise ValueError(f"zotdigest.dask.digest_by: a partition holds {len(codes)} keys for "
                         f"{len(values)} values")
    return codes, keys


def _key_counts(by, values, weights, who):
    """Pass 1: the partition's distinct keys (ordered), their counts of kept
    pairs (weight 0 drops a pair, not its key) and the weights' sum."""
    codes, keys = _partition_keys(by, values)
    total = 0
    if weights is not None:
        weights = _checked_weights(weights, codes.shape, who)
        codes = codes[weights != 0]
        total = _weight_sum(weights)
    return keys, _np.bincount(codes[codes >= 0], minlength=len(keys)).astype(_np.int64), total


def _subtree(values, weights, delta, seed, first_block):
    build = _ReproducibleBuild(delta, seed, None, first_block, weights is not None)
    if weights is None:
        build.append(values)
    else:
        build.append_weighted(values, weights)
    return build.finish()


def _part(weights, lo, hi):
    """weights[lo:hi], or None for an unweighted build."""
    return None if weights is None else weights[lo:hi]


def _joined_parts(parts):
    """Values and weights (or None) of (values, weights) parts, joined."""
    values = _np.concatenate([v for v, _ in parts])
    if parts[0][1] is None:
        return values, None
    return values, _np.concatenate([w for _, w in parts])


def _key_pieces(values, weights, offset, total, delta, seed):
    """The pieces of positions [offset, offset + len(values)) of a key's
    sequence of `total` values (pairs, with weights): ("node", level, index,
    digest) for the aligned subtrees of the blocks wholly inside, ("cut",
    block, values, weights) for the parts of blocks cut by the range's
    ends."""
    B = _BLOCK_SIZE
    end = offset + len(values)
    pieces = []
    k, pos = offset // B, offset
    if offset % B:
        stop = min(end, (k + 1) * B, total)
        pieces.append(("cut", k, values[:stop - offset].copy(),
                       _part(weights, 0, stop - offset)))
        k, pos = k + 1, stop
    whole = k
    if pos < end:
        whole = max(k, -(-total // B) if end == total else end // B)
    while k < whole:
        level = 0
        while k % (2 << level) == 0 and k + (2 << level) <= whole:
            level += 1
        stop = min((k + (1 << level)) * B, total)
        lo, hi = k * B - offset, stop - offset
        pieces.append(("node", level, k >> level,
                       _subtree(values[lo:hi], _part(weights, lo, hi), delta, seed, k)))
        k += 1 << level
    if k * B < end:
        lo = k * B - offset
        pieces.append(("cut", k, values[lo:].copy(), _part(weights, lo, len(values))))
    return pieces


def _one_block_digests(values, weights, codes, groups, delta, seed):
    """For keys 0 .. groups - 1 of at most one block, whose values (pairs)
    are those where codes == g, in order: each key's digest, which is the
    leaf of its block 0, all made in one grouped build."""
    return _core._grouped_digests(values, codes, groups, weights=weights, delta=delta, seed=seed)


def _partition_pieces(values, by, weights, plan, delta, seed, who):
    """Pass 2: per batch of keys, the partition's part of them:
    "whole": (codes, digests) of the keys of one block lying wholly here;
    "cut": (codes, values, weights or None), each value with its key's
    code, of block 0 of every other key (in order within a key); "big":
    [(code, pieces)] for the keys of more blocks, their block 0 left out
    when cut. `plan` holds per local key its global code, offset, total and
    batch, all counted over the kept pairs: weight-0 pairs go first."""
    values = _partition_values(values)
    codes, _ = _partition_keys(by, values)
    if weights is not None:
        weights = _checked_weights(weights, values.shape, who)
        kept = weights != 0
        if not kept.all():
            values, codes, weights = values[kept], codes[kept], weights[kept]
    global_codes, offsets, totals, batches = plan
    # NumPy's stable sort of 16-bit integers is a radix sort.
    order = _np.argsort(codes.astype(_np.int16) if len(global_codes) < 2**15 else codes,
                        kind="stable")
    sorted_codes = codes[order]
    grouped = values[order]
    grouped_weights = None if weights is None else weights[order]
    bounds = _np.searchsorted(sorted_codes, _np.arange(len(global_codes) + 1))
    counts = _np.diff(bounds)
    one_block = (totals <= _BLOCK_SIZE) & (counts > 0)
    whole = one_block & (offsets == 0) & (counts == totals)
    out = {}

    def part(batch):
        return out.setdefault(int(batch), {"whole": ([], []), "cut": ([], [], []), "big": []})

    # Keys of one block lying wholly here: their digests, built at once.
    here = _np.flatnonzero(whole)
    if len(here):
        inside = whole[_np.maximum(sorted_codes, 0)] & (sorted_codes >= 0)
        local = _np.cumsum(whole) - 1
        digests = _one_block_digests(grouped[inside],
                                     None if weights is None else grouped_weights[inside],
                                     local[sorted_codes[inside]], len(here), delta, seed)
        for i, digest in zip(here.tolist(), digests):
            target = part(batches[i])["whole"]
            target[0].append(int(global_codes[i]))
            target[1].append(digest)
    # Other keys of one block: their values travel.
    cut = one_block & ~whole
    if cut.any():
        taken = cut[_np.maximum(sorted_codes, 0)] & (sorted_codes >= 0)
        key_of = sorted_codes[taken]
        cut_values, cut_codes, cut_batches = grouped[taken], global_codes[key_of], batches[key_of]
        cut_weights = None if weights is None else grouped_weights[taken]
        edges = _np.flatnonzero(_np.diff(cut_batches)) + 1
        for lo, hi in zip(_np.r_[0, edges], _np.r_[edges, len(cut_batches)]):
            target = part(cut_batches[lo])["cut"]
            target[0].append(cut_codes[lo:hi])
            target[1].append(cut_values[lo:hi])
            target[2].append(_part(cut_weights, lo, hi))
    for i in _np.flatnonzero((counts > 0) & ~one_block).tolist():
        target = part(batches[i])
        code = int(global_codes[i])
        pieces = []
        for piece in _key_pieces(grouped[bounds[i]:bounds[i + 1]],
                                 _part(grouped_weights, bounds[i], bounds[i + 1]), int(offsets[i]),
                                 int(totals[i]), delta, seed):
            if piece[0] == "cut" and piece[1] == 0:
                target["cut"][0].append(_np.full(len(piece[2]), code, dtype=_np.int64))
                target["cut"][1].append(piece[2])
                target["cut"][2].append(piece[3])
            else:
                pieces.append(piece)
        target["big"].append((code, pieces))
    for payload in out.values():
        codes_list, values_list, weights_list = payload["cut"]
        payload["cut"] = (_np.concatenate(codes_list),
                          *_joined_parts(list(zip(values_list, weights_list)))) \
            if codes_list else None
    return out


def _key_digest(pieces, total, delta, seed, first_leaf):
    """The digest of a key of more than one block from its pieces, in
    partition order, and the leaf of its block 0 when that was cut."""
    nodes, cuts = {}, {}
    for piece in pieces:
        if piece[0] == "node":
            nodes[(piece[1], piece[2])] = piece[3]
        else:
            cuts.setdefault(piece[1], []).append((piece[2], piece[3]))
    if first_leaf is not None:
        nodes[(0, 0)] = first_leaf
    for block, parts in cuts.items():
        nodes[(0, block)] = _subtree(*_joined_parts(parts), delta, seed, block)
    blocks = -(-total // _BLOCK_SIZE)

    def node(level, index):
        made = nodes.get((level, index))
        if made is not None:
            return made
        left = node(level - 1, 2 * index)
        if (2 * index + 1) << (level - 1) >= blocks:
            return left  # an odd node out, carried up unchanged
        return _merge_tree_nodes(left, node(level - 1, 2 * index + 1), level, index, seed)

    return node((blocks - 1).bit_length(), 0)


def _batch_digests(payloads, first, totals, delta, seed):
    """The digests of keys first .. first + len(totals) - 1."""
    digests = [None] * len(totals)
    big = {}
    cut_codes, cut_parts = [], []
    for payload in payloads:  # in partition order
        for code, digest in zip(*payload["whole"]):
            digests[code - first] = digest
        if payload["cut"] is not None:
            cut_codes.append(payload["cut"][0])
            cut_parts.append(payload["cut"][1:])
        for code, pieces in payload["big"]:
            big.setdefault(code - first, []).extend(pieces)
    # Block 0 of every key whose block 0 was cut, in one go: the partitions'
    # values in partition order keep each key's values in order.
    first_leaves = {}
    if cut_codes:
        keys, local = _np.unique(_np.concatenate(cut_codes) - first, return_inverse=True)
        leaves = _one_block_digests(*_joined_parts(cut_parts), local.astype(_np.int64), len(keys),
                                    delta, seed)
        first_leaves = dict(zip(keys.tolist(), leaves))
    for i, n in enumerate(totals):
        if i in big:
            digests[i] = _key_digest(big[i], int(n), delta, seed, first_leaves.get(i))
        elif digests[i] is None:
            digests[i] = first_leaves.get(i)
        if digests[i] is None:  # a key without values (an unused category)
            digests[i] = _ReproducibleBuild(delta, seed).finish()
    return digests


def _dataframe_module():
    try:
        import dask.dataframe as dd
    except ImportError:  # pragma: no cover - dataframes are optional
        return None
    return dd


def _paired_partitions(values, by, weights):
    """[(values, keys, weights or None) partitions], and whether a task must
    check that they have one length."""
    dd = _dataframe_module()
    series = () if dd is None else (dd.Series,)
    named = [("values", values), ("keys", by)] + ([] if weights is None else [("weights", weights)])
    for what, x in named:
        if not isinstance(x, (_da.Array,) + series):
            raise TypeError(f"zotdigest.dask.digest_by: the {what} must be a dask.array.Array or "
                            f"a dask.dataframe.Series, not {type(x).__name__}")
        if isinstance(x, _da.Array) and x.ndim != 1:
            raise ValueError(f"zotdigest.dask.digest_by: the {what} must be 1-D, got {x.ndim} "
                             f"dimensions")
    columns = [x for _, x in named]
    if all(isinstance(x, series) and x.npartitions == values.npartitions for x in columns):
        parts, check = list(zip(*[x.to_delayed() for x in columns])), True
    else:
        arrays = []
        for x in columns:
            x = x.to_dask_array(lengths=True) if isinstance(x, series) else x
            if any(_np.isnan(c) for c in x.chunks[0]):
                x = x.compute_chunk_sizes()
            arrays.append(x)
        for (what, _), x in zip(named[1:], arrays[1:]):
            if x.shape[0] != arrays[0].shape[0]:
                raise ValueError(f"zotdigest.dask.digest_by: {x.shape[0]} {what} for "
                                 f"{arrays[0].shape[0]} values")
        arrays = [arrays[0]] + [x if x.chunks == arrays[0].chunks else x.rechunk(arrays[0].chunks)
                                for x in arrays[1:]]
        parts, check = list(zip(*[x.to_delayed().ravel() for x in arrays])), False
    if weights is None:
        parts = [(v, b, None) for v, b in parts]
    return parts, check


def _joined(indexes):
    """The keys of all partitions as one array (empty ones left out, so that
    they cannot change the dtype)."""
    full = [k for k in indexes if len(k)] or indexes[:1]
    if hasattr(full[0], "append"):
        return full[0].append(list(full[1:])) if len(full) > 1 else full[0]
    return _np.concatenate(full)


def _batches(work, count):
    """Cuts keys 0 .. len(work) - 1 into at most `count` runs of similar
    work; returns the first key of each run, then len(work)."""
    total = float(work.sum())
    bounds = [0]
    if total > 0:
        cuts = _np.searchsorted(_np.cumsum(work), total * _np.arange(1, count) / count, "right")
        bounds += sorted(set(int(c) for c in cuts if 0 < c < len(work)))
    return bounds + [len(work)]


def _plan(stats, batch_count):
    """Global keys, totals, and per partition (global codes, offsets,
    totals, batches) of its own keys, from the partitions' key counts."""
    codes, keys = _factorize_keys(_joined([k for k, _ in stats]))
    groups = len(keys)
    totals = _np.zeros(groups, dtype=_np.int64)
    travelling = _np.zeros(groups, dtype=_np.int64)
    local, at = [], 0
    for k, counts in stats:
        here = _np.asarray(codes[at:at + len(k)], dtype=_np.int64)
        at += len(k)
        local.append((here, totals[here].copy(), counts))
        totals[here] += counts
        travelling[here] += _np.minimum(counts, 2 * _BLOCK_SIZE)
    # A key's last step costs its travelling values and a few merges.
    work = _np.minimum(travelling, totals) + 1_000
    bounds = _batches(work, min(groups, batch_count))
    batch_of = _np.repeat(_np.arange(len(bounds) - 1), _np.diff(bounds))
    plans = [(here, offsets, totals[here], batch_of[here], counts)
             for here, offsets, counts in local]
    return keys, totals, bounds, plans


def digest_by(data, by, on=None, *, weights=None, delta=100.0, seed=0):
    """digest_by(ddf, by="key column", on="value column", *, weights=None, delta=100.0, seed=0)
    digest_by(values, by, *, weights=None, ...)

    One reproducible digest per key of a Dask DataFrame's column `by`, over
    its column `on`; or of Dask arrays or Series `values` and `by` of one
    length. Computes, and returns the zotdigest.GroupedDigests that
    zotdigest.digest_by gives for the computed data, bit for bit, whatever
    the partitions and the workers: keys ordered and missing keys (NaN,
    None, NaT) dropped as pandas' groupby does, the digest of key g that of
    g's values in input order. Pairs of Series with different partitions,
    and arrays of different chunks, are aligned first (which computes
    their lengths).

    `weights`: None, or whole numbers in [0, 2**64) of the values' length
    (a column name with a DataFrame, else a Dask array or Series), their
    sum under 2**64: the weighted build of zotdigest.digest_by. Every
    partition checks its weights (ValueError or TypeError naming the
    partition, the position and the problem) before the sum is checked
    and any digest is built.
    """
    dd = _dataframe_module()
    if dd is not None and isinstance(data, dd.DataFrame):
        if on is None:
            raise ValueError("zotdigest.dask.digest_by: name the column of values with on=")
        for what, name in (("on", on), ("by", by), ("weights", weights)):
            if isinstance(name, str) and name not in data.columns:
                raise KeyError(f"zotdigest.dask.digest_by: no column {name!r} for {what}; the "
                               f"columns are {list(data.columns)}")
        by = data[by] if isinstance(by, str) else by
        weights = data[weights] if isinstance(weights, str) else weights
        data = data[on]
    elif on is not None:
        raise TypeError(f"zotdigest.dask.digest_by: on= names a column of a Dask DataFrame; the "
                        f"values are a {type(data).__name__}")
    elif isinstance(by, str) or isinstance(weights, str):
        raise TypeError("zotdigest.dask.digest_by: by= and weights= name columns only of a Dask "
                        "DataFrame")
    delta = _check_delta(delta)
    if isinstance(seed, bool) or not isinstance(seed, _numbers.Integral) or not 0 <= seed < _SEED_SPACE:
        raise ValueError("seed must be a whole number in [0, 2**32)")
    seed = int(seed)
    dtype = getattr(data, "dtype", None)
    if isinstance(dtype, _np.dtype) and dtype not in _NUMERIC:
        raise TypeError(f"zotdigest.dask.digest_by: the values must be numbers (one of the ten "
                        f"numeric dtypes), got dtype {dtype}")
    who = "zotdigest.dask.digest_by"
    weight_dtype = getattr(weights, "dtype", None)
    if isinstance(weight_dtype, _np.dtype):
        _checked_weights(_np.empty(0, dtype=weight_dtype), (0,), who)  # a dtype of no numbers
    parts, check = _paired_partitions(data, by, weights)
    name = "zotdigest-by-" + _dask.base.tokenize(data, by, weights, delta, seed, _BLOCK_SIZE)

    stats = _dask.compute(*[
        _dask.delayed(_key_counts, pure=True)(b, v if check else None, w,
                                              "%s (partition %d)" % (who, i),
                                              dask_key_name="%s-keys-%d" % (name, i))
        for i, (v, b, w) in enumerate(parts)
    ])
    if sum(total for _, _, total in stats) >= 2**64:
        raise ValueError(f"{who}: the weights sum to more than 2**64 - 1")
    keys, totals, bounds, plans = _plan([(k, c) for k, c, _ in stats], max(2, len(parts)))
    senders = [[] for _ in range(len(bounds) - 1)]
    for i, ((v, b, w), plan) in enumerate(zip(parts, plans)):
        here, offsets, key_totals, batch_of, counts = plan
        present = counts > 0
        if not present.any():
            continue
        out = _dask.delayed(_partition_pieces, pure=True)(
            v, b, w, (here, offsets, key_totals, batch_of), delta, seed,
            "%s (partition %d)" % (who, i), dask_key_name="%s-pieces-%d" % (name, i))
        for batch in _np.unique(batch_of[present]):
            senders[batch].append(out[int(batch)])
    batches = [
        _dask.delayed(_batch_digests, pure=True)(
            senders[j], bounds[j], totals[bounds[j]:bounds[j + 1]], delta, seed,
            dask_key_name="%s-batch-%d" % (name, j))
        for j in range(len(bounds) - 1)
    ]
    digests = [d for batch in _dask.compute(*batches) for d in batch]
    return _GroupedDigests(keys, digests)
