"""CSV and TSV tables: the dialect as a user's files spell it, one digest
per key or column, and queries of files of many digests.

A table's digest must be the digest of its column's numbers in file order:
the same file bytes as `zotdigest build` of those numbers as text."""
import gzip
import json
import subprocess

import numpy as np
import pytest

from conftest import TOOL, ok, run, tool_env

QUOTED = b'k,v\n"x,y",1\n"he said ""hi""",2\n"two\nlines",3\n"k",4\n'
DIALECTS = [  # name, content, options, the numbers read
    ("t.csv", b"a,b\n1,2\n3,4\n", ["--column", "b"], [2, 4]),
    ("t.csv", b"\xef\xbb\xbfa,b\r\n1,2\r\n3,4\r\n", ["--column", "a"], [1, 3]),
    ("t.csv", QUOTED, ["--column", "v"], [1, 2, 3, 4]),
    ("t.csv", b'"v","w"\n"1.5",x\n" 2 ",y\n+3,z', ["--column", "v"], [1.5, 2, 3]),
    ("t.csv", b"k,v\na,1\nb,\nc,NA\n\nd,NaN\ne,null\nf,nan\ng,2\n", ["--column", "v"], [1, 2]),
    ("t.csv", b"1,2\n3,4\n", ["--no-header", "--column", "2"], [2, 4]),
    ("t.csv", b"k,2\n1,5\n", ["--column", "2"], [5]),  # a header name before a number
    ("t.tsv", b"a\tb,c\n1\t2\n", ["--column", "b,c"], [2]),
    ("t.txt", b"a\tb\n1\t2\n", ["--format", "tsv", "--column", "b"], [2]),
    ("t.txt", b"a;b\n1;2.5\n", ["--delimiter", ";", "--column", "b"], [2.5]),
    ("t.csv.gz", gzip.compress(QUOTED) + gzip.compress(b"9,5\n"), ["--column", "v"], [1, 2, 3, 4, 5]),
    ("-", b"x\n7\n8\n", ["--format", "csv", "--column", "x"], [7, 8]),
    ("t.csv", b"only\n4\n5\n", [], [4, 5]),  # a single column needs no --column
]


@pytest.mark.parametrize("name, content, options, numbers", DIALECTS)
def test_each_dialect_reads_the_column_in_file_order(tmp_path, name, content, options, numbers):
    if name != "-":
        (tmp_path / name).write_bytes(content)
    ok("build", name, *options, "-o", "t.zd", cwd=tmp_path, stdin=content if name == "-" else None)
    ok("build", "-o", "n.zd", stdin=" ".join(map(repr, map(float, numbers))), cwd=tmp_path)
    assert (tmp_path / "t.zd").read_bytes() == (tmp_path / "n.zd").read_bytes()


def test_skipped_cells_and_keyless_rows_are_counted_in_the_closing_line(tmp_path):
    (tmp_path / "t.csv").write_bytes(b"k,v\na,1\nb,\nNA,3\n,4\nc,NA\na,2\n")
    r = ok("build", "t.csv", "--column", "v", "--by", "k", "-o", "t.zd", cwd=tmp_path)
    assert r.err.strip() == ("zotdigest: t.csv: 6 rows, 2 values in 3 digests; skipped 2 empty, "
                             "NA, NaN or null cells and 2 rows without a key"), r
    assert not ok("build", "t.csv", "--column", "v", "-q", "-o", "u.zd", cwd=tmp_path).err


