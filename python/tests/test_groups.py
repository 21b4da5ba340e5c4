"""zotdigest.digest_by and GroupedDigests: every group is zotdigest.digest of
its values, keys as pandas' groupby gives them, queries over all groups,
merge, pickling and digest files with typed keys."""

import pickle

import numpy as np
import pandas as pd
import pytest
from digest_bits import saved as state

import zotdigest
from zotdigest import _groups

B = zotdigest.BLOCK_SIZE
rng = np.random.default_rng(19)
N = 5000


def _with(array, missing, every=7):
    array = np.asarray(array, dtype=object if missing is None else None)
    array[::every] = missing
    return array


KEYS = {
    # One group spans more than a block.
    "ints": (lambda: rng.choice([-3, 0, 7], size=B + 999, p=[0.9, 0.05, 0.05])),
    "floats with NaN": lambda: _with(rng.integers(0, 9, N) / 4, np.nan),
    "strings with None": lambda: _with(np.array(["b", "a", "ab", ""])[rng.integers(0, 4, N)], None),
    "categorical": lambda: pd.Categorical(rng.choice(["x", "y", None], N),
                                          categories=["z", "y", "x"]),
    "datetimes with NaT": lambda: pd.Series(pd.to_datetime(rng.integers(0, 5, N), unit="h")).where(
        rng.random(N) > 0.1),
    "bools": lambda: rng.random(N) > 0.3,
    "list": lambda: rng.integers(0, 4, N).tolist(),
    "nullable ints": lambda: pd.Series(rng.integers(0, 3, N), dtype="Int64").where(
        rng.random(N) > 0.1),
}


@pytest.mark.parametrize("make", KEYS.values(), ids=list(KEYS))
def test_every_group_is_the_digest_of_its_values_in_groupby_order(make):
    by = make()
    values = rng.lognormal(size=len(by))
    groups = zotdigest.digest_by(values, by, delta=50, seed=3, threads=2)
    sizes = pd.Series(values).groupby(by).size()
    assert list(groups.keys()) == list(sizes.index)
    assert groups.count.tolist() == sizes.tolist()
    keys = pd.Series(by)
    for key, digest in groups.items():
        mask = (keys == key).to_numpy(dtype=bool, na_value=False)
        expected = zotdigest.digest(values[mask], delta=50, seed=3)
        assert state(digest) == state(expected), key


@pytest.mark.parametrize("threads", [1, 4])
@pytest.mark.parametrize("n, keys", [(1000, "one"), (1000, "each"), (0, "each")])
def test_one_group_every_value_its_own_group_and_no_values(threads, n, keys):
    values = rng.normal(size=n).astype(np.float32)
    by = np.zeros(n) if keys == "one" else rng.permutation(n)
    groups = zotdigest.digest_by(values, by, threads=threads)
    assert len(groups) == (min(n, 1) if keys == "one" else n)
    for key in groups:
        assert state(groups[key]) == state(zotdigest.digest(values[by == key]))


def test_queries_over_all_groups_equal_each_digests_own():
    by = pd.Categorical(rng.choice(["a", "b"], 3000), categories=["a", "b", "empty"])
    groups = zotdigest.digest_by(rng.lognormal(size=3000), by)
    q = [0.0, 0.5, 0.99, 1.0]
    a, b, empty = groups.values()
    np.testing.assert_array_equal(groups.quantile(q), [a.quantile(q), b.quantile(q), [np.nan] * 4])
    np.testing.assert_array_equal(groups.quantile(0.5), [a.quantile(0.5), b.quantile(0.5), np.nan])
    np.testing.assert_array_equal(groups.cdf([1.0, 2.0]), [a.cdf([1.0, 2.0]), b.cdf([1.0, 2.0]),
                                                           [np.nan] * 2])
    assert groups.quantile([]).shape == (3, 0)
    assert groups.count.dtype == np.uint64 and groups.delta == 100.0
    with pytest.raises(ValueError, match="Quantiles"):
        groups.quantile([0.5, 1.5])
    frame = groups.to_pandas([0.5, 0.99])
    assert list(frame.columns) == [0.5, 0.99] and list(frame.index) == ["a", "b", "empty"]
    np.testing.assert_array_equal(frame.to_numpy(), groups.quantile([0.5, 0.99]))
    assert "3 groups" in repr(groups) and "'a': " in repr(groups)


