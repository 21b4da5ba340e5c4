"""The progress line: on a terminal's standard error during long reads,
never on a pipe, never with --quiet, wiped when the work fails.

Standard error is the slave side of a pseudo-terminal; what arrives on the
master side is replayed on a tiny screen (carriage return goes back to the
start of the line, characters overwrite), so the tests look at what a
person would see, not at the bytes alone.
"""
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


def screen(raw):
    """The lines a terminal shows for `raw` (with the pty's \\r\\n line ends)."""
    lines, line, col = [], [], 0
    for ch in raw.decode(errors="replace"):
        if ch == "\r":
            col = 0
        elif ch == "\n":
            lines.append("".join(line).rstrip())
            line, col = [], 0
        else:
            if col < len(line):
                line[col] = ch
            else:
                line.append(ch)
            col += 1
    if line:
        lines.append("".join(line).rstrip())
    return lines


def slow_pieces(payload, pieces):
    """Cuts `payload` into `pieces` parts (of a whole chunk of values each
    for raw_values())."""
    step = len(payload) // pieces
    return [payload[i * step:(i + 1) * step if i + 1 < pieces else len(payload)]
            for i in range(pieces)]


def raw_values():
    return np.random.default_rng(5).lognormal(size=PIECES * CHUNK).tobytes()


def npy_values():
    buf = io.BytesIO()
    np.save(buf, np.random.default_rng(6).normal(size=PIECES * CHUNK))
    return buf.getvalue()


def run_tool(args, payload, cwd, terminal=True, interrupt=False, pieces=PIECES):
    """Runs the tool with `payload` fed slowly to standard input and
    standard error on a pseudo-terminal (or a pipe). With `interrupt`, the
    pipe stays open after the payload and Ctrl-C follows half a second
    later. Returns the exit status, standard output and what reached
    standard error."""
    if terminal:
        master, slave = pty.openpty()
    proc = subprocess.Popen([str(TOOL), *map(str, args)], stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE,
                            stderr=slave if terminal else subprocess.PIPE, env=tool_env(),
                            cwd=cwd)
    if terminal:
        os.close(slave)  # the tool holds the only other end now
    out, err = bytearray(), bytearray()

    def feed():
        try:
            for i, piece in enumerate(slow_pieces(payload, pieces)):
                if i > 0:
                    time.sleep(PAUSE)
                proc.stdin.write(piece)
                proc.stdin.flush()
            if not interrupt:
                proc.stdin.close()
        except BrokenPipeError:  # the tool stopped reading (bad input)
            pass

    def drain(fd, into):
        while True:
            try:
                data = os.read(fd, 65536)
            except OSError:  # EIO from a pty whose slave side is gone
                return
            if not data:
                return
            into.extend(data)

    threads = [threading.Thread(target=feed),
               threading.Thread(target=drain, args=(proc.stdout.fileno(), out)),
               threading.Thread(target=drain,
                                args=(master if terminal else proc.stderr.fileno(), err))]
    for t in threads:
        t.start()
    threads[0].join()
    if interrupt:
        time.sleep(0.5)
        proc.send_signal(signal.SIGINT)
    proc.wait(timeout=120)
    try:
        proc.stdin.close()
    except BrokenPipeError:
        pass
    for t in threads[1:]:
        t.join()
    if terminal:
        os.close(master)
    return proc.returncode, out.decode(), bytes(err)


# "zotdigest: 4,194,304 values read in 1.3 s (3.21 M values/s)"
FINAL = re.compile(r"^zotdigest: ([\d,]+) values read in [\d.:]+ s? ?"
                   r"\([\d.]+( [kMG])? values/s\)$")


@pytest.mark.parametrize(
    "args, payload",
    [
        (["build", "-", "--dtype", "float64", "-o", "out.zd"], raw_values),
        (["build", "-", "--dtype", "float64", "--seed", "3", "-o", "out.zd"], raw_values),
        (["build", "-", "--columns", "-o", "out.zd"], npy_values),
        (["quantile", "-", "0.5", "--json", "--dtype", "float64"], raw_values),
    ],
    ids=["parallel", "serial", "columns", "query"],
)
def test_a_long_read_shows_progress_and_ends_with_the_total(tmp_path, args, payload):
    rc, out, err = run_tool(args, payload(), tmp_path)
    assert rc == 0, err
    assert b"\r" in err  # redrawn in place
    assert err.endswith(b"\r\n")  # and finished with a line end
    lines = screen(err)
    assert len(lines) == 1, lines  # every drawing landed on the same line
    m = FINAL.match(lines[0])
    assert m, lines
    assert int(m.group(1).replace(",", "")) == PIECES * CHUNK
    # The running count showed a part of the input before the end.
    counts = [int(c.replace(",", "")) for c in
              re.findall(r"zotdigest: ([\d,]+) values read,", err.decode())]
    assert counts and counts == sorted(counts) and counts[0] < PIECES * CHUNK
    if args[0] == "quantile":
        assert out.lstrip().startswith("{")  # standard output stays clean


def test_a_quick_run_prints_nothing_on_the_terminal(tmp_path):
    rc, _, err = run_tool(["build", "-", "-o", "out.zd"], b"1 2 3\n" * 1000, tmp_path, pieces=1)
    assert rc == 0 and err == b"", err


@pytest.mark.parametrize("quiet", ["--quiet", "-q"])
def test_quiet_silences_the_terminal(tmp_path, quiet):
    rc, _, err = run_tool(["build", "-", "--dtype", "float64", quiet, "-o", "out.zd"],
                          raw_values(), tmp_path)
    assert rc == 0 and err == b"", err


def test_a_pipe_gets_no_progress(tmp_path):
    rc, _, err = run_tool(["build", "-", "--dtype", "float64", "-o", "out.zd"], raw_values(),
                          tmp_path, terminal=False)
    assert rc == 0 and err == b"", err


def test_an_interrupt_wipes_the_line_before_the_message(tmp_path):
    # The pipe stays open after the last piece: the tool is waiting for
    # more, or still adding, when Ctrl-C comes, with the line on the screen.
    rc, _, err = run_tool(["build", "-", "--dtype", "float64", "-o", "out.zd"], raw_values(),
                          tmp_path, interrupt=True)
    assert rc == 130, err
    assert b"values read," in err  # the line was shown
    assert screen(err) == ["zotdigest: interrupted"]
    assert not (tmp_path / "out.zd").exists()


def test_bad_input_after_progress_starts_on_a_clean_line(tmp_path):
    # Two whole chunks, then a partial element: refused after the line showed.
    payload = raw_values()[: 3 * CHUNK * 8] + b"\x01\x02\x03"
    rc, _, err = run_tool(["build", "-", "--dtype", "float64", "-o", "out.zd"], payload, tmp_path)
    assert rc == 2, err
    lines = screen(err)
    assert len(lines) == 1 and lines[0].startswith("zotdigest: standard input: raw float64"), lines
