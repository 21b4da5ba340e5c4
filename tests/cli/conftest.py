"""Runs the built zotdigest binary the way a user does.

The build tree comes from ZOTDIGEST_BUILD (default /work/main/build); the
module is loaded from that tree's lib/ directory.
"""
import json
import os
import pathlib
import subprocess

import numpy as np
import pytest

BUILD = pathlib.Path(os.environ.get("ZOTDIGEST_BUILD", "/work/main/build"))
TOOL = BUILD / "bin" / "zotdigest"
DATA = pathlib.Path(__file__).resolve().parent.parent / "data"

if not TOOL.exists():
    pytest.skip(f"{TOOL} is not built", allow_module_level=True)


def tool_env():
    env = dict(os.environ)
    env["QUORIX_MODULE_PATH"] = str(BUILD / "lib")
    return env


class Result:
    def __init__(self, proc):
        self.rc = proc.returncode
        self.out = proc.stdout
        self.err = proc.stderr

    def json(self):
        return json.loads(self.out)

    def __repr__(self):
        return f"rc={self.rc}\nstdout:\n{self.out}\nstderr:\n{self.err}"


def run(*args, stdin=None, cwd=None, timeout=120, **kw):
    """Runs the tool; stdin may be str or bytes."""
    if isinstance(stdin, str):
        stdin = stdin.encode()
    proc = subprocess.run(
        [str(TOOL), *map(str, args)],
        input=stdin,
        stdin=subprocess.DEVNULL if stdin is None else None,
        capture_output=True,
        env=tool_env(),
        cwd=cwd,
        timeout=timeout,
        **kw,
    )
    proc.stdout = proc.stdout.decode(errors="replace")
    proc.stderr = proc.stderr.decode(errors="replace")
    return Result(proc)


def ok(*args, **kw):
    r = run(*args, **kw)
    assert r.rc == 0, r
    return r


def rank_error(data, values, p):
    """How far, in probability, each estimated quantile is from p: the
    empirical cdf of the data at the estimate, against p."""
    s = np.sort(np.asarray(data, dtype=np.float64))
    lo = np.searchsorted(s, values, side="left") / len(s)
    hi = np.searchsorted(s, values, side="right") / len(s)
    p = np.asarray(p)
    # Inside a run of ties any p between lo and hi is exact.
    return np.maximum(0.0, np.maximum(lo - p, p - hi))


@pytest.fixture(scope="session")
def normal_data():
    return np.random.default_rng(20240521).normal(size=100_000)


@pytest.fixture(scope="session")
def text_file(tmp_path_factory, normal_data):
    path = tmp_path_factory.mktemp("text") / "numbers.txt"
    np.savetxt(path, normal_data, fmt="%.17g")
    return path