def test_the_mapping_is_read_only_and_pickles():
    groups = zotdigest.digest_by(np.arange(10.0), np.arange(10) % 3)
    assert 2 in groups and 2.0 in groups and 3 not in groups and "x" not in groups
    with pytest.raises(KeyError):
        groups[5]
    with pytest.raises(TypeError):
        groups[0] = groups[1]
    back = pickle.loads(pickle.dumps(groups))
    assert list(back.keys()) == [0, 1, 2]
    assert [state(d) for d in back.values()] == [state(d) for d in groups.values()]


def test_merge_is_key_wise_and_leaves_both_inputs_unchanged():
    x, y = rng.normal(size=(2, 2000))
    first = zotdigest.digest_by(x, rng.choice(["a", "b"], 2000))
    second = zotdigest.digest_by(y, rng.choice(["b", "c"], 2000))
    before = [state(d) for d in first.values() + second.values()]
    stream = zotdigest.RandomStream("mrg32k3a", 4)
    merged = first.merge(second, stream=zotdigest.RandomStream("mrg32k3a", 4))
    assert list(merged.keys()) == ["a", "b", "c"]
    assert [state(d) for d in first.values() + second.values()] == before
    both = zotdigest.TDigest.from_bytes(first["b"].to_bytes())
    both.merge(second["b"], stream)
    assert state(merged["b"]) == state(both)
    assert state(merged["a"]) == state(first["a"]) and state(merged["c"]) == state(second["c"])
    with pytest.raises(ValueError, match="different Delta"):
        first.merge(zotdigest.digest_by(y, np.zeros(2000), delta=50))


TYPED = {
    "int": np.array([-(2**63), 5, 2**40]),
    "uint64": np.array([0, 2**64 - 1], dtype=np.uint64),
    "float": np.array([-0.5, 0.1, 1e300]),
    "bool": np.array([True, False]),
    "datetime": pd.to_datetime(["2026-01-01 12:00", "1969-12-31"]),
    "timedelta": pd.to_timedelta([5, -3], unit="s"),
    "str": np.array(["b", "a;b", "é"]),
}


@pytest.mark.parametrize("keys", TYPED.values(), ids=list(TYPED))
def test_files_give_the_groups_back_with_typed_keys(tmp_path, keys):
    by = np.asarray(keys)[rng.integers(0, len(keys), 500)]
    groups = zotdigest.digest_by(rng.normal(size=500), by)
    zotdigest.save(tmp_path / "g.zd", groups)
    back = zotdigest.load_by(tmp_path / "g.zd")
    assert back.keys().dtype == groups.keys().dtype
    assert list(back.keys()) == list(groups.keys())
    assert [state(d) for d in back.values()] == [state(d) for d in groups.values()]
    labelled = zotdigest.load(tmp_path / "g.zd", labels=True)
    assert [label for label, _ in labelled] == [str(k) if k.__class__ is not float else repr(k)
                                                for k in groups.keys()]
    # str keys need no key records: the file stays in the oldest format.
    version = (tmp_path / "g.zd").read_bytes()[8]
    assert version == (1 if by.dtype.kind == "U" else 3)


