"""Asking a digest (or numbers summarised on the fly) questions. The digest
holds 150 values one apart, too few to share a centroid, so every answer is
known exactly: the tool must ask about the right numbers and print what the
module answers (the module's accuracy is tested with the module)."""
import numpy as np
import pytest

from conftest import ok, run


@pytest.fixture(scope="module")
def digest(tmp_path_factory):
    path = tmp_path_factory.mktemp("q")
    (path / "n.txt").write_text("\n".join(map(str, np.random.default_rng(1).permutation(150))))
    ok("build", path / "n.txt", "-o", path / "n.zd")
    return path / "n.zd"


def test_summary_describes_the_data(digest):
    s = ok("summary", digest, "--json").json()["digests"][0]
    assert (s["delta"], s["data_points"], s["centroids"], s["min"], s["max"], s["mean"]) == (
        100, 150, 150, 0, 149, 74.5)
    # Quantile q lies at rank 150 q - 1/2 among 0, 1, ..., 149.
    assert s["quantiles"] == pytest.approx({"p50": 74.5, "p90": 134.5, "p99": 148, "p99.9": 149.35}, rel=1e-12)
    names = [line.rsplit(None, 1)[0].strip() for line in ok("summary", digest).out.splitlines()]
    assert names == ["delta", "data points", "centroids", "min (first centroid)",
                     "max (last centroid)", "mean", "p50", "p90", "p99", "p99.9"]


def test_cdf_trimmed_mean_and_centroids(digest):
    x = [-1, 0, 0.5, 74, 149, 150]
    r = ok("cdf", digest, *x, "--json").json()["digests"][0]["cdf"]
    assert [e["x"] for e in r] == x
    assert [e["cdf"] for e in r] == pytest.approx([0, 0.5 / 150, 1 / 150, 74.5 / 150, 1, 1], rel=1e-12)
    r = ok("trimmed-mean", digest, 0, 0.1, "--json").json()["digests"][0]["trimmed_means"]
    assert [(e["trim"], e["mean"]) for e in r] == [(0, 74.5), (0.1, 74.5)]
    c = ok("centroids", digest, "--json").json()["digests"][0]["centroids"]
    assert [(e["mean"], e["count"]) for e in c] == [(k, 1) for k in range(150)]
    text = ok("centroids", digest).out.splitlines()
    assert text[0].split() == ["mean", "count"] and len(text) == len(c) + 1


def test_text_output_is_aligned_and_precision_applies(digest):
    lines = ok("quantile", digest, 0.1, 0.5, 0.999).out.splitlines()
    assert lines[0].split() == ["p", "value"] and len({len(line) for line in lines}) == 1  # aligned
    exact = ok("quantile", digest, 0.5, "--precision", 0).out.splitlines()[1].split()[1]
    js = ok("quantile", digest, 0.5, "--json").json()["digests"][0]["quantiles"][0]["value"]
    assert float(exact) == js  # precision 0: the shortest text that reads back exactly


def test_numbers_are_queried_directly_without_a_digest_file(tmp_path, text_file):
    ok("build", text_file, "--seed", 5, "--delta", 50, "-o", tmp_path / "d.zd")
    from_file = ok("quantile", tmp_path / "d.zd", 0.2, 0.8, "--json").json()
    args = ["quantile", text_file, 0.2, 0.8, "--seed", 5, "--delta", 50, "--json"]
    assert from_file == ok(*args).json()


def test_multi_digest_files_answer_per_digest_and_digest_selects(tmp_path):
    np.save(tmp_path / "m.npy", np.arange(30.0).reshape(10, 3))
    ok("build", tmp_path / "m.npy", "--columns", "--label", "m", "-o", tmp_path / "m.zd")
    lines = [line.split() for line in ok("quantile", tmp_path / "m.zd", 1).out.splitlines()]
    assert lines == [["label", "p=1"], ["m.col0", "27"], ["m.col1", "28"], ["m.col2", "29"]]
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
