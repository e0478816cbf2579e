"""The report against what the engine model says happened.

Each case plays the player on the engine model with its call trace
(KVX_MODEL_TRACE) and instruction trace (KVX_MODEL_ITRACE) on, then checks
the summary's JSON and JUnit against the traces and the player's exit
status: runs, sub-commands, cores, run information, PMU buffers and
instruction counts, and which outputs differ from their goldens in the
dumps. None of the expected values comes from reading the log.
"""
import json
import os
import re
import shutil
import signal
import subprocess
import time

import numpy as np
import pytest
from junitparser import Error, Failure, JUnitXml, Skipped

from conftest import AUTHOR, PLAYER, corrupt_text_golden, report

FLUSHER_BYTES, NORMAL_BYTES = 0xF0000, 64
SEVEN_EVENTS = ["0101", "0102", "0103", "1001", "1002", "1708", "2001"]


def _pmu(*events):
    return [a for e in events for a in ("-p", e)]


# name: (player arguments, the verdict and report status the run deserves)
CASES = {
    "pass": (["-f", "Test", "-l", "2", "-d", "5"], "pass", 0),
    "fail_one_output": (["-f", "{demo}/pattern.hex", "-g", "{dir}/bad.hex", "--dump_output", "-d", "7"], "fail", 1),
    "fail_two_outputs": (["-f", "{dir}/two.hex", "-g", "{dir}/two_bad.hex", "--dump_output", "-d", "5"], "fail", 1),
    "pass_two_outputs": (["-f", "{dir}/two.hex", "-g", "{dir}/two_good.hex", "-l", "2", "-d", "5"], "pass", 0),
    "golden_missing": (["-f", "{demo}/pattern.hex", "-g", "{dir}/p_goldn.hex", "-d", "5"], "golden_error", 1),
    "golden_unknown_kind": (["-f", "{demo}/pattern.hex", "-g", "{dir}/golden.txt", "-d", "5"], "golden_error", 1),
    "hex_text_named_bin": (["-f", "{demo}/pattern.hex", "-g", "{dir}/golden_text.bin", "-d", "5"],
                           "golden_error", 1),
    "second_golden_missing": (["-f", "{dir}/two.hex", "-g", "{dir}/two_good.hex", "-g", "{dir}/none.hex", "-d", "5"],
                              "golden_error", 1),
    "no_golden": (["-f", "{demo}/pattern.hex", "-l", "3", "-d", "5"], "not_compared", 0),
    "error_before_run": (["-f", "Test", "-d", "5"], "error", 1),
    "pmu_normal": (["-f", "Test", "-l", "2", "-d", "5"] + _pmu("0101", "0103", "1708"), "pass", 0),
    "flusher_burst2": (["-f", "Test", "-l", "2", "-d", "5", "--flusher"] + _pmu("0101", "0103", "1708"), "pass", 0),
    "flusher_burst4": (["-f", "Test", "-d", "5", "--flusher"] + _pmu(*SEVEN_EVENTS), "pass", 0),
    "many_flows_normal": (["-f", "MaxPower", "-d", "5"] + _pmu("0101", "0103", "1708", "1001"), "pass", 0),
    "many_flows_flusher": (["-f", "MaxPower", "-d", "5", "--flusher"] + _pmu("0101", "0103", "1708", "1001"),
                           "pass", 0),
    "two_code_buffers": (["-f", "Test", "-t", "2", "-c", "3", "-l", "2", "-d", "7", "-p", "0101"], "pass", 0),
}
MODEL_ENV = {"error_before_run": {"KVX_MODEL_FAIL": "korvexSession_memAlloc:2"}}


