"""t-digest summaries of large collections of numbers, for NumPy users.

A TDigest summarises data by a small ordered set of weighted centroids and
estimates from them quantiles, the cumulative distribution and trimmed
means::

    import numpy as np, zotdigest
    d = zotdigest.TDigest(np.random.default_rng(1).normal(size=100_000))
    d.quantile([0.01, 0.5, 0.99])  # 1-D in, 1-D out
    d.percentile(99.9)             # a number in, a float out
    d.cdf(0.0)
    d.update(more)                 # adds more data
    zotdigest.save("x.zd", d)      # the command-line tool's digest files
    zotdigest.load("x.zd")

The Python names (quantile, percentile, cdf, trimmed_mean, update, count,
delta) are thin calls of the module's own members (icdf, cdf, trimmedMean,
add, NumDataPoints, Delta), which stay available with the same answers.

Data keep their NumPy dtype on the way in (the ten numeric dtypes); Python
ints and floats are double scalars, lists go through numpy.asarray, None and
empty sequences are empty inputs. A number in gives a number out, a 1-D
array a 1-D array of the same length.

Errors raise zotdigest.HostError, whose `identifier` names the condition
(e.g. 'stats:tdigest:IcdfInvalidQuantile'); errors about the kind of an
argument are HostTypeError (also a TypeError), errors about its value
HostValueError (also a ValueError). Warnings go through Python's warnings
module as zotdigest.HostWarning (a UserWarning), with `identifier` on the
warning. Pass a RandomStream to make the random choices of building and
merging reproducible.

Digests pickle and copy in their compact form (to_bytes, about 16 kB for a
Delta-100 digest); __getstate__ gives the runtime's saved properties. Long
calls release the GIL, and Ctrl-C stops them; threads may use separate
digests at once (calls on one digest wait for each other).

The members of TDigest come from the module's own registration: see
zotdigest.class_definition("TDigest").
"""

import os as _os



def _use_module_beside_package():
    """Installed, libzotdigest sits beside this file: put it on the runtime's
    module path (after any directory the user named)."""
    here = _os.path.dirname(_os.path.abspath(__file__))
    if _os.path.exists(_os.path.join(here, "libzotdigest.so")):
        current = _os.environ.get("QUORIX_MODULE_PATH")
        _os.environ["QUORIX_MODULE_PATH"] = here if not current else current + _os.pathsep + here


_use_module_beside_package()

from . import _core  # noqa: E402
from ._core import (  # noqa: E402
    HostError,
    HostTypeError,
    HostValueError,
    HostWarning,
    RandomStream,
    TDigest,
    class_definition,
    column_digests,
    merge_columns,
    module_info,
)
from ._core import BLOCK_SIZE, ReproducibleBuild  # noqa: E402
from . import _files, _names, _plot  # noqa: E402
from ._files import load, load_by, save  # noqa: E402
from ._groups import GroupedDigests, digest_by, factorize_keys  # noqa: E402
from ._names import merge  # noqa: E402

_names.install()
_files.install()
_plot.install()

__all__ = [
    "GroupedDigests",
    "HostError",
    "HostTypeError",
    "HostValueError",
    "HostWarning",
    "RandomStream",
    "TDigest",
    "class_definition",
    "column_digests",
    "digest",
    "digest_by",
    "load",
    "load_by",
    "merge",
    "merge_columns",
    "module_info",
    "save",
]

__version__ = module_info()["version"]


# --- the reproducible build ------------------------------------------------------


def _is_chunk_sequence(data):
    """True for an iterable of arrays; False for one input as TDigest takes it.

    A NumPy array, a number, None, a str or anything with __array__ is one
    input; a list or tuple is one input unless one of its items is an array
    of one dimension or more (then each item is a chunk); any other iterable
    (a generator, an iterator, a file of chunks) is a sequence of chunks."""
    import numpy as np

    if data is None or isinstance(data, (np.ndarray, np.generic, str, bytes, int, float, complex)):
        return False
    if hasattr(data, "__array__"):
        return False
    if isinstance(data, (list, tuple)):
        return any(isinstance(item, np.ndarray) and item.ndim > 0 for item in data)
    try:
        iter(data)
    except TypeError:
        return False
    return True


