"""Building digests from text, standard input, .npy and raw binary input,
and one digest per column."""
import io

import numpy as np
import pytest
from numpy.lib import format as npformat

from conftest import assert_rank_accurate, ok, quantiles, run

DTYPES = ["float64", "float32", "int8", "uint8", "int16", "uint16", "int32", "uint32", "int64",
          "uint64"]


def npy_bytes(array, **kw):
    buf = io.BytesIO()
    npformat.write_array(buf, array, **kw)
    return buf.getvalue()


class Stdin(bytes):
    """What a build reads from standard input, last in its arguments."""


def same_digest(tmp_path, *builds):
    """Builds from each argument list with one seed: the files are equal."""
    files = []
    for i, args in enumerate(builds):
        stdin = args.pop() if isinstance(args[-1], Stdin) else None
        ok("build", *args, "--seed", 4, "-o", tmp_path / f"{i}.zd", stdin=stdin)
        files.append((tmp_path / f"{i}.zd").read_bytes())
    assert all(f == files[0] for f in files)


def test_text_file_quantiles_match_numpy(text_file, normal_data):
    assert_rank_accurate(normal_data, quantiles(text_file))


def test_standard_input_gives_the_digest_of_the_file(tmp_path, text_file, normal_data):
    text = Stdin(text_file.read_bytes())
    same_digest(tmp_path, [text_file], [text], ["-", text])
    f4 = normal_data.astype("<f4")
    f4.tofile(tmp_path / "x.raw")
    (tmp_path / "x.npy").write_bytes(npy_bytes(f4, version=(2, 0)))
    # .npy is found by its magic number, in every format version
    same_digest(tmp_path, [tmp_path / "x.raw", "--dtype", "float32"],
                ["-", "--dtype", "float32", Stdin(f4.tobytes())], [tmp_path / "x.npy"],
                ["-", Stdin(npy_bytes(f4, version=(1, 0)))],
                ["-", Stdin(npy_bytes(f4, version=(3, 0)))])


def test_text_separators_comments_special_values_and_several_files(tmp_path):
    text = "# header line\n1 2\t3\n\n4\r\n5  # 99 98\n+6 nan inf\n"
    s = ok("summary", "--json", stdin=text).json()["digests"][0]
    # NaN is dropped by the digest; +Inf is a value with no JSON spelling.
    assert (s["data_points"], s["min"], s["max"]) == (7, 1.0, None)
    (tmp_path / "a.txt").write_text("1 2 3\n")
    (tmp_path / "b.txt").write_text("4 5")
    s = ok("summary", "--json", tmp_path / "a.txt", tmp_path / "b.txt").json()["digests"][0]
    assert (s["data_points"], s["min"], s["max"]) == (5, 1.0, 5.0)


def test_a_token_across_the_read_buffer_is_parsed_whole(tmp_path):
    values = np.arange(400_000) * 1.0000001  # numbers across many 1 MiB buffer ends
    (tmp_path / "long.txt").write_text(" ".join(repr(v) for v in values))
    s = ok("summary", "--json", tmp_path / "long.txt").json()["digests"][0]
    assert (s["data_points"], s["min"], s["max"]) == (len(values), values[0], values[-1])


@pytest.mark.parametrize("dtype", DTYPES)
def test_every_dtype_format_and_memory_order_reads_the_same_numbers(tmp_path, dtype):
    # Values the dtype holds exactly; every class is read as the same
    # doubles, in file order, so with one seed the files are byte for byte
    # the same.
    i = np.arange(3000)
    if dtype[0] == "f":
        v = ((i * 37 % 1000) - 500) / 8.0
    else:  # 0..250, shifted to -125..125 for the signed types
        v = (i * 37 % 251) - (125.0 if dtype[0] == "i" else 0.0)
    x = v.astype(dtype)
    x.tofile(tmp_path / "x.raw")
    (tmp_path / "x.txt").write_text("\n".join(repr(float(a)) for a in v))
    np.save(tmp_path / "x.npy", x)
    np.save(tmp_path / "c.npy", x.reshape(1000, 3))
    np.save(tmp_path / "f.npy", x.reshape(3, 1000).T)  # Fortran order, file order v
    same_digest(tmp_path, [tmp_path / "x.txt"], [tmp_path / "x.raw", "--dtype", dtype],
                [tmp_path / "x.npy"], [tmp_path / "c.npy"], [tmp_path / "f.npy"])


