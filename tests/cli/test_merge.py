"""Merging digest files."""
import numpy as np

from conftest import ok, run


def test_merge_is_accurate_for_the_concatenation_and_may_replace_an_input(tmp_path):
    rng = np.random.default_rng(77)
    chunks = [rng.normal(size=30_000), rng.exponential(size=20_000), rng.normal(3, 1, 25_000)]
    for i, c in enumerate(chunks):
        np.save(tmp_path / f"p{i}.npy", c)
        ok("build", f"p{i}.npy", "-o", f"p{i}.zd", cwd=tmp_path)
    ok("merge", "p0.zd", "p1.zd", "p2.zd", "--label", "all", "-o", "all.zd", cwd=tmp_path)
    s = ok("summary", tmp_path / "all.zd", "--json").json()["digests"][0]
    assert (s["label"], s["data_points"]) == ("all", 75_000)
    # The median's rank is near a half (the accuracy suite is the module's).
    data = np.sort(np.concatenate(chunks))
    assert abs(data.searchsorted(s["quantiles"]["p50"]) / data.size - 0.5) < 0.005
    ok("merge", "p0.zd", "p1.zd", "-o", "p0.zd", cwd=tmp_path)
    assert ok("summary", tmp_path / "p0.zd", "--json").json()["digests"][0]["data_points"] == 50_000


def test_merge_by_column_and_its_refusals(tmp_path):
    a = np.arange(40.0).reshape(20, 2)
    for name, m, extra in [("a", a, []), ("b", a + 1000, []), ("c", np.zeros((5, 3)), []),
                           ("d", a, ["--delta", 7])]:
        np.save(tmp_path / f"{name}.npy", m)
        ok("build", f"{name}.npy", "--columns", *extra, "-o", f"{name}.zd", cwd=tmp_path)

    def merged(*args):
        ok("merge", "a.zd", *args, "-o", "m.zd", cwd=tmp_path)
        digests = ok("summary", tmp_path / "m.zd", "--json").json()["digests"]
        return [(d["label"], d["data_points"], d["min"], d["max"]) for d in digests]

    assert merged("--by-column", "b.zd") == [("col0", 40, 0, 1038), ("col1", 40, 1, 1039)]
    assert [d[1] for d in merged("b.zd")] == [80]  # all digests into one without --by-column
    r = run("merge", "a.zd", "--by-column", "c.zd", "-o", "x.zd", cwd=tmp_path)
    assert r.rc == 2 and "same number of digests" in r.err, r
    for by_column in ([], ["--by-column"]):
        r = run("merge", "a.zd", *by_column, "d.zd", "-o", "x.zd", cwd=tmp_path)
        assert r.rc == 1 and "stats:tdigest:MergeDeltaMismatch" in r.err, r
    assert not (tmp_path / "x.zd").exists()
