"""Digest files and the compact form of one digest.

The format is the command-line tool's: the extension hands digests to the
same C++ reader and writer, so a file written here opens there and back.
"""

import os as _os

from . import _core
from ._core import TDigest


def save(path, digests, label=None):
    """save(path, digests, label=None)

    Writes one TDigest, or a sequence of them, to the digest file `path`
    (the format `zotdigest build -o` writes), replacing it atomically:
    readers see the old file or the new, never a mixture. `label` is a str
    for one digest, a sequence of str (one per digest) for several, or None
    for no labels. Raises ValueError for an empty sequence, a label list of
    another length or a digest that cannot be stored, OSError when the file
    cannot be written.
    """
    path = _os.fspath(path)
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
    return _core._from_compact(bytes(data))


def _reduce(self):
    # Pickles and copies carry the compact form; __getstate__ still gives
    # the runtime's dict of properties.
    return (TDigest.from_bytes, (self.to_bytes(),))


def install():
    TDigest.to_bytes = to_bytes
    TDigest.from_bytes = classmethod(from_bytes)
    TDigest.__reduce__ = _reduce
