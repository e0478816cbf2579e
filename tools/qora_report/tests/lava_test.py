"""qora_report on LAVA job logs: the project's run script plays real
patterns with the host player, its console output is wrapped into job log
records the way LAVA's logger writes them, and what the report tool reads
back is checked against the player's own exit status for the same pattern
and against the per-run logs the script kept."""
import json
import os
import subprocess
import sys

import xml.etree.ElementTree as ET

import pytest
import yaml

from conftest import AUTHOR, PLAYER
from qora_report import lava
from qora_report.runlog import parse_log
from qora_report.summary import failed, summarize, write_junit

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPT = os.path.join(HERE, "..", "..", "..", "lava", "qora-player.sh")
# A result record as lava-run writes it, with the untagged-string marks.
RESULT = ('{"dt": "2026-01-01T00:00:00.5", "lvl": "results", "msg": {"case": "%s", "definition": '
          '"0_qora-player", "endtc": ! "12", "result": "%s", "starttc": ! "12"}}')
pytestmark = pytest.mark.skipif(not os.path.exists(PLAYER), reason="needs the built player")


def record(lvl, msg):
    """One log line the way LAVA's logger dumps a record."""
    return yaml.dump({"dt": "2026-01-01T00:00:00.1", "lvl": lvl, "msg": msg},
                     default_flow_style=True, default_style='"', width=10**6)[:-1]


@pytest.fixture(scope="module")
def job(tmp_path_factory):
    d = tmp_path_factory.mktemp("lava")
    subprocess.run([AUTHOR, str(d)], check=True, stdout=subprocess.DEVNULL)
    demo = d / "conv_demo"
    bad = d / "bad.hex"
    lines = (demo / "golden.hex").read_text().split("\n")
    lines[1] = lines[1][:-1] + ("0" if lines[1][-1] != "0" else "1")
    bad.write_text("\n".join(lines))
    (d / "golden.txt").write_text((demo / "golden.hex").read_text())
    (d / "hex_text.bin").write_text((demo / "golden.hex").read_text())
    entries = {  # pattern entry: (case, verdict the report must give)
        "Test": ("Test", "pass"),
        f"{demo}/pattern.hex:{demo}/golden.hex": ("pattern", "pass"),
        f"{demo}/pattern.hex:{bad}": ("pattern_2", "fail"),
        f"{demo}/pattern.hex:{d}/missing_golden.hex": ("pattern_3", "golden_error"),
        f"{d}/missing.hex": ("missing", "error"),
        f"{demo}/pattern.hex": ("pattern_4", "not_compared"),
        f"{demo}/pattern.hex:{d}/golden.txt": ("pattern_5", "golden_error"),
        f"{demo}/pattern.hex:{d}/hex_text.bin": ("pattern_6", "golden_error"),
        # one output, two goldens: the second does not load, the first verifies
        f"{demo}/pattern.hex:{demo}/golden.hex,{demo}/golden.hex": ("pattern_7", "golden_error"),
        # the loader's line ends in a blank, which neither reader keeps
        f"{demo}/pattern.hex:{d}/missing_golden.bin": ("pattern_8", "golden_error"),
    }
    statuses = {}
    for entry, (case, _) in entries.items():
        args = ["-f", entry.split(":")[0]] + [a for g in entry.split(":")[1:] for f in g.split(",") for a in ("-g", f)]
        statuses[case] = subprocess.run([PLAYER, *args, "-l", "2"], capture_output=True, timeout=300).returncode
    return {"dir": d, "lines": play(d, entries, "false"), "entries": entries, "statuses": statuses}


