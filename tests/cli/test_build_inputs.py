"""Building digests from text, standard input, .npy and raw binary input."""
import io

import numpy as np
import pytest
from numpy.lib import format as npformat

from conftest import ok, rank_error, run

PROBS = [0.001, 0.01, 0.1, 0.25, 0.5, 0.75, 0.9, 0.99, 0.999]
DTYPES = ["float64", "float32", "int8", "uint8", "int16", "uint16", "int32", "uint32", "int64",
          "uint64"]


def rank_bound(p):
    # t-digest keeps the tails tight and the middle looser.
    p = np.asarray(p)
    return 1e-4 + 0.01 * p * (1 - p)


def quantiles(*args, **kw):
    r = ok("quantile", *args, *PROBS, "--json", **kw)
    return [q["value"] for q in r.json()["digests"][0]["quantiles"]]


def values_for(dtype, n=3000):
    """Values representable in the dtype, the same doubles in every class."""
    i = np.arange(n)
    if dtype.startswith("float"):
        return ((i * 37 % 1000) - 500) / 8.0
    if dtype.startswith("uint"):
        return (i * 37 % 251).astype(np.float64)
    return ((i * 37 % 251) - 125).astype(np.float64)


def test_text_file_quantiles_match_numpy(text_file, normal_data):
    err = rank_error(normal_data, quantiles(text_file), PROBS)
    assert np.all(err <= rank_bound(PROBS)), err


def test_stdin_and_file_give_the_same_digest_with_a_seed(tmp_path, text_file):
    ok("build", text_file, "--seed", 9, "-o", tmp_path / "a.zd")
    ok("build", "--seed", 9, "-o", tmp_path / "b.zd", stdin=text_file.read_text())
    ok("build", "-", "--seed", 9, "-o", tmp_path / "c.zd", stdin=text_file.read_text())
    a = (tmp_path / "a.zd").read_bytes()
    assert a == (tmp_path / "b.zd").read_bytes() == (tmp_path / "c.zd").read_bytes()


def test_text_separators_comments_and_special_values():
    text = "# header line\n1 2\t3\n\n4\r\n5  # 99 98\n+6 nan inf\n"
    s = ok("summary", "--json", stdin=text).json()["digests"][0]
    # NaN is dropped by the digest; +Inf is a value like any other.
    assert s["data_points"] == 7
    assert s["min"] == 1.0
    assert s["max"] is None  # +Inf has no JSON spelling


def test_several_text_files_make_one_digest(tmp_path):
    (tmp_path / "a.txt").write_text("1 2 3\n")
    (tmp_path / "b.txt").write_text("4 5\n")
    s = ok("summary", "--json", tmp_path / "a.txt", tmp_path / "b.txt").json()["digests"][0]
    assert (s["data_points"], s["min"], s["max"]) == (5, 1.0, 5.0)


def test_a_token_across_the_read_buffer_is_parsed_whole(tmp_path):
    # 1 MiB buffers: put numbers across many buffer ends.
    values = np.arange(400_000) * 1.0000001
    path = tmp_path / "long.txt"
    path.write_text(" ".join(repr(v) for v in values))
    s = ok("summary", "--json", path).json()["digests"][0]
    assert s["data_points"] == len(values)
    assert s["min"] == values[0] and s["max"] == values[-1]


@pytest.mark.parametrize("dtype", DTYPES)
def test_npy_of_every_dtype_equals_the_same_numbers_as_text(tmp_path, dtype):
    # Every class is read as the same doubles, so with one seed the files
    # are byte for byte the same.
    v = values_for(dtype)
    np.save(tmp_path / "x.npy", v.astype(dtype))
    (tmp_path / "x.txt").write_text("\n".join(repr(float(a)) for a in v))
    ok("build", tmp_path / "x.npy", "--seed", 4, "-o", tmp_path / "npy.zd")
    ok("build", tmp_path / "x.txt", "--seed", 4, "-o", tmp_path / "txt.zd")
    assert (tmp_path / "npy.zd").read_bytes() == (tmp_path / "txt.zd").read_bytes()


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("order", ["C", "F"])
def test_2d_npy_without_columns_reads_every_element_in_file_order(tmp_path, dtype, order):
    m = values_for(dtype, 3000).reshape(1000, 3).astype(dtype)
    np.save(tmp_path / "m.npy", np.asfortranarray(m) if order == "F" else m)
    flat = m.flatten(order=order).astype(np.float64)
    (tmp_path / "m.txt").write_text("\n".join(repr(float(a)) for a in flat))
    ok("build", tmp_path / "m.npy", "--seed", 2, "-o", tmp_path / "npy.zd")
    ok("build", tmp_path / "m.txt", "--seed", 2, "-o", tmp_path / "txt.zd")
    assert (tmp_path / "npy.zd").read_bytes() == (tmp_path / "txt.zd").read_bytes()


