"""Exit statuses and messages: usage 2, bad input 2, module errors 1."""
import pytest

from conftest import ok, run


@pytest.mark.parametrize(
    "text, line, token",
    [
        ("1\n2\nfoo\n", 3, "foo"),
        ("1 2 3 4e\n", 1, "4e"),
        ("# c\n\n1,5\n", 3, "1,5"),
        ("0x10\n", 1, "0x10"),
        ("1\r\n2\r\n--3\r\n", 3, "--3"),
    ],
)
def test_a_bad_token_names_its_line(tmp_path, text, line, token):
    r = run("build", "-o", tmp_path / "x.zd", stdin=text)
    assert r.rc == 2, r
    assert f"line {line}: '{token}' is not a number" in r.err
    assert not (tmp_path / "x.zd").exists()


def test_a_bad_token_far_into_a_large_file_names_its_line(tmp_path):
    lines = [repr(i * 0.5) for i in range(300_000)]
    lines[250_000] = "12..5"
    (tmp_path / "big.txt").write_text("\n".join(lines))
    r = run("summary", tmp_path / "big.txt")
    assert r.rc == 2 and f"{tmp_path / 'big.txt'}, line 250001: '12..5'" in r.err, r


def test_out_of_range_number(tmp_path):
    r = run("summary", stdin="1e999\n")
    assert r.rc == 2 and "out of the range of a double" in r.err, r


@pytest.mark.parametrize(
    "args",
    [
        [],
        ["frobnicate"],
        ["build"],  # no -o
        ["build", "--delta", "abc", "-o", "x.zd"],
        ["quantile", "x.zd"],  # no probabilities
        ["summary", "--precision", "30"],
        ["summary", "--nonsense"],
    ],
)
def test_usage_errors_exit_2(tmp_path, args):
    r = run(*args, cwd=tmp_path, stdin="")
    assert r.rc == 2, r
    assert r.err.strip()


@pytest.mark.parametrize(
    "args, message",
    [
        (["summary", "--format", "csv"], "unknown input format 'csv'"),
        (["summary", "--dtype", "float16"], "unknown dtype 'float16'"),
        (["summary", "--format", "raw"], "raw input needs --dtype"),
        (["summary", "missing.txt"], "cannot open 'missing.txt'"),
        (["summary", "."], "is a directory"),
        (["summary", "-", "-"], "read only once"),
    ],
)
def test_bad_input_options_exit_2(tmp_path, args, message):
    r = run(*args, cwd=tmp_path, stdin="1 2 3")
    assert r.rc == 2, r
    assert message in r.err


@pytest.mark.parametrize(
    "args, identifier",
    [
        (["quantile", "-", "1.5"], "stats:tdigest:IcdfInvalidQuantile"),
        (["quantile", "-", "--", "-0.5"], "stats:tdigest:IcdfInvalidQuantile"),
        (["trimmed-mean", "-", "0.5"], "stats:tdigest:TrimmedMeanInvalidTrim"),
        (["summary", "--delta", "0"], "stats:tdigest:DeltaInvalidValue"),
        (["summary", "--delta=-1"], "stats:tdigest:DeltaInvalidValue"),
    ],
)
def test_module_errors_exit_1_with_identifier_and_text(args, identifier):
    r = run(*args, stdin="1 2 3\n")
    assert r.rc == 1, r
    line = r.err.strip().splitlines()[-1]
    assert line.startswith(f"zotdigest: {identifier}: ")
    assert len(line) > len(f"zotdigest: {identifier}: ") + 10  # the catalogue's text


def test_cdf_of_an_empty_digest_is_a_module_error():
    r = run("cdf", "-", "0", stdin="")
    assert r.rc == 1 and "stats:tdigest:CdfNoData" in r.err, r


def test_help_and_version_exit_0():
    r = ok("--help")
    assert "Examples:" in r.out and "build" in r.out
    for sub in ["build", "quantile", "cdf", "trimmed-mean", "centroids", "summary", "merge",
                "info", "verify"]:
        assert ok(sub, "--help").out.startswith(sub[:3]) or "Usage" in ok(sub, "--help").out
    assert ok("--version").out.startswith("zotdigest ")


def test_unwritable_output_is_exit_1(tmp_path):
    r = run("build", "-o", tmp_path / "no" / "such" / "dir.zd", stdin="1 2")
    assert r.rc == 1 and "cannot write" in r.err, r


def test_building_from_a_digest_file_is_refused(tmp_path):
    ok("build", "-o", tmp_path / "a.zd", stdin="1 2")
    r = run("build", tmp_path / "a.zd", "-o", tmp_path / "b.zd")
    assert r.rc == 2 and "already a digest file" in r.err, r


def test_queries_refuse_a_mix_of_digest_files_and_numbers(tmp_path):
    ok("build", "-o", tmp_path / "a.zd", stdin="1 2")
    (tmp_path / "n.txt").write_text("3\n")
    r = run("summary", tmp_path / "a.zd", tmp_path / "n.txt")
    assert r.rc == 2 and "mix digest files and numbers" in r.err, r
