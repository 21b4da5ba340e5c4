"""Ctrl-C stops within a second, exits 130 and writes nothing."""
import os
import signal
import subprocess
import time

from conftest import TOOL, tool_env

# A second in a release build; sanitizer builds run the module's loops many
# times slower and may allow more.
LIMIT = float(os.environ.get("ZOTDIGEST_INTERRUPT_LIMIT", "1.0"))


def interrupt_after(args, feed, cwd, wait=1.0):
    proc = subprocess.Popen([str(TOOL), *map(str, args)], stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=tool_env(),
                            cwd=cwd)
    feed(proc)
    time.sleep(wait)
    start = time.monotonic()
    proc.send_signal(signal.SIGINT)
    out, err = proc.communicate(timeout=10)
    return proc.returncode, time.monotonic() - start, err.decode()


def test_ctrl_c_while_reading_a_slow_pipe(tmp_path):
    def feed(proc):
        proc.stdin.write(b"1 2 3\n4 5\n")
        proc.stdin.flush()  # and then nothing more: the pipe stays open

    rc, elapsed, err = interrupt_after(["build", "-o", "out.zd"], feed, tmp_path)
    assert rc == 130, err
    assert elapsed < LIMIT
    assert "interrupted" in err
    assert os.listdir(tmp_path) == []


def test_ctrl_c_during_a_long_computation(tmp_path):
    # /dev/zero never ends: the build is busy adding when Ctrl-C comes.
    for extra in ([], ["--seed", "1"]):
        rc, elapsed, err = interrupt_after(
            ["build", "/dev/zero", "--dtype", "float64", *extra, "-o", "out.zd"],
            lambda proc: None, tmp_path)
        assert rc == 130, err
        assert elapsed < LIMIT
        assert os.listdir(tmp_path) == []
