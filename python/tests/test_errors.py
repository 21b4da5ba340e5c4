"""Errors and their Python classes, access levels, warnings and Ctrl-C."""

import ctypes
import os
import pickle
import signal
import threading
import time
import warnings

import numpy as np
import pytest

from zotdigest import HostError, HostValueError, HostWarning, RandomStream, TDigest, column_digests, merge


def test_the_error_classes_and_what_an_error_carries():
    with pytest.raises(HostError) as e:
        TDigest().trimmedMean(0.1)
    assert e.value.identifier == "stats:tdigest:TrimmedMeanNoData"
    assert e.value.message == str(e.value) and e.value.message not in ("", e.value.identifier)
    copy = pickle.loads(pickle.dumps(e.value))
    assert (type(copy), copy.identifier, copy.message) == (HostValueError, e.value.identifier, e.value.message)
    assert np.isnan(TDigest().icdf(0.5))  # an empty digest's quantile is NaN, not an error


ERRORS = {  # what fails, its identifier and the built-in class it also is
    "cdf-empty": (lambda d: TDigest().cdf(1.0), "stats:tdigest:CdfNoData", ValueError),
    "icdf-range": (lambda d: d.icdf(1.5), "stats:tdigest:IcdfInvalidQuantile", ValueError),
    "trim-range": (lambda d: d.trimmedMean([0.0, 0.1, 0.5]), "stats:tdigest:TrimmedMeanInvalidTrim", ValueError),
    "merge-delta": (lambda d: d.merge(TDigest(None, 50)), "stats:tdigest:MergeDeltaMismatch", ValueError),
    "seed-high": (lambda d: RandomStream(seed=2**32), "QUORIX:random:InvalidSeed", ValueError),
    "generator": (lambda d: RandomStream("twister"), "QUORIX:random:UnknownGenerator", ValueError),
    "merge-not-digest": (lambda d: d.merge(np.arange(3.0)), "QUORIX:class:RequireScalarObject", TypeError),
    "data-logical": (lambda d: TDigest(np.array([True, False])), "QUORIX:class:RequireReal", TypeError),
    "add-complex": (lambda d: d.add(np.array([1j])), "QUORIX:class:RequireReal", TypeError),
    "cdf-char": (lambda d: d.cdf("x"), "QUORIX:class:RequireNumeric", TypeError),
    "stream": (lambda d: TDigest(None, None, 5.0), "QUORIX:random:InvalidStream", TypeError),
    "get-summary": (lambda d: d.AVLTreeSummary, "QUORIX:class:AccessDenied", None),
    "set-summary": (lambda d: setattr(d, "AVLTreeSummary", 50.0), "QUORIX:class:AccessDenied", None),
    "read-only": (lambda d: setattr(d, "NumCentroids", 3), "QUORIX:class:ReadOnly", None),
    "merge-empty-list": (lambda d: merge([]), "QUORIX:class:RequireClass", TypeError),
    "merge-deltas": (lambda d: merge([d, TDigest(None, 60)]), "stats:tdigest:MergeDeltaMismatch", ValueError),
    "columns-complex": (lambda d: column_digests(np.ones((2, 2), complex)), "QUORIX:class:RequireReal", TypeError),
}


@pytest.mark.parametrize("call, identifier, kind", ERRORS.values(), ids=list(ERRORS))
def test_errors_carry_their_identifiers_and_python_class_and_change_nothing(call, identifier, kind):
    d = TDigest(np.arange(10.0))
    before = d.__getstate__()
    with pytest.raises(HostError) as e:
        call(d)
    assert e.value.identifier == identifier
    assert isinstance(e.value, ValueError) == (kind is ValueError)
    assert isinstance(e.value, TypeError) == (kind is TypeError)
    assert all(np.array_equal(before[k], v) for k, v in d.__getstate__().items())


def overfull_digest():
    """A digest restored with a weight at the capacity limit."""
    d, limit = TDigest.__new__(TDigest), np.array([[8_000_000_000_000_000]], dtype=np.uint64)
    d.__setstate__(dict(TDigest(np.arange(10.0)).__getstate__(), NumDataPoints=limit))
    return d


def test_capacity_warnings_reach_python_warnings_and_its_filters():
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        overfull_digest().add(1.0)
        warnings.simplefilter("ignore", HostWarning)
        overfull_digest().add(1.0)  # silenced by a filter on the category
    assert [(w.category, w.message.identifier, w.filename) for w in caught] == [
        (HostWarning, "stats:tdigest:PreMaxData", __file__)]
    assert str(caught[0].message) not in ("", caught[0].message.identifier)
    with warnings.catch_warnings():
        warnings.simplefilter("error", HostWarning)
        with pytest.raises(HostWarning) as e:
            overfull_digest().add(1.0)
    assert e.value.identifier == "stats:tdigest:PreMaxData"


# Several seconds of work uninterrupted.
BIG = np.random.default_rng(0).normal(size=4_000_000)
LIBC = ctypes.CDLL(None, use_errno=True)


def sigint_handler():
    """The address of the process's SIGINT handler, as sigaction reports it
    (sa_handler comes first in struct sigaction)."""
    action = ctypes.create_string_buffer(512)
    assert LIBC.sigaction(signal.SIGINT, None, action) == 0
    return ctypes.c_void_p.from_buffer(action).value


def ctrl_c_once_the_call_listens():
    """A thread that sends SIGINT as soon as a call has routed SIGINT to the
    module, which it does when it starts its work."""
    python_handler, deadline = sigint_handler(), time.monotonic() + 120  # a hang guard

    def watch():
        while sigint_handler() == python_handler and time.monotonic() < deadline:
            time.sleep(0.001)
        os.kill(os.getpid(), signal.SIGINT)

    return threading.Thread(target=watch)


@pytest.mark.skipif(threading.current_thread() is not threading.main_thread(), reason="needs the main thread")
@pytest.mark.parametrize("call", ["add-serial", "add-parallel", "constructor"])
def test_ctrl_c_stops_a_long_call_and_the_next_call_runs(call):
    handler = signal.getsignal(signal.SIGINT)
    d, built = TDigest(), None
    watcher = ctrl_c_once_the_call_listens()
    watcher.start()
    # A call that ignored Ctrl-C would run to the end and hand it back to
    # Python afterwards: the KeyboardInterrupt comes either way, the weight
    # below tells which.
    with pytest.raises(KeyboardInterrupt):
        if call == "constructor":
            built = TDigest(BIG)
        else:
            d.add(BIG, RandomStream(seed=1)) if call == "add-serial" else d.add(BIG)
    watcher.join()
    # Stopped part way: the serial path keeps the blocks it added, the
    # parallel path nothing; a call that ran to the end would hold all.
    assert built is None and d.NumDataPoints < BIG.size
    assert call != "add-parallel" or d.NumDataPoints == 0
    assert signal.getsignal(signal.SIGINT) is handler
    assert TDigest(np.arange(100.0)).NumDataPoints == 100
