"""Merging digest files."""
import numpy as np
import pytest

from conftest import PROBS, assert_rank_accurate, ok, quantiles, run


def test_merge_equals_building_from_the_concatenation(tmp_path):
    rng = np.random.default_rng(77)
    chunks = [rng.normal(size=30_000), rng.exponential(size=20_000), rng.normal(3, 1, 25_000)]
    for i, c in enumerate(chunks):
        np.save(tmp_path / f"p{i}.npy", c)
        ok("build", tmp_path / f"p{i}.npy", "-o", tmp_path / f"p{i}.zd")
    parts = [tmp_path / f"p{i}.zd" for i in range(3)]
    ok("merge", *parts, "--label", "all", "-o", tmp_path / "all.zd")
    data = np.concatenate(chunks)
    s = ok("summary", tmp_path / "all.zd", "--json").json()["digests"][0]
    assert (s["label"], s["data_points"]) == ("all", len(data))
    q = quantiles(tmp_path / "all.zd")
    assert_rank_accurate(data, q)
    # and within bounds of a digest built from the whole data at once
    np.save(tmp_path / "all.npy", data)
    assert q == pytest.approx(quantiles(tmp_path / "all.npy"), abs=0.02)
    # Merging into one of the inputs replaces it.
    ok("merge", parts[0], parts[1], "-o", parts[0])
    assert ok("summary", parts[0], "--json").json()["digests"][0]["data_points"] == 50_000


def test_merge_by_column_and_its_refusals(tmp_path):
    a = np.arange(40.0).reshape(20, 2)
    for name, m, extra in [("a", a, []), ("b", a + 1000, []), ("c", np.zeros((5, 3)), []),
                           ("d", a, ["--delta", 7])]:
        np.save(tmp_path / f"{name}.npy", m)
        ok("build", tmp_path / f"{name}.npy", "--columns", *extra, "-o", tmp_path / f"{name}.zd")
    merge = ["merge", tmp_path / "a.zd"]
    ok(*merge, "--by-column", tmp_path / "b.zd", "-o", tmp_path / "m.zd")
    s = ok("summary", tmp_path / "m.zd", "--json").json()["digests"]
    assert [(d["label"], d["data_points"], d["min"], d["max"]) for d in s] == [
        ("col0", 40, 0.0, 1038.0), ("col1", 40, 1.0, 1039.0)]
    # All digests into one without --by-column.
    ok(*merge, tmp_path / "b.zd", "-o", tmp_path / "one.zd")
    assert ok("summary", tmp_path / "one.zd", "--json").json()["digests"][0]["data_points"] == 80
    r = run(*merge, "--by-column", tmp_path / "c.zd", "-o", tmp_path / "x.zd")
    assert r.rc == 2 and "same number of digests" in r.err, r
    for by_column in ([], ["--by-column"]):
        r = run(*merge, *by_column, tmp_path / "d.zd", "-o", tmp_path / "x.zd")
        assert r.rc == 1 and "stats:tdigest:MergeDeltaMismatch" in r.err, r
    assert not (tmp_path / "x.zd").exists()