@pytest.fixture(scope="module")
def played(tmp_path_factory):
    """Every case played once: {name: (log path, exit status or None, call trace, instruction trace)}."""
    d = str(tmp_path_factory.mktemp("truth"))
    subprocess.run([AUTHOR, d], check=True, stdout=subprocess.DEVNULL)
    demo = os.path.join(d, "conv_demo")
    _write_goldens(d, demo)
    results = {}
    for name, (args, _, _) in CASES.items():
        run_dir = os.path.join(d, name)
        os.mkdir(run_dir)
        env = dict(os.environ, KVX_MODEL_TRACE=os.path.join(run_dir, "calls"),
                   KVX_MODEL_ITRACE=os.path.join(run_dir, "instructions"), **MODEL_ENV.get(name, {}))
        log = os.path.join(run_dir, name + ".log")
        with open(log, "w") as out:
            status = subprocess.run([PLAYER] + [a.format(dir=d, demo=demo) for a in args], cwd=run_dir, env=env,
                                    stdout=out, stderr=subprocess.DEVNULL).returncode
        results[name] = (log, status, _read(run_dir, "calls"), _read(run_dir, "instructions"))
    results["killed"] = _killed(d)
    return results


def _write_goldens(d, demo):
    """A second output (the model fills outputs with a5 bytes and the code
    leaves it so), goldens right and wrong for it, and goldens the player
    cannot load."""
    text = open(os.path.join(demo, "pattern.hex")).read()
    open(os.path.join(d, "two.hex"), "w").write(text.replace("// Data\n", "// @4000A000 {64}\n// Data\n", 1))
    second = "@4000A000\n" + "a5a5a5a5_a5a5a5a5_a5a5a5a5_a5a5a5a5\n" * 4
    good = open(os.path.join(demo, "golden.hex")).read().rstrip("\n") + "\n"
    shutil.copy(os.path.join(demo, "golden.hex"), os.path.join(d, "bad.hex"))
    corrupt_text_golden(os.path.join(d, "bad.hex"), [3, 9])
    open(os.path.join(d, "two_good.hex"), "w").write(good + second)
    open(os.path.join(d, "two_bad.hex"), "w").write(open(os.path.join(d, "bad.hex")).read().rstrip("\n")
                                                     + "\n" + second)
    shutil.copy(os.path.join(demo, "golden.hex"), os.path.join(d, "golden.txt"))
    shutil.copy(os.path.join(demo, "golden.hex"), os.path.join(d, "golden_text.bin"))


def _read(run_dir, name):
    path = os.path.join(run_dir, name)
    return open(path).read().splitlines() if os.path.exists(path) else []


def _killed(d):
    run_dir = os.path.join(d, "killed")
    os.mkdir(run_dir)
    log = os.path.join(run_dir, "killed.log")
    env = dict(os.environ, KVX_MODEL_TRACE=os.path.join(run_dir, "calls"))
    with open(log, "w") as out:
        proc = subprocess.Popen([PLAYER, "-f", "Test", "-l", "-1", "-d", "5"], cwd=run_dir, env=env, stdout=out)
        deadline = time.monotonic() + 60
        while os.path.getsize(log) < 5000 and time.monotonic() < deadline:
            time.sleep(0.05)
        proc.send_signal(signal.SIGKILL)
        proc.wait()
    return log, None, _read(run_dir, "calls"), []


def _calls(trace, op):
    """(arguments, result) of every traced call of `op`, in order."""
    found = []
    for line in trace:
        m = re.match(re.escape(op) + r"\((.*)\) = (.*)$", line)
        if m:
            found.append((m.group(1).split(", "), m.group(2)))
    return found


def _summary(tmp_path, log, *options):
    status, out, err = report("summary", log, "--json", str(tmp_path / "s.json"), "--junit", str(tmp_path / "s.xml"),
                              *options)
    assert "Traceback" not in err
    suite = next(iter(JUnitXml.fromfile(str(tmp_path / "s.xml"))))
    return status, out, json.loads((tmp_path / "s.json").read_text())["logs"][0], list(suite)


