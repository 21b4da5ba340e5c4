"""Errors and their Python classes, access levels, warnings and Ctrl-C."""

import os
import pickle
import signal
import threading
import time
import warnings

import numpy as np
import pytest

from zotdigest import HostError, HostTypeError, HostValueError, HostWarning, RandomStream, TDigest, merge


def test_the_error_and_warning_classes():
    assert HostError.__mro__[1] is Exception
    assert not issubclass(HostError, (ValueError, TypeError))
    assert issubclass(HostValueError, HostError) and issubclass(HostValueError, ValueError)
    assert issubclass(HostTypeError, HostError) and issubclass(HostTypeError, TypeError)
    assert not issubclass(HostValueError, TypeError) and not issubclass(HostTypeError, ValueError)
    assert issubclass(HostWarning, UserWarning)


def test_an_error_carries_its_identifier_and_the_catalogue_text():
    with pytest.raises(HostError) as e:
        TDigest().cdf(0.5)
    assert e.value.identifier == "stats:tdigest:CdfNoData"
    assert e.value.message == str(e.value) != e.value.identifier
    assert e.value.message


@pytest.mark.parametrize(
    "call, identifier, kind",
    [
        (lambda d: TDigest().cdf(1.0), "stats:tdigest:CdfNoData", ValueError),
        (lambda d: d.icdf(1.5), "stats:tdigest:IcdfInvalidQuantile", ValueError),
        (lambda d: TDigest().icdf([0.5, -0.1]), "stats:tdigest:IcdfInvalidQuantile", ValueError),
        (lambda d: d.trimmedMean([0.0, 0.1, 0.5]), "stats:tdigest:TrimmedMeanInvalidTrim", ValueError),
        (lambda d: TDigest().trimmedMean(0.1), "stats:tdigest:TrimmedMeanNoData", ValueError),
        (lambda d: d.merge(TDigest(None, 50)), "stats:tdigest:MergeDeltaMismatch", ValueError),
        (lambda d: TDigest(None, -1.0), "stats:tdigest:DeltaInvalidValue", ValueError),
        (lambda d: RandomStream(seed=2**32), "QUORIX:random:InvalidSeed", ValueError),
        (lambda d: RandomStream("twister"), "QUORIX:random:UnknownGenerator", ValueError),
        (lambda d: d.merge(np.arange(3.0)), "QUORIX:class:RequireScalarObject", TypeError),
        (lambda d: d.cdf(np.array([1j])), "QUORIX:class:RequireReal", TypeError),
        (lambda d: d.cdf("x"), "QUORIX:class:RequireNumeric", TypeError),
        (lambda d: d.cdf(True), "QUORIX:class:RequireNumeric", TypeError),
        (lambda d: merge([]), "QUORIX:class:RequireClass", TypeError),
        (lambda d: TDigest(None, np.float32(50)), "stats:tdigest:DeltaInvalidType", TypeError),
        (lambda d: TDigest(None, None, 5.0), "QUORIX:random:InvalidStream", TypeError),
        (lambda d: d.AVLTreeSummary, "QUORIX:class:AccessDenied", None),
        (lambda d: setattr(d, "NumCentroids", 3), "QUORIX:class:ReadOnly", None),
    ],
    ids=["cdf-empty", "icdf-range", "icdf-empty-range", "trim-range", "trim-empty", "merge-delta",
         "delta-value", "seed", "generator", "merge-not-digest", "complex", "char", "logical",
         "merge-nothing", "delta-type", "stream", "access", "read-only"],
)
def test_errors_carry_their_identifiers_and_python_class(call, identifier, kind):
    d = TDigest(np.arange(10.0))
    before = d.centroids()[0].copy()
    with pytest.raises(HostError) as e:
        call(d)
    assert e.value.identifier == identifier
    assert isinstance(e.value, ValueError) == (kind is ValueError)
    assert isinstance(e.value, TypeError) == (kind is TypeError)
    np.testing.assert_array_equal(d.centroids()[0], before)


def test_python_code_catching_value_error_catches_a_bad_quantile():
    try:
        TDigest(np.arange(10.0)).icdf(2.0)
    except ValueError as e:
        assert e.identifier == "stats:tdigest:IcdfInvalidQuantile"
    else:
        pytest.fail("no error")


def test_errors_pickle_with_their_class_and_identifier():
    with pytest.raises(HostError) as e:
        TDigest().trimmedMean(0.1)
    copy = pickle.loads(pickle.dumps(e.value))
    assert (type(copy), copy.identifier, copy.message) == (HostValueError, e.value.identifier, e.value.message)


def test_empty_digest_quantile_is_nan_not_an_error():
    assert np.isnan(TDigest().icdf(0.5))


class TestAccessLevels:
    @pytest.mark.parametrize("name", ["AVLTreeSummary", "Delta", "NumDataPoints"])
    def test_restricted_setters_refuse_users(self, name):
        d = TDigest(np.arange(5.0))
        with pytest.raises(HostError) as e:
            setattr(d, name, 50.0)
        assert e.value.identifier == "QUORIX:class:AccessDenied"
        assert d.Delta == 100.0 and d.NumDataPoints == 5


def overfull_digest():
    """A digest restored with a weight at the capacity limit."""
    saved = TDigest(np.arange(10.0)).__getstate__()
    saved["NumDataPoints"] = np.array([[8_000_000_000_000_000]], dtype=np.uint64)
    d = TDigest.__new__(TDigest)
    d.__setstate__(saved)
    return d


class TestWarnings:
    def test_capacity_warnings_reach_python_warnings_with_identifier(self):
        d = overfull_digest()
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            d.add(1.0)
        found = [w for w in caught if issubclass(w.category, HostWarning)]
        assert len(found) == 1 and found[0].message.identifier == "stats:tdigest:PreMaxData"
        assert str(found[0].message) and str(found[0].message) != found[0].message.identifier
        assert found[0].filename == __file__

    def test_exactly_at_the_limit_there_is_no_warning(self):
        d = overfull_digest()
        with warnings.catch_warnings():
            warnings.simplefilter("error")
            d.add(np.array([]))

    def test_a_filter_on_the_category_silences_them(self):
        d = overfull_digest()
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            warnings.simplefilter("ignore", HostWarning)
            d.add(1.0)
        assert caught == []

    def test_a_warning_filtered_into_an_error_raises_it(self):
        d = overfull_digest()
        with warnings.catch_warnings():
            warnings.simplefilter("error", HostWarning)
            with pytest.raises(HostWarning) as e:
                d.add(1.0)
        assert e.value.identifier == "stats:tdigest:PreMaxData"


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
