"""Exit statuses and messages: usage 2, bad input 2, module errors 1."""
import pytest

from conftest import ok, run


@pytest.mark.parametrize("text, where", [
    ("# c\n\n1,5\n", "line 3: '1,5' is not a number"),  # the text syntax: cli_unit_test
    ("\n\n1 \x01\x02", "line 3: '\\x01\\x02' is not a number"),
    ("1e999\n", "line 1: '1e999' is out of the range of a double"),
])
def test_a_bad_number_names_its_line_and_writes_nothing(tmp_path, text, where):
    r = run("build", "-o", tmp_path / "x.zd", stdin=text)
    assert r.rc == 2 and f"standard input, {where}" in r.err, r
    assert not (tmp_path / "x.zd").exists()


@pytest.mark.parametrize("args, message", [
    ([], ""),
    (["build"], ""),  # no -o
    (["summary", "--format", "xls"], "unknown input format 'xls'"),
    (["summary", "--dtype", "float16"], "unknown dtype 'float16'"),
    (["summary", "--format", "raw"], "raw input needs --dtype"),
    (["summary", "missing.txt"], "cannot open 'missing.txt'"),
    (["summary", "."], "is a directory"),
    (["summary", "-", "-"], "read only once"),
])
def test_usage_errors_and_bad_input_options_exit_2(tmp_path, args, message):
    r = run(*args, cwd=tmp_path, stdin="1 2 3")
    assert r.rc == 2 and r.err.strip() and message in r.err, r


@pytest.mark.parametrize("args, stdin, identifier", [
    (["quantile", "-", "1.5"], "1 2", "stats:tdigest:IcdfInvalidQuantile"),
    (["trimmed-mean", "-", "0.5"], "1 2", "stats:tdigest:TrimmedMeanInvalidTrim"),
    (["summary", "--delta", "0"], "1 2", "stats:tdigest:DeltaInvalidValue"),
    (["cdf", "-", "0"], "", "stats:tdigest:CdfNoData"),
])
def test_module_errors_exit_1_with_identifier_and_text(args, stdin, identifier):
    r = run(*args, stdin=stdin)
    assert r.rc == 1, r
    line = r.err.strip().splitlines()[-1]
    assert line.startswith(f"zotdigest: {identifier}: ")
    assert len(line) > len(f"zotdigest: {identifier}: ") + 10  # the catalogue's text


def test_help_and_version_exit_0():
    assert "Examples:" in ok("--help").out
    for sub in ["build", "quantile", "cdf", "trimmed-mean", "centroids", "summary", "merge",
                "info", "verify"]:
        assert sub in ok(sub, "--help").out
    assert ok("--version").out.startswith("zotdigest ")


def test_wrong_kinds_of_input(tmp_path):
    ok("build", "-o", tmp_path / "a.zd", stdin="1 2")
    r = run("build", tmp_path / "a.zd", "-o", tmp_path / "b.zd")
    assert r.rc == 2 and "already a digest file" in r.err, r
    (tmp_path / "n.txt").write_text("3\n")
    r = run("summary", tmp_path / "a.zd", tmp_path / "n.txt")
    assert r.rc == 2 and "mix digest files and numbers" in r.err, r
    r = run("merge", tmp_path / "n.txt", "-o", tmp_path / "m.zd")
    assert r.rc == 2 and "not a digest file" in r.err, r


@pytest.mark.parametrize("content, message", [
    (b"", "0 bytes, shorter than the 44-byte header"),
    (b"0.5\n" * 20, "wrong magic number"),
])
@pytest.mark.parametrize("command", [["quantile", "0.5"], ["build", "-o", "out.zd"]])
def test_a_file_named_zd_is_a_digest_file_even_when_empty(tmp_path, content, message, command):
    (tmp_path / "empty.zd").write_bytes(content)
    r = run(command[0], "empty.zd", *command[1:], cwd=tmp_path)
    assert r.rc == 2 and "empty.zd: not a digest file" in r.err and message in r.err, r
    assert not (tmp_path / "out.zd").exists()