def test_files_of_labels_give_str_keys_and_bad_files_are_refused(tmp_path):
    d = zotdigest.TDigest(np.arange(5.0))
    zotdigest.save(tmp_path / "l.zd", [d, d], label=["10", "9"])
    assert list(zotdigest.load_by(tmp_path / "l.zd").keys()) == ["10", "9"]
    zotdigest.save(tmp_path / "twice.zd", [d, d], label=["k", "k"])
    with pytest.raises(ValueError, match="two digests have the key 'k'"):
        zotdigest.load_by(tmp_path / "twice.zd")
    with pytest.raises(ValueError, match="no groups"):
        zotdigest.save(tmp_path / "none.zd", zotdigest.digest_by([], []))


def test_data_frames_and_bad_input():
    frame = pd.DataFrame({"endpoint": list("abab"), "latency": [1.0, 2.0, 3.0, 4.0],
                          "n": [1, 0, 2, 1]})
    groups = zotdigest.digest_by(frame, by="endpoint", on="latency")
    assert groups.keys().name == "endpoint" and groups.count.tolist() == [2, 2]
    weighted = zotdigest.digest_by(frame, by="endpoint", on="latency", weights="n")
    assert weighted.count.tolist() == [3, 1]
    a = (frame.endpoint == "a").to_numpy()
    assert state(weighted["a"]) == state(zotdigest.digest(frame.latency[a].to_numpy(),
                                                          weights=frame.n[a].to_numpy()))
    bad = [
        (lambda: zotdigest.digest_by(np.arange(3.0), [1, 2]), ValueError, "2 keys for 3 values"),
        (lambda: zotdigest.digest_by(["x"], [1]), TypeError, "numbers"),
        (lambda: zotdigest.digest_by(frame, by="host", on="latency"), KeyError, "no column 'host'"),
        (lambda: zotdigest.digest_by(frame, by="endpoint"), ValueError, "on="),
        (lambda: zotdigest.digest_by(frame.latency, by="endpoint"), TypeError, "DataFrame"),
        (lambda: zotdigest.digest_by(np.ones((2, 2)), [1, 2]), ValueError, "1-D"),
    ]
    # The weights' own checks are tested with zotdigest.digest; one shows
    # that digest_by applies them before any work.
    bad.append((lambda: zotdigest.digest_by(frame, by="endpoint", on="latency",
                                            weights=np.array([1, -1, 0, 0])), ValueError,
                "negative"))
    for call, error, message in bad:
        with pytest.raises(error, match=message):
            call()


@pytest.mark.parametrize("by", [np.array([2, 1, 2, 5]), np.array([127, -128, 0], np.int8),
                                np.array([2**64 - 1, 2**63 - 1], np.uint64), np.array([3, 2**40]),
                                np.array([True, True]), np.array([np.nan, 1.5, -0.0, 1.5]),
                                np.array(["b", "a", "b"]),
                                np.array(["2020-01-02", "NaT", "2020-01-01"], dtype="M8[s]")])
def test_numpy_keys_factorize_as_pandas_does_with_and_without_pandas(by):
    expected_codes, expected_keys = pd.factorize(by, sort=True)
    for codes, keys in [_groups._factorize_numpy(by), zotdigest.factorize_keys(by)]:
        assert codes.tolist() == expected_codes.tolist()
        np.testing.assert_array_equal(keys, np.asarray(expected_keys))


def test_without_pandas_numpy_keys_work_alike(tmp_path, monkeypatch):
    values, by = rng.normal(size=600), rng.choice(["b", "a", "c"], 600)
    with_pandas = zotdigest.digest_by(values, by)
    monkeypatch.setattr(_groups, "_pandas", lambda: None)
    groups = zotdigest.digest_by(values, by)
    assert isinstance(groups.keys(), np.ndarray) and list(groups) == ["a", "b", "c"]
    assert [state(groups[k]) for k in "abc"] == [state(with_pandas[k]) for k in "abc"]
    for keys in (by, (by == "a").astype(np.int64) * 2**40):
        zotdigest.save(tmp_path / "g.zd", zotdigest.digest_by(values, keys))
        back = zotdigest.load_by(tmp_path / "g.zd")
        assert back.keys().dtype == np.asarray(keys).dtype and len(back) in (2, 3)
