"""The everyday Python names, digest files, the compact form and pickles."""

import os
import pickle

import numpy as np
import pytest
from digest_bits import answers as state
from digest_bits import bits

import zotdigest
from zotdigest import HostValueError, RandomStream, TDigest


def random_digests(count=6):
    rng = np.random.default_rng(16)
    for i in range(count):
        data = rng.lognormal(size=int(rng.integers(1, 50_000)))
        yield TDigest(data, float(rng.choice([10, 50, 100, 300])), RandomStream(seed=i))


# --- the Python names are the module's members ---------------------------------------

QS = [0.0, 0.25, 1e-4, 0.999, 1.0]
ARGUMENTS = {"float": 0.37, "int": 0, "list": QS, "1-D": np.array(QS),
             "2-D": np.array(QS[:4]).reshape(2, 2), "float32": np.float32([0.1, 0.9])}


def scaled(arg, factor):
    return arg * factor if isinstance(arg, (int, float)) else np.multiply(arg, factor)


@pytest.mark.parametrize("arg", ARGUMENTS.values(), ids=list(ARGUMENTS))
def test_the_python_names_answer_as_the_modules_members_bit_for_bit(arg):
    for d in random_digests():
        trims = scaled(arg, 0.49)
        for ours, theirs in [(d.quantile(arg), d.icdf(arg)),
                             (d.trimmed_mean(trims), d.trimmedMean(trims))]:
            assert type(ours) is type(theirs) and np.shape(ours) == np.shape(theirs)
            assert np.asarray(ours).dtype == np.asarray(theirs).dtype and bits(ours) == bits(theirs)
        assert d.count == d.NumDataPoints and type(d.count) is int
        assert d.delta == d.Delta


def test_percentile_is_the_quantile_of_p_over_100_and_update_is_add():
    d = next(random_digests())
    p = np.array([0.0, 1.0, 57.0, 99.99, 100.0])  # 57 / 100 != 57 * 0.01
    assert bits(d.percentile(p)) == bits(d.icdf(p / 100))
    assert bits(d.percentile(99.9)) == bits(d.icdf(99.9 / 100))
    assert bits(d.percentile([1, 99.9])) == bits(d.icdf(np.array([1, 99.9]) / 100))
    assert type(d.percentile(np.float64(5))) is type(d.icdf(np.float64(5) / 100))
    with pytest.raises(HostValueError):
        d.percentile(101)
    a, b = TDigest(None, 50), TDigest(None, 50)
    data = np.random.default_rng(3).normal(size=3000)
    a.update(data, RandomStream(seed=5))
    b.add(data, RandomStream(seed=5))
    assert state(a) == state(b)


# --- digest files ------------------------------------------------------------------


def test_files_round_trip_one_and_several_with_labels(tmp_path):
    one, *several = random_digests(4)
    zotdigest.save(tmp_path / "one.zd", one)
    loaded = zotdigest.load(tmp_path / "one.zd")
    assert isinstance(loaded, TDigest) and state(loaded) == state(one)
    zotdigest.save(str(tmp_path / "several.zd"), several, label=["a", "b", "c"])
    pairs = zotdigest.load(tmp_path / "several.zd", labels=True)
    assert [label for label, _ in pairs] == ["a", "b", "c"]
    assert [state(d) for _, d in pairs] == [state(d) for d in several]
    assert [state(d) for d in zotdigest.load(tmp_path / "several.zd")] == [state(d) for d in several]
    # Atomic replace: the old file is there until the new one is complete.
    zotdigest.save(tmp_path / "one.zd", several[0], label="x")
    assert zotdigest.load(tmp_path / "one.zd", labels=True)[0][0] == "x"
    assert sorted(os.listdir(tmp_path)) == ["one.zd", "several.zd"]


DAMAGE = {
    "truncated": (lambda b: b[:-10], "truncated"),
    "flipped": (lambda b: b[:60] + bytes([b[60] ^ 1]) + b[61:], "checksum mismatch"),
}


@pytest.mark.parametrize("damage, message", DAMAGE.values(), ids=list(DAMAGE))
def test_damaged_files_and_bytes_raise_a_value_error_naming_the_problem(tmp_path, damage, message):
    d = TDigest(np.arange(1000.0))
    zotdigest.save(tmp_path / "d.zd", d)
    (tmp_path / "bad.zd").write_bytes(damage((tmp_path / "d.zd").read_bytes()))
    with pytest.raises(ValueError, match=message) as e:
        zotdigest.load(tmp_path / "bad.zd")
    assert "bad.zd" in str(e.value)


COMPACT_DAMAGE = {
    "empty": (lambda b: b"", "shorter than the 9-byte header"),
    "truncated": (lambda b: b[:-10], "damaged or truncated"),
    "foreign": (lambda b: b"1.5\n" * 40, "wrong magic number"),
    "newer": (lambda b: b[:4] + b"\x02" + b[5:], "version 2, written by a newer zotdigest"),
    "flipped": (lambda b: b[:30] + bytes([b[30] ^ 1]) + b[31:], "damaged"),
    "longer": (lambda b: b + b"\0", "1 unexpected bytes"),
}


@pytest.mark.parametrize("damage, message", COMPACT_DAMAGE.values(), ids=list(COMPACT_DAMAGE))
def test_damaged_compact_forms_raise_a_value_error_naming_the_problem(damage, message):
    with pytest.raises(ValueError, match=f"compact digest: .*{message}"):
        TDigest.from_bytes(damage(TDigest(np.arange(1000.0)).to_bytes()))


def test_unwritable_places_and_bad_arguments_are_refused(tmp_path):
    with pytest.raises(OSError):
        zotdigest.save(tmp_path / "missing" / "d.zd", TDigest())
    with pytest.raises(FileNotFoundError):
        zotdigest.load(tmp_path / "missing.zd")
    with pytest.raises(ValueError):
        zotdigest.save(tmp_path / "d.zd", [TDigest(), TDigest()], label=["a"])
    with pytest.raises(ValueError):
        zotdigest.save(tmp_path / "d.zd", [])
    with pytest.raises(TypeError):
        zotdigest.save(tmp_path / "d.zd", [TDigest(), 3.0])
    assert not (tmp_path / "d.zd").exists()


# --- compact form and pickles --------------------------------------------------------


def test_pickles_and_dask_frames_are_compact_and_restore_bit_for_bit():
    d = TDigest(np.random.default_rng(1).normal(size=1_000_000), 100)
    blob = pickle.dumps(d)
    assert len(blob) < 20_000
    # What Dask's workers send each other.
    distributed = pytest.importorskip("distributed.protocol")
    header, frames = distributed.serialize(d)
    assert sum(len(f) for f in frames) < 20_000
    assert state(distributed.deserialize(header, frames)) == state(d)
    assert state(pickle.loads(blob)) == state(d) == state(TDigest.from_bytes(d.to_bytes()))
    assert state(TDigest.from_bytes(memoryview(TDigest().to_bytes()))) == state(TDigest())

