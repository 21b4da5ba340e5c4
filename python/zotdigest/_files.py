"""Digest files and the compact form of one digest.

The format is the command-line tool's: the extension hands digests to the
same C++ reader and writer, so a file written here opens there and back.
"""

import numbers as _numbers
import os as _os
import struct as _struct

import numpy as _np

from . import _core
from ._core import TDigest
from . import _groups
from ._groups import GroupedDigests, factorize_keys


def save(path, digests, label=None):
    """save(path, digests, label=None)

    Writes one TDigest, or a sequence of them, to the digest file `path`
    (the format `zotdigest build -o` writes), replacing it atomically:
    readers see the old file or the new, never a mixture. `label` is a str
    for one digest, a sequence of str (one per digest) for several, or None
    for no labels. A GroupedDigests (from digest_by) is written one digest
    per key, labelled by the key's text; int, float, bool, datetime64 and
    timedelta64 keys are recorded with their type too, for load_by (other
    keys come back as their text). Raises ValueError for an empty sequence,
    a label list of another length or a digest that cannot be stored,
    OSError when the file cannot be written.
    """
    path = _os.fspath(path)
    if isinstance(digests, GroupedDigests):
        if label is not None:
            raise ValueError("zotdigest.save: a GroupedDigests is labelled by its keys; "
                             "give no label")
        if not len(digests):
            raise ValueError("zotdigest.save: no groups to save")
        unsigned = getattr(digests.keys(), "dtype", None) == _np.uint64
        records = [_key_record(key, unsigned) for key in digests.keys()]
        labels = [text for text, _ in records]
        keys = [key for _, key in records]
        _core._save_digests(path, digests.values(), labels,
                            keys if any(k is not None for k in keys) else None)
        return
    if isinstance(digests, TDigest):
        digests = [digests]
        labels = [""] if label is None else [label]
    else:
        digests = list(digests)
        if label is None:
            labels = [""] * len(digests)
        elif isinstance(label, str):
            raise ValueError("zotdigest.save: give one label per digest (a sequence of str)")
        else:
            labels = list(label)
    if not all(isinstance(text, str) for text in labels):
        raise TypeError("zotdigest.save: labels are str")
    _core._save_digests(path, digests, labels)


def load(path, labels=False):
    """load(path, labels=False)

    The digests of the digest file `path`: a TDigest when it holds one, a
    list of TDigest when it holds several. With labels=True, a list of
    (label, TDigest) pairs whatever the count. Raises ValueError naming the
    problem for a file that is damaged, truncated, not a digest file or
    written by a newer format version; OSError when it cannot be read.
    """
    path = _os.fspath(path)
    with open(path, "rb") as f:
        data = f.read()
    pairs = _core._decode_digest_file(data, _os.fsdecode(path))
    if labels:
        return pairs
    digests = [digest for _, digest in pairs]
    return digests[0] if len(digests) == 1 else digests


def load_by(path):
    """load_by(path)

    The digests of the digest file `path` as a GroupedDigests keyed by
    their labels: the keys save wrote with their type come back typed (int,
    float, bool, datetime64, timedelta64), every other label as a str (a
    file of `zotdigest build --by` gives str keys). Keys are ordered as
    digest_by orders them. Raises ValueError for two digests with one key,
    and as load does.
    """
    path = _os.fspath(path)
    with open(path, "rb") as f:
        data = f.read()
    records = _core._decode_digest_file(data, _os.fsdecode(path), keys=True)
    keys = [_key_value(label, key) for label, _, key in records]
    codes, ordered = factorize_keys(_key_array(keys))
    if len(ordered) != len(records) or (codes < 0).any():
        seen = set()
        for label, _, _ in records:
            if label in seen:
                raise ValueError(f"zotdigest.load_by: {path}: two digests have the key {label!r}")
            seen.add(label)
        raise ValueError(f"zotdigest.load_by: {path}: a key is missing (NaN or NaT)")
    digests = [None] * len(records)
    for code, (_, digest, _) in zip(codes, records):
        digests[code] = digest
    return GroupedDigests(ordered, digests)


