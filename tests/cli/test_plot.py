"""plot: a histogram of Unicode bars in the terminal, PNG pictures with -o."""
import os
import pty
import re
import subprocess

import pytest

from conftest import TOOL, ok, run, tool_env


@pytest.fixture(scope="module")
def normal_zd(tmp_path_factory, text_file):
    path = tmp_path_factory.mktemp("plot") / "normal.zd"
    ok("build", text_file, "--seed", "1", "--label", "normal", "-o", path)
    return path


def test_the_terminal_histogram_fits_the_width_and_shows_each_bins_share(normal_zd):
    p = subprocess.run([TOOL, "plot", normal_zd], env=dict(tool_env(), COLUMNS="50"),
                       capture_output=True, check=True)
    out = p.stdout.decode()
    lines = out.splitlines()
    assert lines[0] == "normal: 100000 data points, delta 100" and len(lines) == 22
    assert "\x1b" not in out and all(len(line) <= 50 for line in lines)
    shares = [float(s) for s in re.findall(r" ([0-9.]+)% \u2502", out)]
    assert len(shares) == 20 and sum(shares) == pytest.approx(100, abs=0.5)
    bars = [line.split("\u2502")[1] for line in lines[1:21]]
    assert max(range(20), key=lambda i: len(bars[i])) in (9, 10) and "\u2588" * 30 in out


def test_colour_only_in_a_terminal(normal_zd):
    leader, follower = pty.openpty()
    subprocess.run([TOOL, "plot", normal_zd], stdout=follower, env=tool_env(), check=True)
    os.close(follower)
    assert b"\x1b[36m" in os.read(leader, 1 << 16)
    os.close(leader)


@pytest.mark.parametrize("kind", ["cdf", "density", "quantile"])
def test_a_png_of_each_kind(tmp_path, normal_zd, kind):
    pytest.importorskip("matplotlib")
    ok("plot", normal_zd, "-o", tmp_path / "p.png", "--kind", kind)
    assert (tmp_path / "p.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    assert os.listdir(tmp_path) == ["p.png"]


@pytest.mark.parametrize("args, message", [
    (["--kind", "pie", "-o", "p.png"], "unknown picture kind 'pie'"),
    (["--terminal", "-o", "p.png"], "excludes"),
])
def test_bad_plot_options_exit_2(tmp_path, normal_zd, args, message):
    r = run("plot", normal_zd, *args, cwd=tmp_path)
    assert r.rc == 2 and message in r.err and not (tmp_path / "p.png").exists(), r
