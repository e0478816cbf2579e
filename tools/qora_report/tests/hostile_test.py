"""qora_report on hostile input: arbitrary bytes and cut points through the
log reader, the golden reader and the JUnit writer (hypothesis), files that
change while read, interrupts, closed pipes, and the version."""
import contextlib
import io
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as ET

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings, strategies as st

from qora_report import cli
from qora_report import compare as compare_module
from qora_report import golden as golden_module
from qora_report.golden import GoldenError, read_text_golden
from qora_report.runlog import LogError, parse_log
from qora_report.summary import write_junit

VERDICTS = {"pass", "not_compared", "fail", "error", "incomplete", "golden_error"}
SOURCE = os.environ.get("QORA_SOURCE_DIR", ".")
HYPOTHESIS = settings(max_examples=150, deadline=None, database=None,
                      suppress_health_check=[HealthCheck.function_scoped_fixture])

# A log with every kind of line the reader takes apart.
SAMPLE_LOG = (b"\r[####      ][40%]\r[##########][100%]\nopen file(g.hex) error\n"
              b"[I:BuildCmd:31] Get pattern : demo\n[D:AllocDataMem:132] 40000000\n: dev va = 0x80000000 sz = 64\n"
              b"[D:PrepareSubCmdBuf:222] codebuf ofs 0x4 = 0x80001000\n[I:RunCmd:399] Run command\n"
              b"[D:RunCmd:362] execute   = 1[us]\n[I:ShowPMUEventCount:101] pmu freq = 1000000\n"
              b"[I:ShowPMUEventCount:103] burst_mode = 0x2\n"
              b"[I:ShowPMUEventCount:120] ---- flow id = 0000 (cmd_log = 0x51000000), time = 5 us ----\n"
              b"[I:ShowPMUEventCount:124] evt:0x0103, cnt: 1\n[I:ShowPMUEventCount:127] ---- ip time = 5 us ----\n"
              b"[I:CompareEachOutput:91] ---- start to compare result (0) ----\n"
              b"[W:CompareEachOutput:112]   3: output = ff00ff00, golden = ff00ff08, mask = ffffffff\n"
              b"[W:Execute:52] QORA loop 0 !! Compare golden Fail !!\n")


def _file(data, suffix=".log"):
    f = tempfile.NamedTemporaryFile(suffix=suffix, delete=False)
    f.write(data)
    f.close()
    return f.name


def _main(*argv):
    """The command line in this process: (status, stdout, stderr)."""
    out, err = io.StringIO(), io.StringIO()
    with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
        status = cli.main(list(argv))
    return status, out.getvalue(), err.getvalue()


@HYPOTHESIS
@given(cut=st.integers(0, len(SAMPLE_LOG)), noise=st.binary(max_size=200), at=st.integers(0, len(SAMPLE_LOG)))
def test_any_cut_and_bytes_in_a_log(cut, noise, at):
    text = SAMPLE_LOG[:at] + noise + SAMPLE_LOG[at:]
    path = _file(text[:cut + len(noise)])
    try:
        log = parse_log(path)
        assert log["verdict"] in VERDICTS
        status, _, err = _main("summary", path, "--junit", path + ".xml", "--json", path + ".json")
        assert status in (0, 1) and err == ""
        ET.parse(path + ".xml")
        json.load(open(path + ".json"))
    except LogError as e:
        assert str(e).startswith(path)
        assert _main("summary", path)[0] == 2
    finally:
        for p in (path, path + ".xml", path + ".json"):
            if os.path.exists(p):
                os.unlink(p)


@HYPOTHESIS
@given(text=st.text(), board=st.text(min_size=1, max_size=20))
def test_junit_holds_any_text_visibly(text, board):
    log = {"file": "x.log", "board": board, "status": "complete", "pattern": text, "verdict": "error",
           "exit_status": 1, "messages": [text], "loader_messages": [], "loops": [
               {"index": 0, "verdict": "error", "subcommands": [], "outputs": [], "messages": [text], "dumps": []}]}
    path = _file(b"", ".xml")
    try:
        write_junit({"logs": [log]}, path)
        case = ET.parse(path).getroot().find("testsuite/testcase")
        shown = case.find("error").text or ""
        legal = re.sub("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]", "", text)
        if legal == text:
            assert shown.replace("\r", "\n") == text.replace("\r\n", "\n").replace("\r", "\n")
        else:
            assert "\\x" in shown or "\\u" in shown
    finally:
        os.unlink(path)


