"""Shared fixtures of the report tool's tests: real runs of the player on
the engine model, and the tool run as a program."""
import os
import subprocess
import sys

import pytest

PLAYER = os.environ.get("QORA_PLAYER", "build/qora_player")
AUTHOR = os.path.join(os.path.dirname(PLAYER), "qora_pattern_author")
CORRUPTED_WORDS = (3, 4, 5, 40, 41, 100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 120, 121, 143)


def play(cwd, log, *args):
    with open(os.path.join(cwd, log), "w") as out:
        subprocess.run([PLAYER, *args], cwd=cwd, stdout=out, stderr=subprocess.STDOUT, check=False)
    return os.path.join(cwd, log)


def corrupt_text_golden(path, words):
    """Flips bit 3 of byte 0 of the given words of a one-region text golden
    (word w lies on data line w // 4; byte 0 of the line is its last token)."""
    lines = open(path).read().split("\n")
    first = next(i for i, line in enumerate(lines) if line.startswith("@")) + 1
    for w in words:
        row = list(lines[first + w // 4])
        pos = 33 - 9 * (w % 4)  # low nibble of the word's byte 0
        row[pos + 1] = "%x" % (int(row[pos + 1], 16) ^ 0x8)
        lines[first + w // 4] = "".join(row)
    open(path, "w").write("\n".join(lines))


@pytest.fixture(scope="session")
def runs(tmp_path_factory):
    """Logs and dumps of real runs: passing, failing with dumps, PMU normal
    and flusher, two code buffers, and no golden."""
    d = str(tmp_path_factory.mktemp("runs"))
    subprocess.run([AUTHOR, d], check=True, stdout=subprocess.DEVNULL)
    demo = os.path.join(d, "conv_demo")
    bad = os.path.join(d, "bad_golden.hex")
    open(bad, "w").write(open(os.path.join(demo, "golden.hex")).read())
    corrupt_text_golden(bad, CORRUPTED_WORDS)
    logs = {
        "pass": play(d, "pass.log", "-f", "Test", "-l", "3", "-d", "7", "-p", "1708", "-p", "0x1709"),
        "flusher": play(d, "flusher.log", "-f", "Test", "-l", "2", "-d", "5", "--flusher", "-p", "1708"),
        "two_code": play(d, "two_code.log", "-f", "Test", "-t", "2", "-c", "3", "-l", "2", "-d", "7"),
        "fail": play(d, "fail.log", "-f", os.path.join(demo, "pattern.hex"), "-g", bad, "-l", "3",
                     "--dump_output", "-d", "1"),
        "no_golden": play(d, "no_golden.log", "-f", os.path.join(demo, "pattern.hex"), "-l", "2", "-d", "0"),
    }
    return {"dir": d, "demo": demo, "bad_golden": bad, "logs": logs}


def report(*args, cwd=None):
    """Runs qora_report as a program: (exit status, stdout, stderr)."""
    proc = subprocess.run([sys.executable, "-m", "qora_report", *args], cwd=cwd, capture_output=True, text=True)
    return proc.returncode, proc.stdout, proc.stderr
