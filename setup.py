"""Builds the Python package with the project's CMake, for pip.

    /usr/bin/python3 -m pip install --no-build-isolation .
    /usr/bin/python3 -m pip wheel --no-build-isolation --no-deps .

CMake builds the extension, libquorix and libzotdigest, and installs its
"python" component into a staging directory; the package found there (its
Python files, the extension with an $ORIGIN run path, and the two libraries
beside it) becomes the wheel's zotdigest/. ZOTDIGEST_CMAKE_BUILD names a
build tree of this source to reuse instead of a fresh one.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent


def version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(zotdigest VERSION ([0-9.]+)", text).group(1)


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        tree = pathlib.Path(os.environ.get("ZOTDIGEST_CMAKE_BUILD") or
                            pathlib.Path(self.build_temp).resolve() / "cmake")
        if not (tree / "CMakeCache.txt").exists():
            subprocess.run(["cmake", "-S", str(ROOT), "-B", str(tree), "-G", "Ninja",
                            "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DZOTDIGEST_CLI=OFF",
                            "-DZOTDIGEST_BENCH=OFF", f"-DPython_EXECUTABLE={sys.executable}"],
                           check=True)
        jobs = str(self.parallel or os.cpu_count() or 1)
        subprocess.run(["cmake", "--build", str(tree), "--target", "zotdigest_python", "-j", jobs],
                       check=True)
        stage = tree / "pip-stage"
        shutil.rmtree(stage, ignore_errors=True)
        subprocess.run(["cmake", "--install", str(tree), "--component", "python", "--strip",
                        "--prefix", str(stage)], check=True)
        package = next(stage.rglob("zotdigest/__init__.py")).parent
        target = pathlib.Path(self.get_ext_fullpath(ext.name)).parent
        target.mkdir(parents=True, exist_ok=True)
        # Wheels hold no symbolic links: a library's versioned file goes in
        # under the name the extension asks for (its soname link), once.
        linked = {os.readlink(item) for item in package.iterdir() if item.is_symlink()}
        for item in package.iterdir():
            if item.name not in linked:
                shutil.copy2(item, target / item.name, follow_symlinks=True)


setup(
    name="zotdigest",
    version=version(),
    description="t-digest summaries of large collections of numbers",
    python_requires=">=3.11",
    install_requires=["numpy"],
    packages=["zotdigest"],
    package_dir={"zotdigest": "python/zotdigest"},
    package_data={"zotdigest": ["py.typed", "*.pyi"]},
    ext_modules=[Extension("zotdigest._core", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    zip_safe=False,
    # Away from the CMake tree in build/.
    options={"build": {"build_base": "build-pip"}},
)
