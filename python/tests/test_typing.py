"""The package's types: mypy --strict accepts a typed use, which also runs."""

import pathlib
import subprocess
import sys

import numpy as np
import pytest

import zotdigest

HERE = pathlib.Path(__file__).resolve().parent
PACKAGE = pathlib.Path(zotdigest.__file__).parent


def test_the_package_is_typed_and_every_public_name_has_a_type():
    assert (PACKAGE / "py.typed").exists()
    stub = (PACKAGE / "__init__.pyi").read_text()
    for name in zotdigest.__all__:
        assert f"class {name}" in stub or f"def {name}(" in stub, name


def test_mypy_strict_accepts_a_typed_usage_example(tmp_path):
    pytest.importorskip("mypy")
    r = subprocess.run([sys.executable, "-m", "mypy", "--strict", "--cache-dir", str(tmp_path),
                        "--no-error-summary", str(HERE / "typed_usage.py")],
                       env={"MYPYPATH": str(PACKAGE.parent), "PATH": "/usr/bin:/bin"},
                       capture_output=True, text=True)
    assert r.returncode == 0, r.stdout + r.stderr
    sys.path.insert(0, str(HERE))
    try:
        import typed_usage
    finally:
        sys.path.remove(str(HERE))
    total, tails, count = typed_usage.summarise(np.linspace(-1, 1, 1001), str(tmp_path / "t.zd"))
    assert isinstance(total, float) and tails.shape == (2,) and count == 1003 + 2 + 1001