@HYPOTHESIS
@given(lines=st.lists(st.one_of(st.binary(max_size=140), st.sampled_from(
    [b"@40009000", b"@4000A000", b"00000000_11111111_22222222_3333333x", b"// c"])), max_size=30),
       sizes=st.integers(1, 300))
def test_golden_reader_on_any_bytes(lines, sizes):
    """Every path of the reader reads the same thing or refuses the same way."""
    path = _file(b"\n".join(lines), ".hex")
    try:
        seen = []
        for fast in (True, False):
            try:
                regions = read_text_golden(path, lambda name: sizes, fast)
                seen.append([(r.name, r.data.tobytes(), r.mask_bytes(0, r.length).tobytes()) for r in regions])
            except GoldenError as e:
                seen.append(str(e))
        assert seen[0] == seen[1]
    finally:
        os.unlink(path)


@HYPOTHESIS
@given(dump=st.binary(max_size=64), golden=st.binary(max_size=300), kind=st.sampled_from([".bin", ".hex"]))
def test_diff_on_any_bytes(dump, golden, kind):
    dump_path, golden_path = _file(dump, ".bin"), _file(golden, kind)
    try:
        status, _, err = _main("diff", dump_path, golden_path, "--region", "0")
        assert status in (0, 1) if not err else status == 2
        assert err.count("\n") <= 1 and (not err or dump_path in err or golden_path in err)
    finally:
        os.unlink(dump_path)
        os.unlink(golden_path)


@pytest.mark.parametrize("text,verdict,settings_shown", ids=["loader only", "huge numbers", "CR LF address"],
                         argvalues=[
    # The player still loading: its progress bar only.
    ("\r[####          ][20%]\r[#####         ][30%]", "incomplete", set()),
    # Numbers of any size read as what they are, or not at all.
    ("[I:RunCmd:399] Run command\n[D:RunCmd:362] execute   = 99999999999999999999[us]\n"
     "[D:RunCmd:404] ran on core" + "9" * 5000 + "\n", "incomplete", set()),
    # An address text ending in CR LF, as a DOS pattern file gives it.
    ("[D:AllocDataMem:132] 40000000\r\n: dev va = 0x80000000 sz = 64\n", "incomplete",
     {"buffers", "outputs", "relocations"}),
])
def test_log_shapes(tmp_path, text, verdict, settings_shown):
    path = tmp_path / "board.log"
    path.write_text(text)
    log = parse_log(str(path))
    assert log["verdict"] == verdict
    assert {"buffers", "outputs", "relocations"} & set(log["settings"]) == settings_shown
    status, _, err = _main("plot", str(path), "-o", str(tmp_path / "charts"))
    assert status == 1 and err == ""


def test_a_log_without_line_feeds_leaves_the_others_reported(runs, tmp_path):
    endless = tmp_path / "endless.log"
    with open(endless, "wb") as f:
        for _ in range(64):
            f.write(b"[I:x:1] " + b"y" * (1 << 20))  # 64 MiB, read a piece at a time
    doc = tmp_path / "s.json"
    status, _, err = _main("summary", str(endless), runs["logs"]["pass"], "--json", str(doc))
    logs = json.loads(doc.read_text())["logs"]
    assert status == 1 and [log["verdict"] for log in logs] == ["incomplete", "pass"]


@pytest.mark.parametrize("which", ["dump", "golden"])
def test_a_file_that_changes_while_read(tmp_path, monkeypatch, which):
    """The file shrinks after the first chunk: an error naming it, never a count."""
    words = np.arange(1 << 19, dtype="<u4")
    dump, golden = tmp_path / "output0_0.bin", tmp_path / "g.bin"
    words.tofile(str(dump))
    words.tofile(str(golden))
    victim = dump if which == "dump" else golden
    read = compare_module._read

    def read_then_cut(f, buf, size):
        raw = read(f, buf, size)
        os.truncate(victim, 4096)
        return raw
    monkeypatch.setattr(compare_module, "_read", read_then_cut)
    status, out, err = _main("diff", str(dump), str(golden))
    assert (status, out) == (2, "") and err == f"qora_report: {victim}: changed while it was read\n"


