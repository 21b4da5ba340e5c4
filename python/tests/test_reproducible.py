"""zotdigest.digest: the same digest, bit for bit, on any thread count, in any
chunks, from the CLI and from Python; TDigest stays the module's own build."""

import json
import os
import pathlib
import subprocess

import numpy as np
import pytest
from digest_bits import saved as state

import zotdigest

B = zotdigest.BLOCK_SIZE


@pytest.fixture(scope="module")
def values():
    return np.random.default_rng(5).lognormal(size=3 * B + 123)


def test_threads_and_chunkings_give_one_digest(values):
    expected = state(zotdigest.digest(values))
    for threads in (1, 3):  # every thread count and chunking: the engine's tests
        assert state(zotdigest.digest(values, threads=threads)) == expected, threads
    for size in (B - 1, 10**6):
        chunks = (values[i:i + size] for i in range(0, values.size, size))
        assert state(zotdigest.digest(chunks)) == expected, size
    # A list of arrays is a sequence of chunks, each in its own dtype.
    parts = [values[:1000].astype(np.float32), values[1000:]]
    assert state(zotdigest.digest(parts)) == state(
        zotdigest.digest(np.concatenate([parts[0].astype(np.float64), parts[1]])))


def test_seed_delta_and_element_order(values):
    d = zotdigest.digest(values, delta=50, seed=2**32 - 1)
    assert (d.Delta, d.NumDataPoints) == (50.0, values.size)
    assert state(d) != state(zotdigest.digest(values, delta=50, seed=0))
    m = values[:6 * 1000].reshape(1000, 6)  # N-d input: Fortran order, as TDigest reads it
    assert state(zotdigest.digest(m)) == state(zotdigest.digest(m.ravel(order="F")))
    assert state(zotdigest.digest(m)) != state(zotdigest.digest(m.ravel()))


@pytest.mark.parametrize("data", [None, [], np.zeros(0, np.int8), [1.5], np.arange(B - 1)])
def test_empty_and_short_inputs(data):
    d = zotdigest.digest(data, delta=30)  # the tree against its definition: the engine's tests
    assert d.Delta == 30.0 and d.NumDataPoints == np.size(data if data is not None else [])


@pytest.mark.parametrize("data, kw, error, match", [
    ([1.0], {"seed": -1}, ValueError, "seed"), ([1.0], {"seed": 2**32}, ValueError, "seed"),
    ([1.0], {"threads": 0}, ValueError, "threads"), ([1.0], {"delta": 0}, zotdigest.HostValueError, None),
    (np.ones(3, complex), {}, zotdigest.HostTypeError, None)])
def test_refusals(data, kw, error, match):
    with pytest.raises(error, match=match):
        zotdigest.digest(data, **kw)


def test_the_cli_builds_the_same_digest(values, tmp_path):
    build = pathlib.Path(os.environ.get("ZOTDIGEST_BUILD", "/work/main/build"))
    tool = build / "bin" / "zotdigest"
    if not tool.exists():
        pytest.skip("the command-line tool is not built")
    data = tmp_path / "x.npy"
    np.save(data, values.astype(np.float32))
    out = subprocess.run([str(tool), "centroids", str(data), "--seed", "9", "--threads", "2",
                          "--json", "--precision", "0"], check=True, capture_output=True, text=True)
    listed = json.loads(out.stdout)["digests"][0]["centroids"]
    means, counts = zotdigest.digest(values.astype(np.float32), seed=9).centroids()
    assert [c["mean"] for c in listed] == means.tolist()
    assert [c["count"] for c in listed] == counts.tolist()
