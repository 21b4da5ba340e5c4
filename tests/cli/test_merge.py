"""Merging digest files."""
import numpy as np
import pytest

from conftest import ok, rank_error, run

PROBS = [0.001, 0.01, 0.1, 0.5, 0.9, 0.99, 0.999]


@pytest.fixture
def parts(tmp_path):
    rng = np.random.default_rng(77)
    chunks = [rng.normal(size=30_000), rng.exponential(size=20_000), rng.normal(3, 1, 25_000)]
    paths = []
    for i, c in enumerate(chunks):
        np.save(tmp_path / f"p{i}.npy", c)
        ok("build", tmp_path / f"p{i}.npy", "-o", tmp_path / f"p{i}.zd")
        paths.append(tmp_path / f"p{i}.zd")
    return chunks, paths


def test_merge_equals_building_from_the_concatenation(tmp_path, parts):
    chunks, paths = parts
    ok("merge", *paths, "--label", "all", "-o", tmp_path / "all.zd")
    data = np.concatenate(chunks)
    s = ok("summary", tmp_path / "all.zd", "--json").json()["digests"][0]
    assert (s["label"], s["data_points"]) == ("all", len(data))
    q = ok("quantile", tmp_path / "all.zd", *PROBS, "--json").json()["digests"][0]["quantiles"]
    err = rank_error(data, [e["value"] for e in q], PROBS)
    assert np.all(err < 1e-4 + 0.01 * np.array(PROBS) * (1 - np.array(PROBS))), err
    # and within bounds of a digest built from the whole data at once
    np.save(tmp_path / "all.npy", data)
    whole = ok("quantile", tmp_path / "all.npy", *PROBS, "--json").json()["digests"][0]
    assert [e["value"] for e in q] == pytest.approx([e["value"] for e in whole["quantiles"]],
                                                    abs=0.02)


def test_merging_into_one_of_the_inputs(tmp_path, parts):
    _, paths = parts
    ok("merge", paths[0], paths[1], "-o", paths[0])
    s = ok("summary", paths[0], "--json").json()["digests"][0]
    assert s["data_points"] == 50_000


def test_merge_of_different_delta_is_a_module_error(tmp_path):
    ok("build", "--delta", 50, "-o", tmp_path / "a.zd", stdin="1 2 3")
    ok("build", "--delta", 60, "-o", tmp_path / "b.zd", stdin="4 5")
    r = run("merge", tmp_path / "a.zd", tmp_path / "b.zd", "-o", tmp_path / "c.zd")
    assert r.rc == 1, r
    assert "stats:tdigest:MergeDeltaMismatch" in r.err
    assert not (tmp_path / "c.zd").exists()


def test_merge_by_column(tmp_path):
    a = np.arange(40.0).reshape(20, 2)
    np.save(tmp_path / "a.npy", a)
    np.save(tmp_path / "b.npy", a + 1000)
    ok("build", tmp_path / "a.npy", "--columns", "-o", tmp_path / "a.zd")
    ok("build", tmp_path / "b.npy", "--columns", "-o", tmp_path / "b.zd")
    ok("merge", "--by-column", tmp_path / "a.zd", tmp_path / "b.zd", "-o", tmp_path / "m.zd")
    s = ok("summary", tmp_path / "m.zd", "--json").json()["digests"]
    assert [(d["label"], d["data_points"], d["min"], d["max"]) for d in s] == [
        ("col0", 40, 0.0, 1038.0), ("col1", 40, 1.0, 1039.0)]
    # All digests into one without --by-column.
    ok("merge", tmp_path / "a.zd", tmp_path / "b.zd", "-o", tmp_path / "one.zd")
    assert ok("summary", tmp_path / "one.zd", "--json").json()["digests"][0]["data_points"] == 80


def test_merge_by_column_refuses_mismatches(tmp_path):
    np.save(tmp_path / "a.npy", np.zeros((5, 2)))
    np.save(tmp_path / "b.npy", np.zeros((5, 3)))
    ok("build", tmp_path / "a.npy", "--columns", "-o", tmp_path / "a.zd")
    ok("build", tmp_path / "b.npy", "--columns", "-o", tmp_path / "b.zd")
    ok("build", tmp_path / "a.npy", "--columns", "--delta", 7, "-o", tmp_path / "c.zd")
    r = run("merge", "--by-column", tmp_path / "a.zd", tmp_path / "b.zd", "-o", tmp_path / "m.zd")
    assert r.rc == 2 and "same number of digests" in r.err, r
    r = run("merge", "--by-column", tmp_path / "a.zd", tmp_path / "c.zd", "-o", tmp_path / "m.zd")
    assert r.rc == 1 and "stats:tdigest:MergeDeltaMismatch" in r.err, r


def test_merge_needs_digest_files(tmp_path):
    (tmp_path / "n.txt").write_text("1 2 3\n")
    r = run("merge", tmp_path / "n.txt", "-o", tmp_path / "m.zd")
    assert r.rc == 2 and "not a digest file" in r.err, r
