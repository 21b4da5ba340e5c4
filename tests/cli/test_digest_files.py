"""Digest files: what info and verify report, refusal of a damaged file by
every command, atomic replacement, and the golden files of format versions 1
and 2 (the latter also built again from its values).
The damage to each field is tabled in the decoder's unit tests."""
import json
import os
import resource
import signal

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


@pytest.mark.parametrize("damage, message", [
    (lambda g: g[:200], "truncated"),
    (lambda g: g[:HEADER + 9] + bytes([g[HEADER + 9] ^ 4]) + g[HEADER + 10:], "payload is damaged"),
], ids=["truncated", "flipped-bit"])
def test_every_command_refuses_a_damaged_file_with_exit_2(tmp_path, good, damage, message):
    (tmp_path / "bad.zd").write_bytes(damage(good))
    for cmd in (["info"], ["verify"], ["merge", "-o", "m.zd"], ["summary"], ["quantile", "0.5"]):
        r = run(cmd[0], tmp_path / "bad.zd", *cmd[1:], cwd=tmp_path)
        assert r.rc == 2 and message in r.err, (cmd, r)
        assert r.err.startswith("zotdigest: ") and "Traceback" not in r.err
    assert not (tmp_path / "m.zd").exists()


# --- atomic replacement -----------------------------------------------------


def leftovers(directory):
    return [p.name for p in directory.iterdir() if ".tmp-" in p.name]


@pytest.mark.parametrize("killed", [False, True], ids=["write-fails", "killed-mid-write"])
def test_a_write_cut_short_leaves_the_old_file_intact(tmp_path, good, killed):
    out = tmp_path / "x.zd"
    out.write_bytes(good)
    np.save(tmp_path / "big.npy", np.random.default_rng(2).normal(size=200_000))

    def small_file_limit():  # writes past 4 kB fail with EFBIG, or SIGXFSZ kills the tool
        signal.signal(signal.SIGXFSZ, signal.SIG_DFL if killed else signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096))

    r = run("build", tmp_path / "big.npy", "--delta", 1000, "-o", out, preexec_fn=small_file_limit)
    assert out.read_bytes() == good
    if killed:
        assert r.rc == -signal.SIGXFSZ, r
    else:
        assert r.rc == 1 and "cannot write" in r.err and "File too large" in r.err, r
        assert leftovers(tmp_path) == []


def test_a_replaced_file_keeps_its_mode(tmp_path):
    out = tmp_path / "x.zd"
    ok("build", "-o", out, stdin="1")
    os.chmod(out, 0o640)
    ok("build", "-o", out, stdin="2")
    assert os.stat(out).st_mode & 0o777 == 0o640


# --- golden files of format version 1 ------------------------------------------

GOLDEN = json.loads((DATA / "golden_v1_expected.json").read_text())


@pytest.mark.parametrize("name", ["single", "columns", "empty", "one", "merged"])
def test_golden_v1_files_read_back_through_info_verify_and_centroids(name):
    path, want = DATA / f"golden_v1_{name}.zd", GOLDEN[name]
    info = ok("info", path, "--json").json()["files"][0]
    assert (info["format_version"], info["digest_count"]) == (1, want["digest_count"])
    assert info["compressed_bytes"] == path.stat().st_size - HEADER
    points, verify = sum(d["data_points"] for d in want["digests"]), ok("verify", path).out
    assert f"OK (format 1, {want['digest_count']} digest" in verify, verify
    assert f"{points} data points)" in verify, verify
    assert ok("info", path).out.startswith("file")
    got = ok("centroids", path, "--json").json()["digests"]
    assert len(got) == len(want["digests"])
    for g, w, i in zip(got, want["digests"], info["digests"]):
        assert (g["label"], i["delta"], i["data_points"], i["centroids"]) == (
            w["label"], w["delta"], w["data_points"], w["centroids"])
        assert [c["mean"] for c in g["centroids"]] == w["means"]
        assert [c["count"] for c in g["centroids"]] == w["counts"]


# --- build records (format version 2) ------------------------------------------


def test_info_shows_how_a_digest_was_built_and_merges_and_old_files_say_nothing(tmp_path):
    np.save(tmp_path / "x.npy", np.random.default_rng(2).normal(size=300_000))
    ok("build", tmp_path / "x.npy", "--seed", 12, "--threads", 1, "-o", tmp_path / "a.zd")
    info = ok("info", tmp_path / "a.zd", "--json").json()["files"][0]
    assert info["format_version"] == 2
    assert info["digests"][0]["build"] == {"kind": "block tree", "seed": 12, "block_size": 262144}
    assert "seed 12, blocks of 262144" in ok("info", tmp_path / "a.zd").out
    ok("merge", "-o", tmp_path / "m.zd", tmp_path / "a.zd", tmp_path / "a.zd")
    for path in (tmp_path / "m.zd", DATA / "golden_v1_single.zd"):
        info = ok("info", path, "--json").json()["files"][0]
        assert info["format_version"] == 1 and "build" not in info["digests"][0]


def test_golden_v2_file_reads_back_and_the_same_values_build_it_again(tmp_path):
    path, want = DATA / "golden_v2_built.zd", json.loads((DATA / "golden_v2_expected.json").read_text())
    info = ok("info", path, "--json").json()["files"][0]
    d = info["digests"][0]
    assert (info["format_version"], d["label"], d["delta"], d["data_points"], d["build"]) == (
        want["format_version"], want["label"], want["delta"], want["data_points"], want["build"])
    assert "OK (format 2, 1 digest" in ok("verify", path).out
    # The values of tests/data/make_golden_v2.sh, built again on one thread: the
    # definition of the reproducible build has not moved.
    i = np.arange(2 * 262144 + 1000, dtype=np.float64)
    np.save(tmp_path / "built.npy", (i * 7919 % 10007) / 100.0 + np.exp((i % 97) / 12.0))
    for source in (path, tmp_path / "built.npy"):
        got = ok("centroids", source, "--delta", 50, "--seed", 7, "--threads", 1, "--json",
                 "--precision", 0).json()["digests"][0]["centroids"]
        assert [c["mean"] for c in got] == want["means"], source
        assert [c["count"] for c in got] == want["counts"], source