def test_damaged_or_unsupported_numbers_are_refused_with_exit_2(tmp_path):
    # The refusals of each unsupported dtype are in the readers' unit tests.
    cut = npy_bytes(np.arange(1000, dtype="<f8"))[:-9]
    (tmp_path / "t.npy").write_bytes(cut)
    (tmp_path / "x.raw").write_bytes(b"\0" * 12)
    np.save(tmp_path / "big.npy", np.arange(5, dtype=">f8"))
    for args, stdin, message in [
        ([tmp_path / "t.npy"], None, "truncated"), (["-"], cut, "end early"),
        ([tmp_path / "x.raw", "--dtype", "float64"], None, "not a whole number of elements"),
        (["-", "--dtype", "float64"], b"\0" * 12, "partial element"),
        ([tmp_path / "big.npy"], None, "big-endian"),
    ]:
        r = run("build", *args, "-o", tmp_path / "out.zd", stdin=stdin)
        assert r.rc == 2 and message in r.err, r
        assert not (tmp_path / "out.zd").exists()


# --- one digest per column ---------------------------------------------------


def test_columns_with_a_seed_do_not_depend_on_memory_order(tmp_path):
    # 700000 x 2 exceeds one chunk: C order is read in bands, F order in
    # pieces of a column; both cut the same pieces.
    m = np.random.default_rng(7).normal(size=(700_000, 2)).astype("<f4")
    np.save(tmp_path / "c.npy", m)
    np.save(tmp_path / "f.npy", np.asfortranarray(m))
    for name in ["c", "f"]:
        ok("build", tmp_path / f"{name}.npy", "--columns", "--seed", 8, "-o",
           tmp_path / f"{name}.zd")
    assert (tmp_path / "c.zd").read_bytes() == (tmp_path / "f.zd").read_bytes()


def test_first_column_with_a_seed_equals_the_column_alone(tmp_path):
    m = np.random.default_rng(5).normal(size=(2000, 3))
    np.save(tmp_path / "m.npy", m)
    np.save(tmp_path / "c0.npy", np.ascontiguousarray(m[:, 0]))
    ok("build", tmp_path / "m.npy", "--columns", "--seed", 1, "-o", tmp_path / "m.zd")
    ok("build", tmp_path / "c0.npy", "--seed", 1, "-o", tmp_path / "c0.zd")
    a = ok("centroids", tmp_path / "m.zd", "--digest", 0, "--json").json()["digests"][0]
    assert a["centroids"] == ok("centroids", tmp_path / "c0.zd", "--json").json()["digests"][0][
        "centroids"]


def test_columns_of_1d_empty_several_and_3d_arrays(tmp_path):
    def points(*paths):
        digests = ok("summary", "--json", *paths, "--columns").json()["digests"]
        return [(d["data_points"], d["min"], d["max"]) for d in digests]

    for name, array in [("v", np.arange(10.0)), ("e", np.zeros((0, 3))),
                        ("a", np.arange(20.0).reshape(10, 2)),
                        ("b", np.arange(20.0).reshape(10, 2) + 100), ("cube", np.zeros((2, 2, 2)))]:
        np.save(tmp_path / f"{name}.npy", array)
    assert points(tmp_path / "v.npy") == [(10, 0, 9)]
    assert points(tmp_path / "e.npy") == [(0, None, None)] * 3
    assert points(tmp_path / "a.npy", tmp_path / "b.npy") == [(20, 0, 118), (20, 1, 119)]
    for args, message in [([tmp_path / "a.npy", tmp_path / "e.npy"], "same number of columns"),
                          ([tmp_path / "cube.npy"], "1-D or 2-D"),
                          (["--format", "text"], "--columns")]:
        r = run("summary", *args, "--columns", stdin="1 2")
        assert r.rc == 2 and message in r.err, r
    # Without --columns every element counts.
    assert ok("summary", "--json", tmp_path / "cube.npy").json()["digests"][0]["data_points"] == 8