def play(d, entries, require_compare):
    """The job log of one run of the script over the entries, with the
    result record LAVA adds after each case; runs' logs in d/runs."""
    helpers = d / "bin"
    helpers.mkdir(exist_ok=True)
    for name in ("lava-test-case", "lava-test-set", "lava-test-raise"):
        (helpers / name).write_text('#!/bin/sh\necho "$*" >>"$LAVA_RECORD"\n')
        (helpers / name).chmod(0o755)
    (d / "record.txt").write_text("")
    env = dict(os.environ, PATH=f"{helpers}:{os.environ['PATH']}", LAVA_RECORD=str(d / "record.txt"))
    proc = subprocess.run(["dash", SCRIPT, "-p", PLAYER, "-f", " ".join(entries), "-l", "2", "-r", str(d / "runs"),
                           "-q", require_compare], env=env, check=True, capture_output=True, text=True, timeout=300)
    results = [line.split() for line in (d / "record.txt").read_text().splitlines()]
    log = [record("info", "start: 3 lava-test-retry (timeout 00:05:00) [common]")]
    for line in proc.stdout.splitlines():
        log.append(record("target", line))
        if line.startswith("QORA-LAVA end "):
            case = line.split()[2].split("=")[1]
            result = next(r[r.index("--result") + 1] for r in results if r[0] == case)
            log.append(RESULT % (case, result))
    return log


def write(job, name, lines):
    path = job["dir"] / name
    path.write_text("\n".join(lines) + "\n")
    return str(path)


@pytest.mark.parametrize("form", ["lava-run", "lava-server"])
def test_each_run_reads_as_its_own_log_with_the_players_exit_status(job, form):
    prefix = "- " if form == "lava-server" else ""
    path = write(job, f"board-{form}.yaml", [prefix + line for line in job["lines"]])
    assert lava.is_job_log(path)
    logs = {log["lava"]["case"]: log for log in lava.job_logs(path)}
    assert {case: log["verdict"] for case, log in logs.items()} == dict(job["entries"].values())
    assert {case: log["exit_status"] for case, log in logs.items()} == job["statuses"]
    for case, log in logs.items():
        assert log["board"] == f"board-{form}/{case}" and log["status"] == "complete"
        alone = parse_log(str(job["dir"] / "runs" / f"{case}.log"))
        assert log["loops"] == alone["loops"]
        assert log["lava"]["result"] == ("pass" if log["verdict"] in ("pass", "not_compared") else "fail")
    assert logs["missing"]["pattern"].endswith("missing.hex")
    assert len(logs["Test"]["loops"]) == 2 and logs["Test"]["loops"][0]["subcommands"][0]["execute_us"] > 0


def test_cut_and_garbled_logs_keep_what_they_hold(job):
    lines = list(job["lines"])
    lines.insert(3, '{"dt": "2026-01-01", "lvl": "target", "msg": "unterminated')
    lines.insert(5, "not a record at all")
    lines.insert(7, '{"dt": "2026-01-01", "lvl": "target", "msg": !!timestamp "2026-13-99"}')
    cut = next(i for i, line in enumerate(lines) if "QORA-LAVA end case=pattern " in line)
    path = write(job, "cut.yaml", lines[:cut + 2] + [lines[cut + 2][:25]])
    logs = lava.job_logs(path)
    assert [log["lava"]["case"] for log in logs] == ["Test", "pattern"]
    assert logs[0]["verdict"] == "pass" and logs[1]["status"] == "complete"
    path = write(job, "cut_mid_run.yaml", lines[:cut - 1])
    last = lava.job_logs(path)[-1]
    assert last["lava"]["case"] == "pattern" and last["status"] == "incomplete" and last["exit_status"] is None


def edited(lines, case, edit):
    """The job log with the end line of a case changed by edit(index, lines)."""
    lines = list(lines)
    edit(next(i for i, line in enumerate(lines) if f"QORA-LAVA end case={case} " in line), lines)
    return lines


def glue_to_previous(i, lines):
    """The end line joined to the output line before it, as a console shows
    a last line without a line feed."""
    before = yaml.safe_load(lines[i - 1])["msg"]
    lines[i - 1:i + 1] = [record("target", before + yaml.safe_load(lines[i])["msg"])]


def exit_1(i, lines):
    lines[i] = lines[i].replace("exit=0", "exit=1")


def drop_loader_lines(i, lines):
    """The run without the golden loader's lines: only the goldens count of
    the start line says a golden was given."""
    start = max(j for j in range(i) if "QORA-LAVA start " in lines[j])
    lines[start:i] = [line for line in lines[start:i] if "open file(" not in line]