def digest(data, delta=100.0, seed=0, threads=None, weights=None):
    """digest(data, delta=100.0, seed=0, threads=None, weights=None)

The reproducible digest of `data`: the same TDigest, bit for bit, for the
same values, `delta` and `seed` (a whole number in [0, 2**32)), on any
number of threads (`threads`: None for every core), in any chunks, on any
machine, and equal to zotdigest.dask.digest and `zotdigest build --seed`.

`data` is anything TDigest accepts (N-d arrays in Fortran order, the
module's element order), or an iterable of such arrays whose elements are
taken one after the other, as if concatenated.

The values are cut into blocks of BLOCK_SIZE; block k is digested serially
on substream 2k + 1 of an "mrg32k3a" stream of `seed`, and the block
digests are merged pairwise in a fixed binary tree over block indices (node
j of level L merged on substream j*2**(L+1) + 2**L, an odd node out carried
up unchanged). TDigest(data) stays the module's own constructor.

`weights`: one whole number in [0, 2**64) per value (an array of the
values' shape, or 1-D), their sum under 2**64; a value of weight w counts w
times, weight 0 drops it. A weighted digest is another build: each block's
pairs enter as centroids merged into an empty digest, heaviest first.
Weights need `data` in one array, not an iterable of chunks."""
    if weights is not None:
        return _weighted_digest(data, delta, seed, threads, weights)
    build = ReproducibleBuild(float(delta), seed, threads)
    if _is_chunk_sequence(data):
        for chunk in data:
            build.append(chunk)
    else:
        build.append(data)
    return build.finish()


def _weighted_digest(data, delta, seed, threads, weights):
    import numpy as np

    from ._weights import checked_weights

    if _is_chunk_sequence(data):
        raise TypeError("zotdigest.digest: weights need the values in one array, "
                        "not an iterable of chunks")
    values = np.asarray([] if data is None else data)
    if values.dtype.kind not in "iuf":
        raise TypeError(f"zotdigest.digest: weighted values must be real numbers, "
                        f"not of dtype {values.dtype}")
    checked = checked_weights(weights, values.shape, "zotdigest.digest")
    build = ReproducibleBuild(float(delta), seed, threads, weighted=True)
    build.append_weighted(values, checked)
    return build.finish()


# --- docstrings ----------------------------------------------------------------
# What a Python user needs to know about the methods the module registers
# today; the registered overloads stay listed below each text. A method the
# module adds later keeps its generated docstring.

_METHOD_DOCS = {
    "add": """add(data, stream=None)

Adds every element of `data` (any of the ten numeric dtypes, any shape).
Without a stream the work is split over worker threads, seeded from the
default stream; with a RandomStream it runs serially on that stream and is
reproducible. Complex, boolean and text data raise HostTypeError
'QUORIX:class:RequireReal'.""",
    "cdf": """cdf(x)

The estimated cumulative distribution at each element of `x`, in [0, 1].
NaN elements give NaN. An empty digest raises HostValueError
'stats:tdigest:CdfNoData'.""",
    "icdf": """icdf(q)

The estimated quantile at each probability in `q` (0 <= q <= 1, else
HostValueError 'stats:tdigest:IcdfInvalidQuantile'). An empty digest gives
NaN.""",
    "trimmedMean": """trimmedMean(p)

The mean after cutting a fraction `p` (0 <= p < 0.5) of the weight from each
end, for each element of `p`.""",
    "merge": """merge(other, stream=None)

Folds the digest `other` (of the same Delta, else HostValueError
'stats:tdigest:MergeDeltaMismatch') into this one; `other` is unchanged.""",
    "centroids": """centroids()

The centroids as (means, counts): 1-D float64 and uint64 arrays in
ascending order of mean.""",
}


def _document_methods(cls):
    definition = class_definition(cls.__name__)
    for name, text in _METHOD_DOCS.items():
        method = cls.__dict__.get(name)
        if method is not None:
            method.__doc__ = text + "\n\n" + (method.__doc__ or "")
    return definition


_TDIGEST_DEFINITION = _document_methods(TDigest)


# --- display ---------------------------------------------------------------------


def _repr_tdigest(self):
    shown = [
        p["name"]
        for p in _TDIGEST_DEFINITION["properties"]
        if p["get_access"] == _core.PUBLIC_ACCESS and p["type"].endswith(" scalar")
    ]
    fields = ", ".join(f"{name}={getattr(self, name)!r}" for name in shown)
    return f"TDigest({fields})"


TDigest.__repr__ = _repr_tdigest
