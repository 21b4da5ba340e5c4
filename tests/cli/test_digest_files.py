"""Digest files: sizes, integrity, refusal of damage, atomic replacement,
and the golden files of format version 1."""
import json
import os
import random
import resource
import signal
import struct

import numpy as np
import pytest

from conftest import DATA, ok, run

HEADER = 44


@pytest.fixture(scope="module")
def good(tmp_path_factory):
    d = tmp_path_factory.mktemp("good")
    np.save(d / "x.npy", np.random.default_rng(1).normal(size=100_000))
    ok("build", d / "x.npy", "--seed", 3, "-o", d / "x.zd")
    return (d / "x.zd").read_bytes()


FILE_COMMANDS = (["info"], ["verify"], ["merge", "-o", "m.zd"])
# Queries also take numbers: a file that keeps the magic number is still
# taken for a digest file and refused as one.
ALL_COMMANDS = FILE_COMMANDS + (["summary"],)


def refused(tmp_path, data, *messages, commands=ALL_COMMANDS):
    path = tmp_path / "bad.zd"
    path.write_bytes(data)
    for cmd in commands:
        r = run(*cmd, path, cwd=tmp_path)
        assert r.rc == 2, (cmd, r)
        assert any(m in r.err for m in messages), (cmd, r.err)
        assert "Traceback" not in r.err and r.err.startswith("zotdigest: ")
    assert not (tmp_path / "m.zd").exists()


def test_a_delta_100_digest_compresses_well(good):
    header = struct.unpack_from("<8sHHB3xIIQQI", good)
    payload, compressed = header[6], header[7]
    assert compressed == len(good) - HEADER
    # The deep levels of the summary are empty: the file is a small
    # fraction of the payload.
    assert payload > 100_000 and len(good) < payload / 8, (payload, len(good))


def test_info_and_verify_accept_a_good_file(tmp_path, good):
    (tmp_path / "x.zd").write_bytes(good)
    info = ok("info", tmp_path / "x.zd", "--json").json()["files"][0]
    assert info["format_version"] == 1 and info["digest_count"] == 1
    assert info["compressed_bytes"] == len(good) - HEADER
    assert info["digests"][0]["data_points"] == 100_000
    assert "OK (format 1, 1 digest, 100000 data points)" in ok("verify", tmp_path / "x.zd").out
    assert ok("info", tmp_path / "x.zd").out.startswith("file")


@pytest.mark.parametrize("offset", range(0, 8))
def test_wrong_magic(tmp_path, good, offset):
    data = bytearray(good)
    data[offset] ^= 0x20
    refused(tmp_path, bytes(data), "not a digest file (wrong magic number)",
            commands=FILE_COMMANDS)


def test_a_newer_version_is_refused_as_newer(tmp_path, good):
    data = bytearray(good)
    struct.pack_into("<H", data, 8, 2)
    refused(tmp_path, bytes(data), "format version 2, written by a newer zotdigest")


@pytest.mark.parametrize("offset", list(range(10, HEADER)))
def test_a_damaged_header_is_refused(tmp_path, good, offset):
    data = bytearray(good)
    data[offset] ^= 0x01
    refused(tmp_path, bytes(data), "header is damaged")


@pytest.mark.parametrize("cut", [0, 1, 7, 8, 43, 44, 45, 200, -1])
def test_truncated_files_are_refused(tmp_path, good, cut):
    refused(tmp_path, good[:cut], "not a digest file", "truncated",
            commands=ALL_COMMANDS if cut < 0 or cut >= 8 else FILE_COMMANDS)


def test_trailing_bytes_are_refused(tmp_path, good):
    refused(tmp_path, good + b"\0", "unexpected bytes after its payload")


def test_random_byte_flips_in_the_payload_are_refused(tmp_path, good):
    rnd = random.Random(5)
    for _ in range(15):
        data = bytearray(good)
        data[rnd.randrange(HEADER, len(data))] ^= 1 << rnd.randrange(8)
        refused(tmp_path, bytes(data), "payload is damaged")


def test_foreign_files_are_refused(tmp_path):
    for data in [b"", b"1 2 3\n" * 20, b"\x93NUMPY" + b"\0" * 100]:
        refused(tmp_path, data, "not a digest file", commands=FILE_COMMANDS)


# --- atomic replacement -----------------------------------------------------


def leftovers(directory):
    return [p.name for p in directory.iterdir() if ".tmp-" in p.name]


def test_a_failed_build_leaves_the_old_file_intact(tmp_path, good):
    out = tmp_path / "x.zd"
    out.write_bytes(good)
    r = run("build", "-o", out, stdin="1 2 oops\n")
    assert r.rc == 2
    assert out.read_bytes() == good and leftovers(tmp_path) == []


def test_a_failed_write_leaves_the_old_file_intact(tmp_path, good):
    out = tmp_path / "x.zd"
    out.write_bytes(good)
    np.save(tmp_path / "big.npy", np.random.default_rng(2).normal(size=200_000))

    def small_file_limit():
        # Writes past 4 kB fail with EFBIG instead of killing the process.
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096))

    r = run("build", tmp_path / "big.npy", "--delta", 1000, "-o", out,
            preexec_fn=small_file_limit)
    assert r.rc == 1, r
    assert "cannot write" in r.err and "File too large" in r.err
    assert out.read_bytes() == good and leftovers(tmp_path) == []


def test_a_replaced_file_keeps_its_mode(tmp_path):
    out = tmp_path / "x.zd"
    ok("build", "-o", out, stdin="1")
    os.chmod(out, 0o640)
    ok("build", "-o", out, stdin="2")
    assert os.stat(out).st_mode & 0o777 == 0o640


# --- golden files of format version 1 ------------------------------------------

GOLDEN = json.loads((DATA / "golden_v1_expected.json").read_text()) if (
    DATA / "golden_v1_expected.json").exists() else {}


@pytest.mark.parametrize("name", sorted(GOLDEN))
def test_golden_v1_files_read_back(name):
    path = DATA / f"golden_v1_{name}.zd"
    want = GOLDEN[name]
    info = ok("info", path, "--json").json()["files"][0]
    assert info["format_version"] == 1 and info["digest_count"] == want["digest_count"]
    assert "OK (format 1" in ok("verify", path).out
    got = ok("centroids", path, "--json").json()["digests"]
    for g, w, i in zip(got, want["digests"], info["digests"]):
        assert (g["label"], i["delta"], i["data_points"], i["centroids"]) == (
            w["label"], w["delta"], w["data_points"], w["centroids"])
        assert [c["mean"] for c in g["centroids"]] == w["means"]
        assert [c["count"] for c in g["centroids"]] == w["counts"]


def test_golden_files_exist():
    assert set(GOLDEN) == {"single", "columns", "empty", "one", "merged"}
