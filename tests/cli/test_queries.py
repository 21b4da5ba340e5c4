"""Asking a digest (or numbers summarised on the fly) questions."""
import numpy as np
import pytest

from conftest import ok, rank_error, run


@pytest.fixture
def digest(tmp_path, text_file):
    path = tmp_path / "n.zd"
    ok("build", text_file, "-o", path)
    return path


def test_summary_bounds_the_data(digest, normal_data):
    s = ok("summary", digest, "--json").json()["digests"][0]
    assert s["delta"] == 100
    assert s["data_points"] == len(normal_data)
    assert 0 < s["centroids"] <= 2000
    # The first and last centroid means lie inside the data's range.
    assert normal_data.min() <= s["min"] <= np.quantile(normal_data, 0.001)
    assert np.quantile(normal_data, 0.999) <= s["max"] <= normal_data.max()
    assert s["mean"] == pytest.approx(normal_data.mean(), abs=1e-9)
    p = {"p50": 0.5, "p90": 0.9, "p99": 0.99, "p99.9": 0.999}
    err = rank_error(normal_data, [s["quantiles"][k] for k in p], list(p.values()))
    assert np.all(err < 2e-3), err


def test_summary_text_lists_every_field(digest):
    lines = ok("summary", digest).out.splitlines()
    names = [line.rsplit(None, 1)[0].strip() for line in lines]
    assert names == ["delta", "data points", "centroids", "min (first centroid)",
                     "max (last centroid)", "mean", "p50", "p90", "p99", "p99.9"]


def test_cdf_matches_the_empirical_cdf(digest, normal_data):
    x = [-3, -1, -0.1, 0, 0.5, 2, 4]
    r = ok("cdf", digest, *x, "--json").json()["digests"][0]["cdf"]
    got = np.array([e["cdf"] for e in r])
    assert [e["x"] for e in r] == x
    want = np.searchsorted(np.sort(normal_data), x) / len(normal_data)
    assert np.all(np.abs(got - want) < 2e-3), got - want
    assert np.all(np.diff(got) >= 0)


def test_quantile_and_cdf_are_inverse(digest):
    p = [0.05, 0.3, 0.5, 0.7, 0.95]
    q = [e["value"] for e in ok("quantile", digest, *p, "--json").json()["digests"][0]["quantiles"]]
    back = [e["cdf"] for e in ok("cdf", digest, *q, "--json").json()["digests"][0]["cdf"]]
    assert back == pytest.approx(p, abs=1e-3)


def test_trimmed_means(digest, normal_data):
    r = ok("trimmed-mean", digest, 0, 0.1, 0.25, "--json").json()["digests"][0]["trimmed_means"]
    s = np.sort(normal_data)
    n = len(s)
    assert r[0]["mean"] == pytest.approx(s.mean(), abs=1e-9)
    for e in r[1:]:
        k = int(n * e["trim"])
        assert e["mean"] == pytest.approx(s[k:n - k].mean(), abs=5e-3)


def test_centroids_are_ordered_and_count_everything(digest, normal_data):
    c = ok("centroids", digest, "--json").json()["digests"][0]["centroids"]
    means = [e["mean"] for e in c]
    assert means == sorted(means)
    assert sum(e["count"] for e in c) == len(normal_data)
    text = ok("centroids", digest).out.splitlines()
    assert text[0].split() == ["mean", "count"] and len(text) == len(c) + 1


def test_text_output_is_aligned_and_precision_applies(digest):
    lines = ok("quantile", digest, 0.1, 0.5, 0.999).out.splitlines()
    assert lines[0].split() == ["p", "value"]
    assert len({len(line) for line in lines}) == 1  # right-aligned column
    exact = ok("quantile", digest, 0.5, "--precision", 0).out.splitlines()[1].split()[1]
    js = ok("quantile", digest, 0.5, "--json").json()["digests"][0]["quantiles"][0]["value"]
    assert float(exact) == js
    short = ok("quantile", digest, 0.5, "--precision", 3).out.splitlines()[1].split()[1]
    assert len(short.replace("-", "").replace(".", "").lstrip("0")) <= 3


def test_numbers_are_queried_directly_without_a_digest_file(tmp_path, text_file):
    ok("build", text_file, "--seed", 5, "--delta", 50, "-o", tmp_path / "d.zd")
    from_file = ok("quantile", tmp_path / "d.zd", 0.2, 0.8, "--json").json()
    direct = ok("quantile", text_file, 0.2, 0.8, "--seed", 5, "--delta", 50, "--json").json()
    assert from_file == direct


def test_multi_digest_files_answer_per_digest_and_digest_selects(tmp_path):
    np.save(tmp_path / "m.npy", np.arange(30.0).reshape(10, 3))
    ok("build", tmp_path / "m.npy", "--columns", "--label", "m", "-o", tmp_path / "m.zd")
    lines = ok("quantile", tmp_path / "m.zd", 1).out.splitlines()
    assert lines[0].split() == ["p", "m.col0", "m.col1", "m.col2"]
    assert lines[1].split() == ["1", "27", "28", "29"]
    one = ok("summary", tmp_path / "m.zd", "--digest", 2, "--json").json()["digests"]
    assert [(d["label"], d["min"]) for d in one] == [("m.col2", 2.0)]
    r = run("summary", tmp_path / "m.zd", "--digest", 3)
    assert r.rc == 2 and "out of range" in r.err, r


def test_empty_digest_answers_nan_quantiles(tmp_path):
    ok("build", "-o", tmp_path / "e.zd", stdin="")
    s = ok("summary", tmp_path / "e.zd", "--json").json()["digests"][0]
    assert (s["data_points"], s["centroids"], s["min"], s["mean"]) == (0, 0, None, None)
    assert set(s["quantiles"].values()) == {None}
    assert "NaN" in ok("quantile", tmp_path / "e.zd", 0.5).out