@pytest.mark.parametrize("name", list(CASES) + ["killed"])
def test_report_agrees_with_the_engine_model(played, tmp_path, name):
    log_path, player_status, calls, instructions = played[name]
    status, table, log, cases = _summary(tmp_path, log_path)
    runs = _calls(calls, "korvexCmd_run")
    engine = _calls(calls, "engine_run")
    # Runs: one loop per run the middleware saw. A killed player loses what
    # its buffered output still held, and may have printed "Run command" for
    # a run the trace has not finished.
    if name == "killed":
        assert 2 <= len(log["loops"]) <= len(runs) + 1
        assert (log["verdict"], log["exit_status"], log["status"], status) == ("incomplete", None, "incomplete", 1)
        assert [loop["verdict"] for loop in log["loops"]] == ["pass"] * (len(log["loops"]) - 1) + ["incomplete"]
        assert isinstance(cases[-1].result[0], Error)
        return
    _, verdict, report_status = CASES[name]
    assert len(log["loops"]) == len(runs) and len(cases) == max(1, len(runs))
    assert (log["verdict"], log["exit_status"], status) == (verdict, player_status, report_status)
    if verdict in ("pass", "not_compared"):
        assert log["loops_reported"] == len(runs) and all(loop["verdict"] == verdict for loop in log["loops"])
    # Sub-commands: the engine's runs, in order, with their cores and run information.
    subs = [s for loop in log["loops"] for s in loop["subcommands"]]
    assert [s["core"] for s in subs] == [int(args[1].split()[1]) for args, _ in engine]
    for field, info in (("driver_us", "SC_RUNINFO_DRIVERTIME"), ("ip_us", "SC_RUNINFO_IPTIME"),
                        ("bandwidth_mbps", "SC_RUNINFO_BANDWIDTH")):
        assert [s[field] for s in subs] == [int(r) for a, r in _calls(calls, "korvexSubCmd_getRunInfo") if a[1] == info]
    _check_pmu(name, calls, instructions, log, subs)
    _check_buffers(name, calls, log)
    _check_outputs(name, log_path, log)
    # JUnit: what each loop deserves.
    kinds = {"pass": type(None), "fail": Failure, "golden_error": Failure, "not_compared": Skipped, "error": Error}
    for case in cases:
        result = case.result[0] if case.result else None
        assert isinstance(result, kinds[verdict]), (name, case.name)
    if verdict == "golden_error":
        assert log["reason"] in log["loader_messages"] and log["reason"] in table
    if not runs:
        assert [c.name for c in cases] == ["build"] and "alloc" in cases[0].result[0].text


