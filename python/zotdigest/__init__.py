"""t-digest summaries of large collections of numbers, for NumPy users.

A TDigest summarises data by a small ordered set of weighted centroids and
estimates from them the cumulative distribution (cdf), quantiles (icdf) and
trimmed means::

    import numpy as np, zotdigest
    d = zotdigest.TDigest(np.random.default_rng(1).normal(size=100_000))
    d.icdf([0.01, 0.5, 0.99])      # 1-D in, 1-D out
    d.cdf(0.0)                     # a number in, a float out

Data keep their NumPy dtype on the way in (the ten numeric dtypes); Python
ints and floats are double scalars, lists go through numpy.asarray, None and
empty sequences are empty inputs. Errors raise zotdigest.Error, whose
`identifier` names the condition (e.g. 'stats:tdigest:IcdfInvalidQuantile');
warnings arrive as zotdigest.ZotdigestWarning. Pass a RandomStream to make
the random choices of building and merging reproducible.

The members of TDigest come from the module's own registration: see
zotdigest.class_definition("TDigest").
"""

import functools as _functools
import numbers as _numbers
import os as _os

import numpy as _np


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
    Error,
    RandomStream,
    TDigest,
    ZotdigestWarning,
    class_definition,
    column_digests,
    merge_columns,
    merge_digests,
    module_info,
)

__all__ = [
    "Error",
    "RandomStream",
    "TDigest",
    "ZotdigestWarning",
    "class_definition",
    "column_digests",
    "merge_columns",
    "merge_digests",
    "module_info",
]

__version__ = module_info()["version"]


# --- shape rules -------------------------------------------------------------
# The module answers in its own 2-D shapes. A NumPy user expects the shape of
# what they passed: a number in gives a number out, a 1-D array of n elements
# gives a 1-D array of n elements; 2-D and more keep the module's 2-D answer.
# Answers of a call without arguments that are column vectors (the centroid
# listing) become 1-D.


def _shape_like(argument, answer):
    if not isinstance(answer, _np.ndarray):
        return answer
    ndim = _np.ndim(argument)
    if ndim == 0 and answer.size == 1:
        if isinstance(argument, _numbers.Number) and not isinstance(argument, _np.generic):
            return answer.item()
        return answer.reshape(())[()]
    if ndim == 1 and answer.size == _np.size(argument):
        return answer.reshape(-1, order="F")
    return answer


def _column_to_1d(answer):
    if isinstance(answer, _np.ndarray) and answer.ndim == 2 and answer.shape[1] == 1:
        return answer.reshape(-1)
    return answer


def _shaped(method):
    @_functools.wraps(method)
    def call(self, *args):
        answer = method(self, *args)
        if not args:
            if isinstance(answer, tuple):
                return tuple(_column_to_1d(a) for a in answer)
            return _column_to_1d(answer)
        if isinstance(answer, tuple):
            return answer
        return _shape_like(args[0], answer)

    return call


# --- docstrings ----------------------------------------------------------------
# What a Python user needs to know about the methods the module registers
# today; the registered overloads stay listed below each text. A method the
# module adds later keeps its generated docstring.

_METHOD_DOCS = {
    "add": """add(data, stream=None)

Adds every element of `data` (any of the ten numeric dtypes, any shape).
Without a stream the work is split over worker threads, seeded from the
default stream; with a RandomStream it runs serially on that stream and is
reproducible. Complex, boolean and text data raise Error
'QUORIX:class:RequireReal'.""",
    "cdf": """cdf(x)

The estimated cumulative distribution at each element of `x`, in [0, 1].
NaN elements give NaN. An empty digest raises 'stats:tdigest:CdfNoData'.""",
    "icdf": """icdf(q)

The estimated quantile at each probability in `q` (0 <= q <= 1, else
'stats:tdigest:IcdfInvalidQuantile'). An empty digest gives NaN.""",
    "trimmedMean": """trimmedMean(p)

The mean after cutting a fraction `p` (0 <= p < 0.5) of the weight from each
end, for each element of `p`.""",
    "merge": """merge(other, stream=None)

Folds the digest `other` (of the same Delta, else
'stats:tdigest:MergeDeltaMismatch') into this one; `other` is unchanged.""",
    "centroids": """centroids()

The centroids as (means, counts): 1-D float64 and uint64 arrays in
ascending order of mean.""",
}


def _registered_method_names(definition):
    names = []
    for method in definition["methods"]:
        name = method["name"]
        if name != definition["name"] and name not in names:
            names.append(name)
    return names


def _present_members(cls):
    definition = class_definition(cls.__name__)
    for name in _registered_method_names(definition):
        raw = getattr(cls, name)
        shaped = _shaped(raw)
        if name in _METHOD_DOCS:
            shaped.__doc__ = _METHOD_DOCS[name] + "\n\n" + (raw.__doc__ or "")
        setattr(cls, name, shaped)
    return definition


_TDIGEST_DEFINITION = _present_members(TDigest)


# --- pickling and display ---------------------------------------------------------
# The runtime saves a digest by reading its properties and restores it by
# setting them; pickle, copy.copy and copy.deepcopy all go through that.


def _restore_tdigest(state):
    return TDigest._restore(state)


def _reduce_tdigest(self):
    return (_restore_tdigest, (self._save(),))


def _repr_tdigest(self):
    shown = [
        p["name"]
        for p in _TDIGEST_DEFINITION["properties"]
        if p["get_access"] == _core.PUBLIC_ACCESS and p["type"].endswith(" scalar")
    ]
    fields = ", ".join(f"{name}={getattr(self, name)!r}" for name in shown)
    return f"TDigest({fields})"


TDigest.__reduce__ = _reduce_tdigest
TDigest.__repr__ = _repr_tdigest