@pytest.mark.parametrize("dtype", DTYPES)
def test_raw_input_equals_npy_input(tmp_path, dtype):
    v = values_for(dtype).astype(dtype)
    v.tofile(tmp_path / "x.raw")
    np.save(tmp_path / "x.npy", v)
    ok("build", tmp_path / "x.raw", "--dtype", dtype, "--seed", 6, "-o", tmp_path / "raw.zd")
    ok("build", tmp_path / "x.npy", "--seed", 6, "-o", tmp_path / "npy.zd")
    assert (tmp_path / "raw.zd").read_bytes() == (tmp_path / "npy.zd").read_bytes()


def test_raw_from_stdin(normal_data):
    v = normal_data.astype("<f4")
    got = quantiles("-", "--dtype", "float32", stdin=v.tobytes())
    err = rank_error(v.astype(np.float64), got, PROBS)
    assert np.all(err <= rank_bound(PROBS)), err


@pytest.mark.parametrize("version", [(1, 0), (2, 0), (3, 0)])
def test_npy_format_versions(tmp_path, version):
    v = np.arange(1000, dtype="<i4")
    with open(tmp_path / "v.npy", "wb") as f:
        npformat.write_array(f, v, version=version)
    s = ok("summary", "--json", tmp_path / "v.npy").json()["digests"][0]
    assert (s["data_points"], s["min"], s["max"]) == (1000, 0.0, 999.0)


def test_npy_from_stdin_is_detected_by_its_magic():
    buf = io.BytesIO()
    np.save(buf, np.arange(10, dtype="<u2"))
    s = ok("summary", "--json", "-", stdin=buf.getvalue()).json()["digests"][0]
    assert s["data_points"] == 10


@pytest.mark.parametrize(
    "array, message",
    [
        (np.arange(5, dtype=">f8"), "big-endian"),
        (np.arange(5, dtype=">i4"), "big-endian"),
        (np.arange(5).astype(complex), "'<c16' is not supported"),
        (np.arange(5) > 2, "'|b1' is not supported"),
        (np.arange(5, dtype="<f2"), "'<f2' is not supported"),
        (np.zeros(3, dtype=[("a", "<f8"), ("b", "<i4")]), "structured dtypes"),
    ],
)
def test_unsupported_npy_dtypes_are_refused_clearly(tmp_path, array, message):
    np.save(tmp_path / "bad.npy", array)
    r = run("build", tmp_path / "bad.npy", "-o", tmp_path / "out.zd")
    assert r.rc == 2, r
    assert message in r.err
    assert not (tmp_path / "out.zd").exists()


def test_truncated_npy_is_refused(tmp_path):
    np.save(tmp_path / "t.npy", np.arange(1000, dtype="<f8"))
    data = (tmp_path / "t.npy").read_bytes()
    (tmp_path / "t.npy").write_bytes(data[:-9])
    r = run("summary", tmp_path / "t.npy")
    assert r.rc == 2 and "truncated" in r.err, r
    r = run("summary", "-", stdin=data[:-9])
    assert r.rc == 2 and "end early" in r.err, r


def test_raw_input_of_a_partial_element_is_refused(tmp_path):
    (tmp_path / "x.raw").write_bytes(b"\0" * 12)
    r = run("summary", tmp_path / "x.raw", "--dtype", "float64")
    assert r.rc == 2 and "not a whole number of elements" in r.err, r
    r = run("summary", "-", "--dtype", "float64", stdin=b"\0" * 12)
    assert r.rc == 2 and "partial element" in r.err, r


# --- one digest per column ---------------------------------------------------


def column_summaries(path, *extra):
    return ok("summary", "--json", path, *extra).json()["digests"]


