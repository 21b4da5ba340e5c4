"""pip wheel . and pip install into a temporary prefix, offline: the installed
package loads its own extension, libquorix and libzotdigest."""

import os
import pathlib
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ZOTDIGEST_BUILD", ROOT / "build"))


def tree_of_this_source():
    cache = BUILD / "CMakeCache.txt"
    return cache.exists() and f"CMAKE_HOME_DIRECTORY:INTERNAL={ROOT}\n" in cache.read_text()


@pytest.mark.skipif(not tree_of_this_source(), reason="needs a CMake build tree of this source")
def test_pip_wheel_and_install_give_a_package_that_finds_its_own_libraries(tmp_path):
    pytest.importorskip("pip")
    pytest.importorskip("wheel")
    env = dict(os.environ, ZOTDIGEST_CMAKE_BUILD=str(BUILD))
    pip = [sys.executable, "-m", "pip", "--disable-pip-version-check", "-q"]
    subprocess.run([*pip, "wheel", "--no-build-isolation", "--no-deps", "--no-index", "-w",
                    str(tmp_path / "wheel"), str(ROOT)], check=True, env=env, cwd=ROOT)
    (wheel,) = (tmp_path / "wheel").glob("zotdigest-*.whl")
    subprocess.run([*pip, "install", "--no-deps", "--no-index", "--prefix", str(tmp_path / "prefix"),
                    str(wheel)], check=True)
    (package,) = (tmp_path / "prefix").rglob("zotdigest/__init__.py")
    script = ("import zotdigest, pathlib; d = zotdigest.TDigest([1.0, 2.0, 3.0]); "
              "assert zotdigest.TDigest.from_bytes(d.to_bytes()).quantile(0.5) == 2.0; "
              "print(zotdigest.module_info()['path']); print(zotdigest._core.__file__)")
    # Nothing of the build tree is reachable: no module path, no library path.
    clean = {"PATH": "/usr/bin:/bin", "PYTHONPATH": str(package.parent.parent)}
    out = subprocess.run([sys.executable, "-c", script], check=True, env=clean, cwd=tmp_path,
                         capture_output=True, text=True).stdout.split()
    assert all(pathlib.Path(p).parent == package.parent for p in out), out
    assert (package.parent / "py.typed").exists()
    libraries = subprocess.run(["ldd", out[1]], check=True, capture_output=True, text=True).stdout
    assert str(package.parent / "libquorix.so") in libraries, libraries