def _check_pmu(name, calls, instructions, log, subs):
    """The PMU mode from the result buffers the player attached, and the
    instruction counts (event 0x0101) from the instruction trace."""
    sizes = [int(a[1]) for a, _ in _calls(calls, "korvexSession_cmdBufAlloc") if a[2] == "1048576"]
    modes = {FLUSHER_BYTES: "flusher", NORMAL_BYTES: "normal"}
    assert all(s["pmu"]["mode"] == modes[sizes[0]] for s in subs) if sizes else all("pmu" not in s for s in subs)
    assert log["settings"]["flusher"] == (sizes[:1] == [FLUSHER_BYTES])
    args = CASES[name][0]
    assert log["settings"]["pmu_events"] == sorted("0x" + a for a, option in zip(args[1:], args) if option == "-p")
    if not sizes:
        return
    # Flusher records are written at each flow's end (FLOW): the run's
    # totals leave out what runs after the last one (its END).
    executed, counted = {}, {}
    for line in instructions:
        sub = line.split()[0]
        executed[sub] = executed.get(sub, 0) + 1
        if sizes[0] == NORMAL_BYTES or line.split()[2] == "FLOW":
            counted[sub] = executed[sub]
    names = [args[0] for args, _ in _calls(calls, "engine_run")]
    assert [s["pmu"]["counts"]["0x0101"] for s in subs] == [counted[n] for n in names]
    if sizes[0] == FLUSHER_BYTES:
        events = len(CASES[name][0]) - CASES[name][0].index("--flusher") - 1
        assert all(s["pmu"]["burst_mode"] == (2 if events // 2 <= 6 else 4) for s in subs)


def _check_buffers(name, calls, log):
    """Debug bit 2 shows every device buffer the middleware gave out, with
    its address and size; without it the log shows none."""
    if "7" not in CASES[name][0]:
        assert not {"buffers", "outputs", "relocations"} & set(log["settings"])
        return
    sizes = [int(a[1]) for a, _ in _calls(calls, "korvexSession_memAlloc")]
    addresses = [int(r) for a, r in _calls(calls, "korvexSession_memGetInfoFromHostPtr")
                 if a[2] == "KORVEX_MEM_INFO_GET_DEVICE_VA"]
    shown = log["settings"]["buffers"] + log["settings"]["outputs"]
    assert [(b["dev_va"], b["size"]) for b in shown] == list(zip(addresses, sizes))
    assert all(re.fullmatch("[0-9a-f]{8}", b["name"]) for b in log["settings"]["buffers"])


def _check_outputs(name, log_path, log):
    """An output fails exactly when its dump differs from its golden."""
    if CASES[name][1] != "fail":
        assert all(not o["failed"] for loop in log["loops"] for o in loop["outputs"])
        return
    run_dir = os.path.dirname(log_path)
    demo_words = _golden_words(os.path.join(os.path.dirname(run_dir), "bad.hex"))
    expected = [bool((np.fromfile(os.path.join(run_dir, "output0_0.bin"), "<u4") != demo_words).any())]
    if name == "fail_two_outputs":
        expected.append(bool((np.fromfile(os.path.join(run_dir, "output0_1.bin"), "<u4") != 0xA5A5A5A5).any()))
    outputs = log["loops"][0]["outputs"]
    assert [o["failed"] for o in outputs] == expected == [True] + [False] * (len(expected) - 1)
    assert all(o["mismatches"] for o in outputs if o["failed"])


def _golden_words(path):
    """The words of a plain one-region text golden (every nibble compared)."""
    rows = [line.strip().replace("_", "") for line in open(path) if line[:1] not in ("@", "/") and len(line) > 8]
    return np.frombuffer(b"".join(bytes.fromhex(r)[::-1] for r in rows), "<u4")


def test_require_compare_fails_runs_that_compared_nothing(played, tmp_path):
    log_path = played["no_golden"][0]
    assert _summary(tmp_path, log_path)[0] == 0
    status, _, log, cases = _summary(tmp_path, log_path, "--require-compare")
    assert status == 1 and log["verdict"] == "not_compared"
    assert all(isinstance(c.result[0], Failure) for c in cases)
    assert _summary(tmp_path, played["pass"][0], "--require-compare")[0] == 0


def test_flusher_totals_equal_the_normal_counts(played):
    """The same pattern played both ways counts the same work alike: a
    flusher sub-command's totals are its last flow's running totals (the
    instruction counts, checked above against the instruction trace, leave
    out what runs after the last flow)."""
    from qora_report.runlog import parse_log
    normal = parse_log(played["many_flows_normal"][0])
    flusher = parse_log(played["many_flows_flusher"][0])
    for a, b in zip(normal["loops"], flusher["loops"], strict=True):
        for sa, sb in zip(a["subcommands"], b["subcommands"], strict=True):
            work = {e: c for e, c in sb["pmu"]["counts"].items() if e != "0x0101"}
            assert work == {e: c for e, c in sa["pmu"]["counts"].items() if e != "0x0101"} and len(work) == 3
            assert len(sb["pmu"]["flows"]) >= 2
            assert sb["pmu"]["counts"]["0x0103"] == len(sb["pmu"]["flows"])
            assert sb["pmu"]["flows"][-1]["counts"] == sb["pmu"]["counts"]