# --- typed keys ------------------------------------------------------------------
# A key record is (kind, bits, unit) as engine/digest_file.h lays it out.

_INT64, _UINT64, _FLOAT64, _BOOL, _DATETIME64, _TIMEDELTA64 = range(1, 7)
_TICK_UNITS = ("Y", "M", "W", "D", "h", "m", "s", "ms", "us", "ns", "ps", "fs", "as")


def _time_record(kind, value):
    unit, count = _np.datetime_data(value.dtype)
    if count != 1 or unit not in _TICK_UNITS or _np.isnat(value):
        return None
    ticks = int(value.astype(_np.int64))
    return (kind, ticks & (2**64 - 1), _TICK_UNITS.index(unit))


def _key_record(key, unsigned=False):
    """(label, key record or None) for one key; integers as uint64 when
    `unsigned` (keys of a uint64 array)."""
    pd = _groups._pandas()
    if pd is not None and isinstance(key, pd.Timestamp):
        if key.tz is None:
            return str(key), _time_record(_DATETIME64, key.to_datetime64())
        return str(key), None
    if pd is not None and isinstance(key, pd.Timedelta):
        return str(key), _time_record(_TIMEDELTA64, key.to_timedelta64())
    if isinstance(key, (bool, _np.bool_)):
        return str(bool(key)), (_BOOL, int(key), 0)
    if isinstance(key, _numbers.Integral):
        value = int(key)
        if -(2**63) <= value < 2**63 and not unsigned:
            return str(value), (_INT64, value & (2**64 - 1), 0)
        if 0 <= value < 2**64:
            return str(value), (_UINT64, value, 0)
    if isinstance(key, (float, _np.floating)):
        value = float(key)
        return repr(value), (_FLOAT64, _struct.unpack("<Q", _struct.pack("<d", value))[0], 0)
    if isinstance(key, _np.datetime64):
        return str(key), _time_record(_DATETIME64, key)
    if isinstance(key, _np.timedelta64):
        return str(key), _time_record(_TIMEDELTA64, key)
    return str(key), None


def _key_value(label, record):
    if record is None:
        return label
    kind, bits, unit = record
    signed = bits - 2**64 if bits >= 2**63 else bits
    if kind == _INT64:
        return signed
    if kind == _UINT64:
        return _np.uint64(bits)
    if kind == _FLOAT64:
        return _struct.unpack("<d", _struct.pack("<Q", bits))[0]
    if kind == _BOOL:
        return bool(bits)
    if kind == _DATETIME64:
        return _np.datetime64(signed, _TICK_UNITS[unit])
    return _np.timedelta64(signed, _TICK_UNITS[unit])


def _key_array(keys):
    """The keys as an array of their common dtype (int64, uint64, float64,
    bool, datetime64, timedelta64, str), or of objects when they differ."""
    if len({type(k) for k in keys}) == 1:
        array = _np.array(keys)
    else:
        array = _np.empty(len(keys), dtype=object)
        array[:] = keys
    pd = _groups._pandas()
    return array if pd is None else pd.Index(array)


def to_bytes(self):
    """to_bytes()

    The compact form of this digest as bytes: its record in a digest file,
    compressed (about 13 to 16 kB for a Delta-100 digest of many values).
    TDigest.from_bytes restores it bit for bit; pickles use it.
    """
    return _core._to_compact(self)


def from_bytes(cls, data):
    """TDigest.from_bytes(data)

    The digest whose compact form (made by to_bytes) is `data` (bytes or
    any buffer). Raises ValueError naming the problem for bytes that are
    truncated, damaged, of another kind or of a newer version.
    """
    digest = _core._from_compact(bytes(data))
    if cls is TDigest:
        return digest
    # A subclass gets an instance of its own holding the same state.
    made = cls.__new__(cls)
    made.__setstate__(digest.__getstate__())
    return made


def _reduce(self):
    # Pickles and copies carry the compact form; __getstate__ still gives
    # the runtime's dict of properties.
    return (type(self).from_bytes, (self.to_bytes(),))


def install():
    TDigest.to_bytes = to_bytes
    TDigest.from_bytes = classmethod(from_bytes)
    TDigest.__reduce__ = _reduce