@pytest.mark.parametrize("case, edit, verdict, status, reason", [
    ("missing", glue_to_previous, "error", 1, None),  # the loader's message still counts
    ("Test", exit_1, "error", 1, "exit status 1"),  # printed success, then exited 1
    ("pattern_3", drop_loader_lines, "golden_error", 0, "nothing compared although 1 golden file(s) were given"),
])
def test_end_lines_as_consoles_and_players_leave_them(job, case, edit, verdict, status, reason):
    path = write(job, "edited.yaml", edited(job["lines"], case, edit))
    summary = summarize([path])
    log = next(log for log in summary["logs"] if log["lava"]["case"] == case)
    assert (log["verdict"], log["exit_status"], log["status"]) == (verdict, status, "complete")
    junit = job["dir"] / "edited.xml"
    write_junit(summary, junit)
    suite = next(s for s in ET.parse(junit).getroot() if s.get("name").endswith("/" + case))
    assert suite.find("testcase[last()]/failure") is not None or suite.find("testcase[last()]/error") is not None
    assert log.get("reason") == reason and suite.find("testcase/skipped") is None


@pytest.mark.parametrize("lines, reason", [
    ([record("info", "start: 0 validate"), record("target", "login:")], "no run of the player"),
    ([record("info", "start: 0 validate"), "\x00\xff" * 40], "no run of the player"),
])
def test_job_logs_without_a_run_are_unreadable_not_a_traceback(job, lines, reason):
    path = write(job, "empty_job.yaml", lines)
    proc = subprocess.run([sys.executable, "-m", "qora_report", "summary", path], capture_output=True, text=True)
    assert proc.returncode == 2 and reason in proc.stderr and "Traceback" not in proc.stderr


def test_summary_of_a_job_log_writes_json_and_junit_and_fails_with_its_failures(job):
    path = write(job, "nightly.yaml", job["lines"])
    out = job["dir"] / "summary.json"
    proc = subprocess.run([sys.executable, "-m", "qora_report", "summary", path, "--json", str(out),
                           "--junit", str(job["dir"] / "junit.xml")], capture_output=True, text=True)
    assert proc.returncode == 1, proc.stderr
    logs = json.load(open(out))["logs"]
    assert [log["board"] for log in logs] == [f"nightly/{case}" for case, _ in job["entries"].values()]
    assert (job["dir"] / "junit.xml").read_text().count("<testsuite ") == len(job["entries"])
    console = write(job, "plain.log", [open(job["dir"] / "runs" / "Test.log").read()])
    assert not lava.is_job_log(console)


@pytest.mark.parametrize("require_compare", ["false", "true"])
def test_run_script_and_report_pass_and_fail_the_same_runs(job, require_compare):
    """The script's case results, qora_report's rule on its reading of the
    same job log, and the JUnit suites all agree; a passing case is one the
    player itself ended with exit status 0."""
    lines = job["lines"] if require_compare == "false" else play(job["dir"], job["entries"], require_compare)
    path = write(job, f"agree-{require_compare}.yaml", lines)
    summary = summarize([path])
    junit = job["dir"] / f"agree-{require_compare}.xml"
    write_junit(summary, junit, require_compare == "true")
    suites = {suite.get("name").split("/")[-1]: suite for suite in ET.parse(junit).getroot()}
    results = {}
    for log in summary["logs"]:
        case = log["lava"]["case"]
        script = log["lava"]["result"]
        results[case] = script
        assert script == ("fail" if failed(log, require_compare == "true") else "pass"), case
        bad = int(suites[case].get("failures")) + int(suites[case].get("errors"))
        assert (bad > 0) == (script == "fail"), case
        assert script == "fail" or job["statuses"][case] == 0, case
        if log["verdict"] == "golden_error":
            assert log["lava"]["reason"] == "golden error: " + log["reason"], case
    assert results["pattern_4"] == ("fail" if require_compare == "true" else "pass")
    # The script's measurement of a real player's run: its mean execute time.
    test = next(r for r in (job["dir"] / "record.txt").read_text().splitlines() if r.startswith("Test "))
    assert float(test.split("--measurement ")[1].split()[0]) > 0
    assert sorted(case for case, r in results.items() if r == "pass") == (
        ["Test", "pattern"] + ([] if require_compare == "true" else ["pattern_4"]))
