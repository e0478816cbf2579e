"""The LAVA run script's rules, checked with a fake player and fake LAVA
helpers, under dash and under busybox alone (a PATH of busybox applets)."""
import os
import shutil
import subprocess

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPT = os.path.join(HERE, "..", "qora-player.sh")
FAKE_PLAYER = os.path.join(HERE, "fake_player.sh")
HELPERS = {
    "lava-test-case": 'echo "case $*" >>"$LAVA_RECORD"',
    "lava-test-set": 'echo "set $*" >>"$LAVA_RECORD"',
    "lava-test-raise": 'echo "raise $*" >>"$LAVA_RECORD"',
}


def shells():
    found = ["dash"]
    if shutil.which("busybox"):
        found.append("busybox")
    return found


@pytest.fixture(params=shells())
def board(request, tmp_path):
    """A directory with the fake player and LAVA helpers on PATH; under
    busybox, PATH holds nothing but busybox applets and those."""
    bin_dir = tmp_path / "bin"
    bin_dir.mkdir()
    for name, body in HELPERS.items():
        (bin_dir / name).write_text("#!/bin/sh\n" + body + "\n")
        (bin_dir / name).chmod(0o755)
    shutil.copy(FAKE_PLAYER, bin_dir / "qora_player")
    path = str(bin_dir)
    if request.param == "busybox":
        applets = tmp_path / "applets"
        applets.mkdir()
        subprocess.run(["busybox", "--install", "-s", str(applets)], check=True)
        path += os.pathsep + str(applets)
        shell = [str(applets / "sh")]
    else:
        path += os.pathsep + os.environ["PATH"]
        shell = [shutil.which("dash")]
    return {"dir": tmp_path, "path": path, "shell": shell}


def run_script(board, *args):
    record = board["dir"] / "record.txt"
    record.write_text("")
    env = {"PATH": board["path"], "LAVA_RECORD": str(record),
           "FAKE_PLAYER_CALLS": str(board["dir"] / "calls.txt")}
    proc = subprocess.run(board["shell"] + [SCRIPT, "-r", str(board["dir"] / "logs"), *args],
                          cwd=board["dir"], env=env, capture_output=True, text=True, timeout=120)
    return proc, record.read_text().splitlines()


def cases(record):
    """Case name -> (result, measurement or None), with loop cases under
    their test set."""
    found, current_set = {}, None
    for line in record:
        words = line.split()
        if words[:2] == ["set", "start"]:
            current_set = words[2]
        elif words[:2] == ["set", "stop"]:
            current_set = None
        elif words[0] == "case":
            name = words[1] if current_set is None else f"{current_set}/{words[1]}"
            assert name not in found
            measurement = words[words.index("--measurement") + 1] if "--measurement" in words else None
            if measurement is not None:
                assert words[words.index("--units") + 1] == "us"
            found[name] = (words[words.index("--result") + 1], measurement)
    return found


# per-loop (result, time) of three loops
PASSED = [("pass", "100"), ("pass", "101"), ("pass", "102")]
FAILED = [("fail", "100"), ("fail", "101"), ("fail", "102")]
FIRST_FAILED = [("fail", "100"), ("skip", None), ("skip", None)]
# pattern entry, case name, result, mean, reason on the console, per-loop (result, time)
PATTERNS = [
    ("p/pass.hex:g.hex", "pass", "pass", "101.0", "verified 3 loops", PASSED),
    ("fail.hex:g.hex", "fail", "fail", "100.5", "compare golden fail in loop 1",
     [("pass", "100"), ("fail", "101"), ("skip", None)]),
    ("die.hex:g.hex", "die", "fail", "100.0", "killed by signal 11",
     [("pass", "100"), ("fail", None), ("skip", None)]),
    ("hup.hex:g.hex", "hup", "fail", "100.0", "killed by signal 1", FIRST_FAILED),
    ("cmdfail.hex", "cmdfail", "fail", "100.0", "command failed in loop 0", FIRST_FAILED),
    ("nogolden.hex:missing_g.hex", "nogolden", "fail", "101.0", "golden error: open file(missing_g.hex) error", FAILED),
    ("nogolden.hex:g.hex", "nogolden_2", "fail", "101.0",
     "golden error: nothing compared although 1 golden file(s) were given", FAILED),
    ("typo.hex:g.txt", "typo", "fail", "101.0", "golden error: Golden file type: Fail", FAILED),
    ("oversize.hex:g.hex", "oversize", "fail", "101.0",
     "golden error: Warning : read golden size(0x40) > output size(0x20)", FAILED),
    # a golden data line it could not scan: harmless when the run verified
    ("scan.hex:g.hex", "scan", "pass", "101.0", "verified 3 loops", PASSED),
    ("scan_done.hex:g.hex", "scan_done", "fail", "101.0", "golden error: load_golden_hex():65 sscanf fail", FAILED),
    ("plain.hex", "plain", "pass", "101.0", "nothing compared: no golden given", PASSED),
    ("missing.hex:g.hex", "missing", "fail", None, "pattern did not load", [("skip", None)] * 3),
    ("crash.hex:g.hex", "crash", "fail", "101.0", "exit status 1 after 3 runs",
     [("pass", "100"), ("pass", "101"), ("fail", "102")]),
    ("q/pass.bin:g1.hex,g2.hex", "pass_2", "pass", "101.0", "verified 3 loops", PASSED),
    ("Test", "Test", "pass", "101.0", "verified 3 loops", PASSED),
    ("r/pass_2.hex:g.hex", "pass_2_2", "pass", "101.0", "verified 3 loops", PASSED),
    ("s/.hex:g.hex", "pattern", "pass", "101.0", "verified 3 loops", PASSED),
    ("t/a+b=c.hex:g.hex", "a_b_c", "pass", "101.0", "verified 3 loops", PASSED),
]


