"""The log reader's messages: each is read by its whole opening text, a
message cut short gives nothing, and a fault in a handler is not hidden."""
import glob
import os

import pytest

from qora_report import runlog
from qora_report.runlog import parse_log

SOURCE = os.environ.get("QORA_SOURCE_DIR", ".")
RUN = "[I:BuildCmd:31] Get pattern : p\n[I:RunCmd:399] Run command\n"
PMU = RUN + "[I:ShowPMUEventCount:101] pmu freq = 1000\n"


def _subs(log):
    return log["loops"][0]["subcommands"]


def _pmu(log):
    return _subs(log)[0]["pmu"]


def _verdict_loops(log):
    return log["verdict"], len(log["loops"])


# name, log text, what of the results, expected
CASES = [
    ("timing", RUN + "[D:RunCmd:362] post_proc = 7[us]\n", _subs, [{"post_proc_us": 7}]),
    ("timing near miss", RUN + "[D:RunCmd:362] post_processing = 7[us]\n", _subs, []),
    ("bandwidth", RUN + "[D:RunCmd:366] bandwidth = 9[MB/s]\n", _subs, [{"bandwidth_mbps": 9}]),
    ("bandwidth near miss", RUN + "[D:RunCmd:366] bandwidth_limit = 9\n", _subs, []),
    ("timing cut short", RUN + "[D:RunCmd:362] execute   = \n", _subs, []),
    ("driver and ip time", RUN + "[D:RunCmd:370] execTime  = 3[us]\n[D:RunCmd:371] ipTime    = 2[us]\n",
     _subs, [{"driver_us": 3, "ip_us": 2}]),
    ("relocation", RUN + "[D:PrepareSubCmdBuf:46] codebuf ofs 0x4 = 0x80001000\n",
     lambda log: log["settings"]["relocations"], 1),
    ("relocation skipped", RUN + "[W:PrepareSubCmdBuf:39] codebuf 0: binding ofs 0x40 outside code size 0x20\n",
     lambda log: ("relocations" in log["settings"], len(log["loops"][0]["messages"])), (False, 1)),
    ("pmu frequency cut short", RUN + "[I:ShowPMUEventCount:101] pmu freq = \n", _subs, []),
    ("normal mode", PMU + "[I:ShowPMUEventCount:106] -------- normal mode, cmd_log = 0x51000000--------\n",
     lambda log: (_pmu(log)["mode"], _pmu(log)["cmd_log"]), ("normal", 0x51000000)),
    ("normal mode garbled", PMU + "[I:ShowPMUEventCount:106] -------- normal mode, cmd_log = 0xzz--------\n",
     lambda log: "mode" in _pmu(log), False),
    ("other dashes", PMU + "[I:ShowPMUEventCount:106] -------- 0x51000000\n",
     lambda log: "mode" in _pmu(log), False),
    ("burst mode", PMU + "[I:ShowPMUEventCount:103] burst_mode = 0x2\n",
     lambda log: (_pmu(log)["mode"], _pmu(log)["burst_mode"]), ("flusher", 2)),
    ("burst mode cut short", PMU + "[I:ShowPMUEventCount:103] burst_mode = 0x\n",
     lambda log: "mode" in _pmu(log), False),
    ("command failed", RUN + "[E:RunCmd:147] Command Fail!! (-5)\n", lambda log: log["verdict"], "error"),
    ("other command error", RUN + "[E:RunCmd:147] Command queue full\n",
     lambda log: (log["verdict"], log["loops"][0]["messages"]),
     ("incomplete", ["[E:RunCmd:147] Command queue full"])),
    # The verdict stands; only the count is lost.
    ("count cut short", RUN + "[I:Execute:64] Verify pattern  times : success\n",
     lambda log: (log["verdict"], log["loops_reported"]), ("pass", None)),
    ("priority", RUN + "[D:SetPriority:1] set priority = 3\n", lambda log: log["settings"]["priority"], 3),
    ("priority near miss", RUN + "[D:SetPriority:1] set prio 3\n", lambda log: "priority" in log["settings"], False),
    # Progress bars and foreign lines around the player's lines.
    ("foreign lines", "\r[#    ][2%]\r[##   ][4%]\nboot: eth0 up\n" + RUN
     + "kernel: noise\n[I:Execute:64] Verify pattern 1 times : success\n", _verdict_loops, ("pass", 1)),
    # The one message without a line feed runs into the next one.
    ("glued message", "[I:BuildCmd:31] Get pattern : p\n[E:RunCmd:330] Create korvex command FAIL![W:Execute:9] x\n",
     _verdict_loops, ("error", 0)),
    ("alloc failed", "[I:BuildCmd:31] Get pattern : p\n[E:AllocDataMem:96] alloc 40000000 FAIL\n",
     _verdict_loops, ("error", 0)),
    ("pattern missing", "open file(missing.hex) \\n", _verdict_loops, ("error", 0)),
    # Cut off at the end: a message is read only when its whole opening text is there.
    ("cut in a timing", RUN + "[D:RunCmd:362] execu", _verdict_loops, ("incomplete", 1)),
    ("cut in run command", "[I:BuildCmd:31] Get pattern : p\n[I:RunCmd:399] Run comm", _verdict_loops,
     ("incomplete", 0)),
    ("result records of a failed run", "[I:RunCmd:399] Run command\n"
     "[W:RunCmd:350] res: core1, last finished flow id = 7 (abort/halt?)\n[E:RunCmd:352] res: core1, irq hint = 0x10\n"
     "[D:RunCmd:362] execute   = 5[us]\n[D:RunCmd:404] ran on core1\n[E:RunCmd:410] Command Fail!! (-1)\n",
     lambda log: (_subs(log), log["verdict"], log["exit_status"], log["loops"][0]["verdict"],
                  len(log["loops"][0]["messages"])),
     ([{"core": 1, "last_flow_id": 7, "irq_hint": 0x10, "execute_us": 5}], "error", 1, "error", 3)),
]


@pytest.mark.parametrize("text,what,want", [c[1:] for c in CASES], ids=[c[0] for c in CASES])
def test_messages(tmp_path, text, what, want):
    path = tmp_path / "board.log"
    path.write_text(text)
    assert what(parse_log(str(path))) == want


def test_every_message_read_is_one_the_player_prints():
    """Each opening text the reader keys on stands in a format string of
    the player's sources, so a changed message cannot go unnoticed."""
    sources = "".join(open(f).read() for f in glob.glob(os.path.join(SOURCE, "src", "*.cpp")))
    prefixes = runlog._Reader("board.log").handlers
    assert [p for p in prefixes if p not in sources] == []


def test_a_fault_in_a_handler_is_not_hidden(tmp_path, monkeypatch):
    def broken(self, msg, text):
        raise ValueError("handler fault")
    monkeypatch.setattr(runlog._Reader, "pmu_freq", broken)
    path = tmp_path / "board.log"
    path.write_text(PMU)
    with pytest.raises(ValueError, match="handler fault"):
        parse_log(str(path))