def test_columns_match_numpy_per_column(tmp_path):
    m = np.random.default_rng(3).normal(size=(50_000, 4)) * [1, 10, 100, 1000]
    np.save(tmp_path / "m.npy", m)
    ok("build", tmp_path / "m.npy", "--columns", "-o", tmp_path / "m.zd")
    got = ok("quantile", tmp_path / "m.zd", *PROBS, "--json").json()["digests"]
    assert [d["label"] for d in got] == ["col0", "col1", "col2", "col3"]
    for c, d in enumerate(got):
        err = rank_error(m[:, c], [q["value"] for q in d["quantiles"]], PROBS)
        assert np.all(err <= rank_bound(PROBS)), (c, err)


@pytest.mark.parametrize("rows", [1000, 700_000])
def test_columns_with_a_seed_do_not_depend_on_memory_order(tmp_path, rows):
    # 700000 x 2 exceeds one chunk: C order is read in bands, F order in
    # pieces of a column; both cut the same pieces.
    m = np.random.default_rng(rows).normal(size=(rows, 2)).astype("<f4")
    np.save(tmp_path / "c.npy", m)
    np.save(tmp_path / "f.npy", np.asfortranarray(m))
    ok("build", tmp_path / "c.npy", "--columns", "--seed", 8, "-o", tmp_path / "c.zd")
    ok("build", tmp_path / "f.npy", "--columns", "--seed", 8, "-o", tmp_path / "f.zd")
    assert (tmp_path / "c.zd").read_bytes() == (tmp_path / "f.zd").read_bytes()
    assert [s["data_points"] for s in column_summaries(tmp_path / "c.zd")] == [rows, rows]


def test_first_column_with_a_seed_equals_the_column_alone(tmp_path):
    m = np.random.default_rng(5).normal(size=(2000, 3))
    np.save(tmp_path / "m.npy", m)
    np.save(tmp_path / "c0.npy", np.ascontiguousarray(m[:, 0]))
    ok("build", tmp_path / "m.npy", "--columns", "--seed", 1, "-o", tmp_path / "m.zd")
    ok("build", tmp_path / "c0.npy", "--seed", 1, "-o", tmp_path / "c0.zd")
    a = ok("centroids", tmp_path / "m.zd", "--digest", 0, "--json").json()["digests"][0]
    b = ok("centroids", tmp_path / "c0.zd", "--json").json()["digests"][0]
    assert a["centroids"] == b["centroids"]


def test_columns_of_a_1d_array_and_of_zero_rows(tmp_path):
    np.save(tmp_path / "v.npy", np.arange(10.0))
    assert [s["data_points"] for s in column_summaries(tmp_path / "v.npy", "--columns")] == [10]
    np.save(tmp_path / "e.npy", np.zeros((0, 3)))
    empty = column_summaries(tmp_path / "e.npy", "--columns")
    assert [s["data_points"] for s in empty] == [0, 0, 0]
    assert all(s["min"] is None for s in empty)


def test_columns_need_npy_with_at_most_two_dimensions(tmp_path):
    np.save(tmp_path / "cube.npy", np.zeros((2, 2, 2)))
    r = run("build", tmp_path / "cube.npy", "--columns", "-o", tmp_path / "o.zd")
    assert r.rc == 2 and "1-D or 2-D" in r.err, r
    r = run("build", "--columns", "--format", "text", "-o", tmp_path / "o.zd", stdin="1 2")
    assert r.rc == 2 and "--columns" in r.err, r
    s = ok("summary", "--json", tmp_path / "cube.npy").json()["digests"][0]
    assert s["data_points"] == 8  # without --columns every element counts


def test_columns_of_several_files_accumulate(tmp_path):
    a = np.arange(20.0).reshape(10, 2)
    np.save(tmp_path / "a.npy", a)
    np.save(tmp_path / "b.npy", a + 100)
    np.save(tmp_path / "w.npy", np.zeros((4, 3)))
    s = column_summaries(tmp_path / "a.npy", tmp_path / "b.npy", "--columns")
    assert [(d["data_points"], d["min"], d["max"]) for d in s] == [(20, 0, 118), (20, 1, 119)]
    r = run("summary", tmp_path / "a.npy", tmp_path / "w.npy", "--columns")
    assert r.rc == 2 and "same number of columns" in r.err, r