def test_each_pattern_gets_its_result_measurement_reason_and_loop_cases(board):
    proc, record = run_script(board, "-f", " ".join(p[0] for p in PATTERNS), "-l", "3", "-t", "60", "-c", "true")
    assert proc.returncode == 0, proc.stderr
    found = cases(record)
    expected = {}
    for _, name, result, mean, reason, loops in PATTERNS:
        expected[name] = (result, mean)
        for i, loop in enumerate(loops):
            expected[f"{name}/{name}_loop{i}"] = loop
        assert f"\nQORA-LAVA end case={name} exit=" in proc.stdout
        assert f"result={result} reason={reason}\n" in proc.stdout
    assert found == expected
    calls = (board["dir"] / "calls.txt").read_text().splitlines()
    assert "q/pass.bin g1.hex g2.hex" in calls
    assert "die exit=139 " in proc.stdout


def test_a_hanging_player_is_killed_at_the_timeout_and_the_run_goes_on(board):
    proc, record = run_script(board, "-f", "hang.hex:g.hex pass.hex:g.hex", "-l", "3", "-t", "2", "-c", "true")
    assert cases(record) == {
        "hang": ("fail", "100.0"), "hang/hang_loop0": ("fail", "100"), "hang/hang_loop1": ("skip", None),
        "hang/hang_loop2": ("skip", None), "pass": ("pass", "101.0"), "pass/pass_loop0": ("pass", "100"),
        "pass/pass_loop1": ("pass", "101"), "pass/pass_loop2": ("pass", "102")}
    assert "QORA-LAVA end case=hang exit=143 result=fail reason=timed out after 2 s\n" in proc.stdout


def test_a_player_deaf_to_sigterm_is_killed_5_s_later(board):
    proc, record = run_script(board, "-f", "deaf.hex:g.hex", "-t", "1")
    assert cases(record) == {"deaf": ("fail", "100.0")}
    assert "QORA-LAVA end case=deaf exit=137 result=fail reason=timed out after 1 s\n" in proc.stdout


@pytest.mark.parametrize("require_compare, plain", [
    ("false", ("pass", "nothing compared: no golden given")),
    ("true", ("fail", "nothing compared: no golden given, and every pattern must compare")),
])
def test_require_compare_fails_a_pattern_without_golden_and_nothing_else(board, require_compare, plain):
    proc, record = run_script(board, "-f", "plain.hex pass.hex:g.hex", "-l", "2", "-c", "true", "-q", require_compare)
    assert cases(record) == {
        "plain": (plain[0], "100.5"), "plain/plain_loop0": (plain[0], "100"), "plain/plain_loop1": (plain[0], "101"),
        "pass": ("pass", "100.5"), "pass/pass_loop0": ("pass", "100"), "pass/pass_loop1": ("pass", "101")}
    assert f"case=plain exit=0 result={plain[0]} reason={plain[1]}\n" in proc.stdout


def test_loop_cases_off_gives_one_case_per_pattern(board):
    proc, record = run_script(board, "-f", "pass.hex:g.hex Test", "-l", "2")
    assert proc.returncode == 0, proc.stderr
    assert cases(record) == {"pass": ("pass", "100.5"), "Test": ("pass", "100.5")}
    assert not any(line.startswith("set ") for line in record)


@pytest.mark.parametrize("options, measured", [("", True), ("-d 1", False), ("-d 7", True)])
def test_user_debug_mask_wins_and_measurement_follows_it(board, options, measured):
    proc, record = run_script(board, "-f", "Test", "-o", options)
    assert cases(record) == {"Test": ("pass", "100.0" if measured else None)}


@pytest.mark.parametrize("console, shown, hidden", [
    ("full", ["Run command", "execute   = 101", "Verify pattern 2 times"], []),
    ("brief", ["Get pattern : fail.hex", "Compare golden Fail", "Get pattern : pass.hex", "Verify pattern 2 times"],
     ["Run command", "execute   ="]),
])
def test_console_modes(board, console, shown, hidden):
    proc, _ = run_script(board, "-f", "pass.hex:g.hex fail.hex:g.hex", "-l", "2", "-C", console)
    for text in shown:
        assert text in proc.stdout
    for text in hidden:
        assert text not in proc.stdout
    assert proc.stdout.count("QORA-LAVA start case=") == 2


def test_missing_player_raises_and_reports_no_case(board):
    proc, record = run_script(board, "-p", "/nowhere/qora_player", "-f", "Test")
    assert proc.returncode == 1
    assert record == ["raise player not found: /nowhere/qora_player"]


@pytest.mark.parametrize("raise_on_fail, expected", [
    ("true", ["case pass --result pass", "case fail --result fail", "raise fail: compare golden fail in loop 1"]),
    ("false", ["case pass --result pass", "case fail --result fail", "case Test --result pass"]),
])
def test_raise_on_fail_ends_the_run_after_the_failed_case(board, raise_on_fail, expected):
    proc, record = run_script(board, "-f", "pass.hex:g.hex fail.hex:g.hex Test", "-l", "2", "-o", "-d 1",
                              "-e", raise_on_fail)
    assert record == expected
    assert proc.returncode == (1 if raise_on_fail == "true" else 0)


@pytest.mark.parametrize("args", [["-e", "1"], ["-l", "0"], ["-l", "x"], ["-t", ""], ["-c", "yes"], ["-C", "loud"],
                                  ["-q", "1"], ["-z"]])
def test_bad_parameters_are_refused_before_any_run(board, args):
    proc, record = run_script(board, *args)
    assert proc.returncode == 2
    assert record == []
    assert "usage:" in proc.stderr