def test_a_text_golden_that_changes_while_read(tmp_path, monkeypatch):
    dump, golden = tmp_path / "output0_0.bin", tmp_path / "g.hex"
    np.zeros(4096, "<u4").tofile(str(dump))
    golden.write_text("@40009000\n" + "00000000_00000000_00000000_00000000\n" * 1024)
    monkeypatch.setattr(golden_module, "CHUNK", 4096)
    chunk = golden_module._TextReader.chunk

    def chunk_then_grow(self, buf):
        chunk(self, buf)
        if golden.stat().st_size < 40000:
            with open(golden, "a") as f:
                f.write("ffffffff_ffffffff_ffffffff_ffffffff\n")
    monkeypatch.setattr(golden_module._TextReader, "chunk", chunk_then_grow)
    status, _, err = _main("diff", str(dump), str(golden))
    assert status == 2 and err == f"qora_report: {golden}: changed while it was read\n"


def test_an_empty_dump_is_blamed_not_the_golden(runs, tmp_path):
    empty = tmp_path / "output0_0.bin"
    empty.write_bytes(b"")
    status, _, err = _main("diff", str(empty), os.path.join(runs["demo"], "golden.hex"))
    assert status == 2 and err.startswith(f"qora_report: {empty}: ")


def _big_diff(tmp_path):
    dump, golden = tmp_path / "output0_0.bin", tmp_path / "g.bin"
    np.zeros(1 << 22, "<u4").tofile(str(dump))
    np.ones(1 << 22, "<u4").tofile(str(golden))  # every word differs: 4 million lines
    return [sys.executable, "-m", "qora_report", "diff", str(dump), str(golden)]


def test_ctrl_c_ends_with_one_line(tmp_path):
    proc = subprocess.Popen(_big_diff(tmp_path), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    proc.stdout.readline()  # the listing has begun
    proc.send_signal(signal.SIGINT)
    _, err = proc.communicate()
    assert (proc.returncode, err) == (130, "qora_report: interrupted\n")


def test_a_closed_pipe_is_quiet_and_keeps_the_status(tmp_path):
    proc = subprocess.Popen(_big_diff(tmp_path), stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert proc.stdout.readline().split()[0] == b"0"
    proc.stdout.close()
    start = time.monotonic()
    err = proc.stderr.read()
    assert (proc.wait(), err) == (1, b"") and time.monotonic() - start < 120


def test_version_and_package_metadata_are_the_projects():
    """The launcher's --version and pyproject.toml's version are the
    project's, and its console script names the entry point the launcher calls."""
    import tomllib
    project = re.search(r"project\(\S+ VERSION (\S+)", open(os.path.join(SOURCE, "CMakeLists.txt")).read()).group(1)
    launcher = os.environ.get("QORA_REPORT", "build/qora_report")
    out = subprocess.run([launcher, "--version"], capture_output=True, text=True, check=True).stdout
    assert out == f"qora_report {project}\n"
    package = os.path.join(SOURCE, "tools", "qora_report")
    with open(os.path.join(package, "pyproject.toml"), "rb") as f:
        meta = tomllib.load(f)["project"]
    module, function = meta["scripts"]["qora_report"].split(":")
    assert meta["version"] == project
    assert f"from {module} import {function}" in open(os.path.join(package, "qora_report.in")).read()


def test_out_of_memory_names_the_files(tmp_path):
    """A region as long as a 1 GiB dump, under a 700 MB address-space limit."""
    import resource
    dump, golden = tmp_path / "sparse.bin", tmp_path / "tiny.hex"
    with open(dump, "wb") as f:
        f.truncate(1 << 30)  # sparse: no disk space taken
    golden.write_text("@40009000\n" + "0" * 8 + ("_" + "0" * 8) * 3 + "\n")
    limit = lambda: resource.setrlimit(resource.RLIMIT_AS, (700 << 20, 700 << 20))  # noqa: E731
    proc = subprocess.run([sys.executable, "-m", "qora_report", "diff", str(dump), str(golden)],
                          preexec_fn=limit, capture_output=True, text=True)
    assert (proc.returncode, proc.stderr) == (2, f"qora_report: {dump}: out of memory comparing it with {golden}\n")
