"""Building digests from text, standard input, .npy and raw binary input of
every dtype, and one digest per column."""
import io

import numpy as np
import pytest
from numpy.lib import format as npformat

from conftest import ok, run

DTYPES = ["float64", "float32", "int8", "uint8", "int16", "uint16", "int32", "uint32", "int64",
          "uint64"]


def npy_bytes(array, version):
    buf = io.BytesIO()
    npformat.write_array(buf, array, version=version)
    return buf.getvalue()


@pytest.mark.parametrize("dtype", DTYPES)
def test_every_format_dtype_memory_order_and_pipe_reads_the_same_numbers(tmp_path, dtype):
    # Values the dtype holds exactly; every source is read as the same
    # doubles in file order, so with one seed the files are byte for byte the
    # same. .npy is found by its magic number, in every format version.
    i = np.arange(3000)
    if dtype[0] == "f":
        v = ((i * 37 % 1000) - 500) / 8.0
    else:  # 0..250, shifted to -125..125 for the signed types
        v = (i * 37 % 251) - (125.0 if dtype[0] == "i" else 0.0)
    x, text = v.astype(dtype), "\n".join(repr(float(a)) for a in v)
    x.tofile(tmp_path / "x.raw")
    (tmp_path / "x.txt").write_text(text)
    (tmp_path / "x.npy").write_bytes(npy_bytes(x, (2, 0)))
    np.save(tmp_path / "c.npy", x.reshape(1000, 3))
    np.save(tmp_path / "f.npy", x.reshape(3, 1000).T)  # Fortran order, file order v

    def built(*args, stdin=None):
        ok("build", *args, "--seed", 4, "-o", "out.zd", stdin=stdin, cwd=tmp_path)
        return (tmp_path / "out.zd").read_bytes()

    assert len({built("x.txt"), built("x.raw", "--dtype", dtype), built("x.npy"), built("c.npy"),
                built("f.npy"), built(stdin=text), built("-", "--dtype", dtype, stdin=x.tobytes()),
                built("-", stdin=npy_bytes(x, (1, 0))),
                built("-", stdin=npy_bytes(x, (3, 0)))}) == 1
    summary = ok("summary", "out.zd", "--json", cwd=tmp_path).json()["digests"][0]
    assert summary["data_points"] == 3000


def test_several_text_files_are_read_as_one(tmp_path):  # the text syntax: cli_unit_test
    (tmp_path / "a.txt").write_text("1 2 3\n4 5\n")
    (tmp_path / "b.txt").write_text("6 nan inf")
    s = ok("summary", "--json", "a.txt", "b.txt", cwd=tmp_path).json()["digests"][0]
    # NaN is dropped by the digest; +Inf is a value with no JSON spelling.
    assert (s["data_points"], s["min"], s["max"]) == (7, 1.0, None)


def test_a_large_text_file_is_read_across_buffers_and_a_bad_token_named_by_line(tmp_path):
    values = np.arange(400_000) * 1.0000001  # numbers across many 1 MiB buffer ends
    lines, path = [repr(v) for v in values], tmp_path / "big.txt"
    path.write_text("\n".join(lines))
    s = ok("summary", "--json", path).json()["digests"][0]
    assert (s["data_points"], s["min"], s["max"]) == (len(values), values[0], values[-1])
    lines[350_000] = "12..5"
    path.write_text("\n".join(lines))
    r = run("summary", path)
    assert r.rc == 2 and f"{path}, line 350001: '12..5'" in r.err, r


def test_damaged_numbers_are_refused_with_exit_2_and_no_output(tmp_path):
    # The refusals of each unsupported dtype are in the readers' unit tests.
    cut = npy_bytes(np.arange(1000, dtype="<f8"), (1, 0))[:-9]
    (tmp_path / "t.npy").write_bytes(cut)
    (tmp_path / "x.raw").write_bytes(b"\0" * 12)
    for args, stdin, message in [
        ([tmp_path / "t.npy"], None, "truncated"), (["-"], cut, "end early"),
        ([tmp_path / "x.raw", "--dtype", "float64"], None, "not a whole number of elements"),
        (["-", "--dtype", "float64"], b"\0" * 12, "partial element"),
    ]:
        r = run("build", *args, "-o", tmp_path / "out.zd", stdin=stdin)
        assert r.rc == 2 and message in r.err and not (tmp_path / "out.zd").exists(), r


def test_columns_with_a_seed_do_not_depend_on_memory_order(tmp_path):
    # 700000 x 2 exceeds one chunk: C order is read in bands, F order in
    # pieces of a column; both cut the same pieces.
    m = np.random.default_rng(7).normal(size=(700_000, 2)).astype("<f4")
    np.save(tmp_path / "c.npy", m)
    np.save(tmp_path / "f.npy", np.asfortranarray(m))
    for name in ["c", "f"]:
        ok("build", f"{name}.npy", "--columns", "--seed", 8, "-o", f"{name}.zd", cwd=tmp_path)
    assert (tmp_path / "c.zd").read_bytes() == (tmp_path / "f.zd").read_bytes()


def test_columns_of_1d_empty_several_and_3d_arrays(tmp_path):
    def points(*args):
        digests = ok("summary", "--json", *args, cwd=tmp_path).json()["digests"]
        return [(d["data_points"], d["min"], d["max"]) for d in digests]

    a = np.arange(20.0).reshape(10, 2)
    for name, array in [("v", np.arange(10.0)), ("e", np.zeros((0, 3))), ("a", a), ("b", a + 100),
                        ("cube", np.zeros((2, 2, 2)))]:
        np.save(tmp_path / f"{name}.npy", array)
    assert points("v.npy", "--columns") == [(10, 0, 9)]
    assert points("e.npy", "--columns") == [(0, None, None)] * 3
    assert points("a.npy", "b.npy", "--columns") == [(20, 0, 118), (20, 1, 119)]
    for args, message in [(["a.npy", "e.npy"], "same number of columns"),
                          (["cube.npy"], "1-D or 2-D"), (["--format", "text"], "--columns")]:
        r = run("summary", *args, "--columns", stdin="1 2", cwd=tmp_path)
        assert r.rc == 2 and message in r.err, r
    assert points("cube.npy") == [(8, 0, 0)]  # without --columns every element counts
