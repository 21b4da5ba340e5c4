"""What a person at a terminal sees: the progress line on standard error
during long reads (never on a pipe, never with --quiet, wiped when the work
stops), and Ctrl-C stopping the work with exit status 130. Standard
error is a pseudo-terminal whose output is replayed on a tiny screen, so the
tests look at what a person would see, not at the bytes alone."""
import io
import os
import pty
import re
import signal
import subprocess
import threading
import time

import numpy as np
import pytest

from conftest import TOOL, tool_env

CHUNK = 1 << 20  # values per chunk the tool adds
PIECES = 4
PAUSE = 0.3  # seconds between pieces: the whole read lasts over the half second of silence
HANG = 120  # seconds: only a guard against a tool that never ends
RAW = np.random.default_rng(5).lognormal(size=PIECES * CHUNK).tobytes()
NPY = io.BytesIO()
np.save(NPY, np.random.default_rng(6).normal(size=PIECES * CHUNK))
# "zotdigest: 4,194,304 values read in 1.3 s (3.21 M values/s)"
FINAL = re.compile(r"^zotdigest: ([\d,]+) values read in [\d.:]+ s? ?"
                   r"\([\d.]+( [kMG])? values/s\)$")


def screen(raw):
    """The lines a terminal shows for `raw`: a carriage return goes back to
    the start of the line, and what follows overwrites it."""
    lines = []
    for text in raw.decode(errors="replace").split("\n"):
        line = ""
        for part in text.split("\r"):
            line = part + line[len(part):]
        lines.append(line.rstrip())
    return lines if lines[-1] else lines[:-1]


def run_tool(args, payload, cwd, terminal=True, interrupt=False, pieces=PIECES):
    """Runs the tool with `payload` fed slowly to standard input (None: no
    input), standard error on a pseudo-terminal (or a pipe). With
    `interrupt`, the pipe stays open and Ctrl-C follows once the progress
    line is on the screen. Gives the exit status, standard output and what
    reached standard error."""
    master, slave = pty.openpty() if terminal else (None, subprocess.PIPE)
    proc = subprocess.Popen([str(TOOL), *map(str, args)],
                            stdin=subprocess.DEVNULL if payload is None else subprocess.PIPE,
                            stdout=subprocess.PIPE, stderr=slave, env=tool_env(), cwd=cwd)
    if terminal:
        os.close(slave)  # the tool holds the only other end now
    out, err = bytearray(), bytearray()

    def drain(fd, into):
        try:
            while data := os.read(fd, 65536):
                into.extend(data)
        except OSError:  # EIO from a pty whose slave side is gone
            pass

    err_fd = master if terminal else proc.stderr.fileno()
    readers = [threading.Thread(target=drain, args=(fd, into))
               for fd, into in [(proc.stdout.fileno(), out), (err_fd, err)]]
    for t in readers:
        t.start()
    if payload is not None:
        step = len(payload) // pieces
        for i in range(pieces):
            time.sleep(PAUSE if i else 0)
            proc.stdin.write(payload[i * step:(i + 1) * step if i + 1 < pieces else None])
            proc.stdin.flush()
    if interrupt:
        deadline = time.monotonic() + HANG
        while b"values read," not in err and proc.poll() is None and time.monotonic() < deadline:
            time.sleep(0.01)
        proc.send_signal(signal.SIGINT)
    if payload is not None:
        proc.stdin.close()
    proc.wait(timeout=HANG)
    for t in readers:
        t.join()
    if terminal:
        os.close(master)
    return proc.returncode, out.decode(), bytes(err)


@pytest.mark.parametrize("args", [
    ["build", "-", "--dtype", "float64", "-o", "out.zd"],
    ["build", "-", "--columns", "-o", "out.zd"],
    ["quantile", "-", "0.5", "--json", "--dtype", "float64"],
], ids=["one-digest", "columns", "query"])
def test_a_long_read_shows_progress_and_ends_with_the_total(tmp_path, args):
    rc, out, err = run_tool(args, NPY.getvalue() if "--columns" in args else RAW, tmp_path)
    assert rc == 0, err
    assert b"\r" in err and err.endswith(b"\r\n")  # redrawn in place, then a line end
    lines = screen(err)
    assert len(lines) == 1 and FINAL.match(lines[0]), lines  # all drawn on one line
    assert int(FINAL.match(lines[0]).group(1).replace(",", "")) == PIECES * CHUNK
    # The running count showed a part of the input before the end.
    counts = [int(c.replace(",", "")) for c in
              re.findall(r"zotdigest: ([\d,]+) values read,", err.decode())]
    assert counts and counts == sorted(counts) and counts[0] < PIECES * CHUNK
    assert args[0] != "quantile" or out.lstrip().startswith("{")  # standard output stays clean


@pytest.mark.parametrize("case", ["quick", "--quiet", "-q", "pipe"])
def test_no_progress_for_a_quick_run_with_quiet_or_on_a_pipe(tmp_path, case):
    quick, options = case == "quick", [case] if case.startswith("-") else []
    rc, _, err = run_tool(["build", "-", "--dtype", "float64", *options, "-o", "out.zd"],
                          RAW[:8000] if quick else RAW, tmp_path, terminal=case != "pipe",
                          pieces=1 if quick else PIECES)
    assert rc == 0 and err == b"", err


@pytest.mark.parametrize("source, options", [("-", []), ("/dev/zero", []), ("/dev/zero", ["--seed", "1"])],
                         ids=["slow-pipe", "parallel", "serial"])
def test_ctrl_c_wipes_the_line_exits_130_and_keeps_the_old_file(tmp_path, source, options):
    # The slow pipe stays open after the last piece: the tool is waiting for
    # more, or still adding; /dev/zero never ends: the build is busy adding.
    (tmp_path / "out.zd").write_bytes(b"old")
    rc, _, err = run_tool(["build", source, "--dtype", "float64", *options, "-o", "out.zd"],
                          RAW if source == "-" else None, tmp_path, interrupt=True)
    assert rc == 130, err
    assert b"values read," in err  # the line was shown
    assert screen(err) == ["zotdigest: interrupted"]
    assert os.listdir(tmp_path) == ["out.zd"] and (tmp_path / "out.zd").read_bytes() == b"old"
