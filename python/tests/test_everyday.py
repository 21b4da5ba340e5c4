"""The everyday Python names, digest files, the compact form and pickles."""

import os
import pathlib
import pickle
import subprocess

import numpy as np
import pytest

import zotdigest
from zotdigest import HostValueError, RandomStream, TDigest


def bits(values):
    return np.asarray(values, dtype=np.float64).view(np.uint64).tolist()


def state(d):
    """Everything observable of a digest, as bits."""
    means, counts = d.centroids()
    return [d.Delta, d.NumCentroids, d.NumDataPoints, bits(means), counts.tolist(),
            bits(d.icdf(np.linspace(0, 1, 101)))]


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
    p = np.array([0.0, 1.0, 50.0, 99.9, 100.0])
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
    for name in ["quantile", "percentile", "trimmed_mean", "update", "count", "delta"]:
        assert len(getattr(TDigest, name).__doc__) > 60


def test_merge_takes_any_iterable_of_digests():
    digests = [TDigest(np.arange(i, 100.0 + i)) for i in range(4)]
    for given in [digests, tuple(digests), iter(digests), (d for d in digests), {0: digests[0]}.values()]:
        merged = zotdigest.merge(given, RandomStream(seed=1))
        assert merged.count == 100 * (len(given) if hasattr(given, "__len__") else 4)


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


def newer(data):
    import zlib
    header = bytearray(data[:44])
    header[8] = 3
    header[40:44] = zlib.crc32(bytes(header[:40])).to_bytes(4, "little")
    return bytes(header) + data[44:]


DAMAGE = {
    "empty": (lambda b: b"", "shorter than the 44-byte header"),
    "truncated": (lambda b: b[:-10], "truncated"),
    "foreign": (lambda b: b"col\n" + b"1.5\n" * 40, "wrong magic number"),
    "newer": (newer, "format version 3, written by a newer zotdigest"),
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


TOOL = pathlib.Path(os.environ.get("ZOTDIGEST_BUILD", "build")) / "bin" / "zotdigest"


@pytest.mark.skipif(not TOOL.exists(), reason="the command-line tool is not built")
def test_files_are_the_command_line_tools(tmp_path):
    env = dict(os.environ, QUORIX_MODULE_PATH=str(TOOL.parent.parent / "lib"))
    data = np.random.default_rng(4).exponential(size=20_000)
    np.savetxt(tmp_path / "x.txt", data)
    subprocess.run([TOOL, "build", "--seed", "1", "-o", tmp_path / "cli.zd", tmp_path / "x.txt"],
                   check=True, env=env)
    d = zotdigest.load(tmp_path / "cli.zd")
    zotdigest.save(tmp_path / "py.zd", d)
    out = subprocess.run([TOOL, "quantile", "--json", tmp_path / "py.zd", "0.5"], check=True,
                         env=env, capture_output=True, text=True).stdout
    assert repr(d.quantile(0.5)) in out or f"{d.quantile(0.5):.17g}" in out


# --- compact form and pickles --------------------------------------------------------


def test_pickles_are_compact_restore_bit_for_bit_and_getstate_stays():
    d = TDigest(np.random.default_rng(1).normal(size=1_000_000), 100)
    blob = pickle.dumps(d)
    assert len(blob) < 20_000
    # What Dask's workers send each other.
    distributed = pytest.importorskip("distributed.protocol")
    header, frames = distributed.serialize(d)
    assert sum(len(f) for f in frames) < 20_000
    assert state(distributed.deserialize(header, frames)) == state(d)
    assert state(pickle.loads(blob)) == state(d) == state(TDigest.from_bytes(d.to_bytes()))
    assert list(d.__getstate__()) == ["AVLTreeSummary", "Delta", "NumCentroids", "NumDataPoints"]
    assert state(TDigest.from_bytes(memoryview(TDigest().to_bytes()))) == state(TDigest())


class Latencies(TDigest):
    pass


def test_a_subclass_pickles_and_copies_as_itself():
    import copy

    d = Latencies(np.arange(100.0))
    for c in (pickle.loads(pickle.dumps(d)), copy.deepcopy(d), Latencies.from_bytes(d.to_bytes())):
        assert type(c) is Latencies and state(c) == state(d)