PACKED = gzip.compress(b"v\n" + b"1.25\n" * 10**5)
DAMAGED = PACKED[:len(PACKED) // 2] + bytes(b ^ 0x55 for b in PACKED[len(PACKED) // 2:])
BAD = [  # name, content, options, message
    ("t.csv", b"k,v\na,1\nb,x1\n", ["--column", "v"], "t.csv, line 3, column 'v': 'x1' is not a number"),
    ("t.csv", b'k,v\n"a\nb",1\nc,1e999\n', ["--column", "v"], "line 4, column 'v': '1e999' is out of the range"),
    ("t.csv", b"k,v\n1,2\n", ["--column", "w"], "t.csv: no column 'w'; the header has: 'k', 'v'"),
    ("t.csv", b"k,v\na\n", ["--column", "v"], "t.csv, line 2: the record has 1 field, but column 'v' is field 2"),
    ("t.csv", b'k,v\n"a,1\n', ["--column", "v"], "line 2: a quoted field never ends"),
    ("t.csv", b"k,v\n", ["--by", "k", "--column", "k", "--column", "v"], "give one --column"),
    ("t.csv", b"k,v\n", ["--by", "k", "--column", "v", "--label", "x"], "--label does not apply"),
    ("t.csv", b"k,v,w\n", [], "name the column of values with --column; the header has: 'k', 'v', 'w'"),
    ("t.csv", b"v,w\n1,2.5\n", ["--column", "v", "--weight", "w"], "line 2, column 'w': '2.5' is not a weight"),
    ("t.csv", b"v,w\n1,-1\n", ["--column", "v", "--weight", "w"], "'-1' is not a weight"),
    ("t.csv", b"", ["--column", "v"], "t.csv is empty"),
    ("t.csv", b"k,v\n,1\n", ["--column", "v", "--by", "k"], "t.csv: no row has a key"),
    ("t.csv.gz", gzip.compress(b"v\n1\n" * 1000)[:-30], ["--column", "v"], "gzip stream ends early"),
    ("t.csv.gz", DAMAGED, ["--column", "v"], "t.csv.gz: damaged gzip stream"),
    ("t.txt", b"1\n", ["--format", "npy", "--column", "v"], "read CSV or TSV input"),
    ("t.csv", b"v\n1\n", ["--delimiter", "ab"], "--delimiter takes one character"),
]


@pytest.mark.parametrize("name, content, options, message", BAD)
def test_bad_tables_exit_2_naming_the_place_and_write_nothing(tmp_path, name, content, options, message):
    (tmp_path / name).write_bytes(content)
    r = run("build", name, *options, "-o", "t.zd", cwd=tmp_path)
    assert r.rc == 2 and message in r.err and not (tmp_path / "t.zd").exists(), r


def centroid_lists(path, *args):
    """Each digest's centroids, exactly, by label."""
    digests = ok("centroids", path, "--json", "--precision", 0, *args).json()["digests"]
    return {d["label"]: d["centroids"] for d in digests}


def peak_rss_mb(*args, cwd):
    p = subprocess.run(["/usr/bin/time", "-f", "%M", str(TOOL), *map(str, args)], cwd=cwd,
                       env=tool_env(), capture_output=True, text=True, check=True)
    return int(p.stderr.split()[-1]) / 1024


def test_a_million_rows_by_key_in_bounded_memory_equal_each_key_built_alone(tmp_path):
    # Three keys, one of them over two blocks of the build, in rows wide
    # enough that the file is larger than the memory the tool may use.
    rng = np.random.default_rng(11)
    n = 10**6
    keys = np.array(["b", "a", "c é"])[rng.choice(3, n, p=[0.6, 0.3, 0.1])]
    values = rng.lognormal(size=n)
    text = np.char.mod("%r", values)
    pad = "x" * 60
    with open(tmp_path / "t.csv", "w") as f:
        f.write("key,pad,value\n")
        f.write("\n".join(f'"{k}",{pad},{v}' for k, v in zip(keys.tolist(), text.tolist())))
    (tmp_path / "small.csv").write_text("key,pad,value\na,x,1\n")
    args = ["--column", "value", "--by", "key", "-q"]
    peak = peak_rss_mb("build", "t.csv", *args, "-o", "t.zd", cwd=tmp_path)
    base = peak_rss_mb("build", "small.csv", *args, "-o", "s.zd", cwd=tmp_path)
    size_mb = (tmp_path / "t.csv").stat().st_size / 2**20
    assert size_mb > 80 and peak - base < 48, (peak, base, size_mb)
    by_key = centroid_lists(tmp_path / "t.zd")
    assert list(by_key) == ["a", "b", "c é"]  # byte order of the keys
    for k in by_key:
        (tmp_path / "k.txt").write_text("\n".join(text[keys == k].tolist()))
        ok("build", "k.txt", "-o", "k.zd", cwd=tmp_path)
        assert by_key[k] == centroid_lists(tmp_path / "k.zd")[""], k


def test_queries_of_many_digests_give_a_row_per_label_and_label_picks_one(tmp_path):
    (tmp_path / "t.csv").write_text("k,v\n" + "".join(f"{k},{i}\n" for i in range(30) for k in "ba"))
    ok("build", "t.csv", "--column", "v", "--by", "k", "-q", "-o", "t.zd", cwd=tmp_path)
    rows = [line.split() for line in ok("quantile", "t.zd", 0.5, 1, cwd=tmp_path).out.splitlines()]
    assert rows == [["label", "p=0.5", "p=1"], ["a", "14.5", "29"], ["b", "14.5", "29"]]
    summary = [line.split()[:3] for line in ok("summary", "t.zd", cwd=tmp_path).out.splitlines()]
    assert summary == [["label", "delta", "data"], ["a", "100", "30"], ["b", "100", "30"]]
    for command, arg, field in [("cdf", 15, "cdf"), ("trimmed-mean", 0, "trimmed_means"),
                                ("summary", None, "mean")]:
        extra = [] if arg is None else [arg]
        picked = ok(command, "t.zd", *extra, "--label", "b", "--json", cwd=tmp_path).json()
        assert [d["label"] for d in picked["digests"]] == ["b"] and field in json.dumps(picked)
    r = run("quantile", "t.zd", 0.5, "--label", "c", cwd=tmp_path)
    assert r.rc == 2 and "no digest is labelled 'c'; the labels are: 'a', 'b'" in r.err, r


def test_columns_are_reproducible_across_threads_and_equal_each_column_alone(tmp_path):
    m = np.random.default_rng(5).normal(size=(300_000, 3))
    np.save(tmp_path / "m.npy", m)
    built = []
    for threads in [1, 2]:
        ok("build", "m.npy", "--columns", "--threads", threads, "-o", f"{threads}.zd", cwd=tmp_path)
        built.append((tmp_path / f"{threads}.zd").read_bytes())
    assert built[0] == built[1]
    columns = centroid_lists(tmp_path / "1.zd")
    np.save(tmp_path / "c.npy", m[:, 2])
    ok("build", "c.npy", "-o", "c.zd", cwd=tmp_path)
    assert columns["col2"] == centroid_lists(tmp_path / "c.zd")[""]
    # A table gives one digest per column, labelled by the column's name.
    np.savetxt(tmp_path / "m.csv", m[:1000], fmt="%r", delimiter=",", header="a,b,c", comments="")
    np.save(tmp_path / "s.npy", m[:1000])
    ok("build", "m.csv", "--columns", "-q", "-o", "t.zd", cwd=tmp_path)
    ok("build", "s.npy", "--columns", "-o", "s.zd", cwd=tmp_path)
    table, npy = centroid_lists(tmp_path / "t.zd"), centroid_lists(tmp_path / "s.zd")
    assert list(table) == ["a", "b", "c"] and list(table.values()) == list(npy.values())
    two = centroid_lists(tmp_path / "m.csv", "--column", "c", "--column", "a", "-q")
    assert list(two) == ["c", "a"] and two["a"] == table["a"]


def test_weights_count_their_values_and_each_key_is_its_rows_alone(tmp_path):
    rng = np.random.default_rng(3)
    n = 300_000  # over a block for key "a"
    keys, values, weights = rng.choice(["a", "b"], n, p=[0.95, 0.05]), rng.normal(size=n), rng.integers(0, 4, n)
    lines = [f"{k},{v!r},{w}" for k, v, w in zip(keys.tolist(), values.tolist(), weights.tolist())]
    (tmp_path / "t.csv").write_text("k,v,w\n" + "\n".join(lines))
    r = run("build", "t.csv", "--column", "v", "--weight", "w", "--by", "k", "-q", "-o", "t.zd",
            cwd=tmp_path)
    assert r.rc == 0, r
    counts = {d["label"]: d["data_points"] for d in ok("summary", "t.zd", "--json", cwd=tmp_path).json()["digests"]}
    assert counts == {k: int(weights[keys == k].sum()) for k in "ab"}
    by_key = centroid_lists(tmp_path / "t.zd")
    for k in "ab":
        (tmp_path / "k.csv").write_text("k,v,w\n" + "\n".join(l for l, kk in zip(lines, keys) if kk == k))
        ok("build", "k.csv", "--column", "v", "--weight", "w", "-q", "-o", "k.zd", cwd=tmp_path)
        assert by_key[k] == centroid_lists(tmp_path / "k.zd")[""], k
