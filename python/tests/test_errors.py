"""Errors, access levels, warnings, Ctrl-C and concurrent callers."""

import os
import signal
import threading
import time
import warnings

import numpy as np
import pytest

import zotdigest
from zotdigest import Error, RandomStream, TDigest, ZotdigestWarning


def test_error_is_a_value_error_with_identifier_and_message():
    assert issubclass(Error, ValueError) and issubclass(ZotdigestWarning, UserWarning)
    with pytest.raises(Error) as e:
        TDigest().cdf(0.5)
    assert e.value.identifier == "stats:tdigest:CdfNoData"
    assert e.value.message == str(e.value) != e.value.identifier
    assert e.value.message


@pytest.mark.parametrize(
    "call, identifier",
    [
        (lambda d: TDigest().cdf(1.0), "stats:tdigest:CdfNoData"),
        (lambda d: d.icdf(1.5), "stats:tdigest:IcdfInvalidQuantile"),
        (lambda d: TDigest().icdf([0.5, -0.1]), "stats:tdigest:IcdfInvalidQuantile"),
        (lambda d: d.trimmedMean([0.0, 0.1, 0.5]), "stats:tdigest:TrimmedMeanInvalidTrim"),
        (lambda d: TDigest().trimmedMean(0.1), "stats:tdigest:TrimmedMeanNoData"),
        (lambda d: d.merge(TDigest(None, 50)), "stats:tdigest:MergeDeltaMismatch"),
        (lambda d: d.merge(np.arange(3.0)), "QUORIX:class:RequireScalarObject"),
        (lambda d: d.cdf(np.array([1j])), "QUORIX:class:RequireReal"),
        (lambda d: d.cdf("x"), "QUORIX:class:RequireNumeric"),
        (lambda d: d.cdf(True), "QUORIX:class:RequireNumeric"),
    ],
    ids=["cdf-empty", "icdf-range", "icdf-empty-range", "trim-range", "trim-empty",
         "merge-delta", "merge-not-digest", "complex", "char", "logical"],
)
def test_module_errors_carry_their_identifiers(call, identifier):
    d = TDigest(np.arange(10.0))
    before = d.centroids()[0].copy()
    with pytest.raises(Error) as e:
        call(d)
    assert e.value.identifier == identifier
    np.testing.assert_array_equal(d.centroids()[0], before)


def test_errors_pickle_with_their_identifier():
    import pickle

    with pytest.raises(Error) as e:
        TDigest().trimmedMean(0.1)
    copy = pickle.loads(pickle.dumps(e.value))
    assert (type(copy), copy.identifier, copy.message) == (Error, e.value.identifier, e.value.message)


def test_empty_digest_quantile_is_nan_not_an_error():
    assert np.isnan(TDigest().icdf(0.5))


class TestAccessLevels:
    def test_the_summary_matrix_is_not_readable_by_users(self):
        with pytest.raises(Error) as e:
            TDigest(np.arange(5.0)).AVLTreeSummary
        assert e.value.identifier == "QUORIX:class:AccessDenied"

    @pytest.mark.parametrize("name", ["AVLTreeSummary", "Delta", "NumDataPoints"])
    def test_restricted_setters_refuse_users(self, name):
        d = TDigest(np.arange(5.0))
        with pytest.raises(Error) as e:
            setattr(d, name, 50.0)
        assert e.value.identifier == "QUORIX:class:AccessDenied"
        assert d.Delta == 100.0 and d.NumDataPoints == 5

    def test_a_property_without_setter_is_read_only(self):
        with pytest.raises(Error) as e:
            TDigest().NumCentroids = 3
        assert e.value.identifier == "QUORIX:class:ReadOnly"


def overfull_digest():
    """A digest restored with a weight at the capacity limit."""
    saved = TDigest(np.arange(10.0))._save()
    saved["NumDataPoints"] = np.array([[8_000_000_000_000_000]], dtype=np.uint64)
    return TDigest._restore(saved)


class TestWarnings:
    def test_capacity_warnings_reach_python_warnings_with_identifier(self):
        d = overfull_digest()
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            d.add(1.0)
        found = [w for w in caught if issubclass(w.category, ZotdigestWarning)]
        assert found and found[0].message.identifier == "stats:tdigest:PreMaxData"
        assert found[0].filename == __file__

    def test_exactly_at_the_limit_there_is_no_warning(self):
        d = overfull_digest()
        with warnings.catch_warnings():
            warnings.simplefilter("error")
            d.add(np.array([]))

    def test_a_warning_filtered_into_an_error_raises_it(self):
        d = overfull_digest()
        with warnings.catch_warnings():
            warnings.simplefilter("error", ZotdigestWarning)
            with pytest.raises(ZotdigestWarning):
                d.add(1.0)


def send_sigint_after(seconds):
    timer = threading.Timer(seconds, os.kill, (os.getpid(), signal.SIGINT))
    timer.start()
    return timer


@pytest.mark.skipif(threading.current_thread() is not threading.main_thread(), reason="needs the main thread")
class TestInterrupt:
    # Several seconds of work uninterrupted; Ctrl-C comes after 0.2 s.
    big = np.random.default_rng(0).normal(size=4_000_000)

    @pytest.mark.parametrize("stream", [RandomStream(seed=1), None], ids=["serial", "parallel"])
    def test_ctrl_c_stops_add_inside_the_module(self, stream):
        handler = signal.getsignal(signal.SIGINT)
        d = TDigest()
        timer = send_sigint_after(0.2)
        with pytest.raises(KeyboardInterrupt):
            d.add(self.big, stream)
            time.sleep(10)  # reached only if the call ignored Ctrl-C
        timer.join()
        # Stopped part way: the serial path keeps the blocks it added, the
        # parallel path nothing; a call that ran to the end would hold all.
        assert d.NumDataPoints < self.big.size
        assert signal.getsignal(signal.SIGINT) is handler

    def test_ctrl_c_stops_a_long_constructor(self):
        built = None
        timer = send_sigint_after(0.2)
        start = time.monotonic()
        with pytest.raises(KeyboardInterrupt):
            built = TDigest(self.big)
            time.sleep(10)
        timer.join()
        assert built is None
        assert time.monotonic() - start < 1.5

    def test_after_an_interrupt_the_next_call_runs(self):
        timer = send_sigint_after(0.1)
        with pytest.raises(KeyboardInterrupt):
            TDigest().add(self.big, RandomStream(seed=2))
            time.sleep(10)
        timer.join()
        assert TDigest(np.arange(100.0)).NumDataPoints == 100


def test_concurrent_callers_are_serialised():
    d = TDigest()
    chunks = np.array_split(np.random.default_rng(4).normal(size=200_000), 8)
    threads = [threading.Thread(target=d.add, args=(c,)) for c in chunks]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert d.NumDataPoints == 200_000
    assert zotdigest.merge_digests([d]).NumDataPoints == 200_000
