"""Captured console logs of the player, read into results.

Contract: `parse_log(path)` reads what one run of the player printed (any
debug mask, with progress bars, foreign lines and a cut-off end) and
returns a plain dict ready for JSON: the pattern, the settings the log
shows, every loop with its verdict, timings, PMU counts and mismatches, and
the run's verdict and exit status where the log settles them. The file is
read a block at a time, and a line in pieces of bounded length, so a log
without line feeds costs no more memory than a short one. It raises LogError only when the
file cannot be read or holds no line of the player.
"""
import functools
import os
import re

PREFIX = re.compile(r"\[([IWED]):([A-Za-z_~][A-Za-z0-9_~]*):(\d{1,20})\] ")
# Plain lines of the pattern and golden loaders.
LOADER = re.compile(r"open file\(|Golden file type: Fail|No pattern data|Warning|Allocate memory FAIL"
                    r"|Realloc Fail!!|free golden\(|data buf num >=|binding num\(|\w+\(\):\d+ ")
LOADER_FAILURE = re.compile(r"open file\(|Warning : len >= 120")
# Loader lines that say a golden named on the command line was not loaded
# (a pattern file that cannot be opened prints "open file(%s) \\n" instead,
# a binary pattern "open file(<name>.bin) error", but then nothing runs).
GOLDEN_FAILURE = re.compile(r"Golden file type: Fail|No pattern data|open file\(.*\.(hex|bin)\) error"
                            r"|load_golden_hex\(\):\d+ get invalid out sz|Warning : len >= 120"
                            r"|Warning : read golden size|free golden\(")
# A data line the golden loader could not scan: harmless beside a comparison
# that ran, the cause of one that could not.
GOLDEN_SCAN = re.compile(r"load_golden_hex\(\):\d+ sscanf fail")
PROGRESS = re.compile(r"\[[# ]*\]\[\d+%\]")
LINE_LIMIT = 1 << 16
BLOCK = 1 << 20
LINE_END = re.compile(r"\r\n?|\n")
MASKED = re.compile(r"\s*(\d{1,20}): output = ([0-9a-f]{1,16}), golden = ([0-9a-f]{1,16}), mask = ([0-9a-f]{1,16})")
PLAIN = re.compile(r"index = (\d{1,20}), outout = 0x([0-9a-f]{1,16}), golden = 0x([0-9a-f]{1,16})")
DEV_VA = re.compile(r"(\S+): dev va = 0x([0-9a-f]{1,16}) (?:sz|size) = (-?\d{1,20})")
FLOW = re.compile(r"---- flow id = (\d{1,20}) \(cmd_log = 0x([0-9a-f]{1,16})\), time = (-?\d{1,20}) us")
EVT = re.compile(r"evt:0x([0-9a-f]{1,16}), cnt: (\d{1,20})")
RES = re.compile(r"res: core(-?\d{1,20}), (?:last finished flow id = (-?\d{1,20})|irq hint = 0x([0-9a-f]{1,16}))")
FIRST_INT = re.compile(r"-?\d{1,20}")
HEX_WORD = re.compile(r"[0-9a-fA-F]{1,8}")

# Statistics lines: message prefix, field, order within a sub-command.
TIMINGS = {
    "execute   = ": ("execute_us", 2), "prepare   = ": ("prepare_us", 3), "waiting   = ": ("waiting_us", 4),
    "blocked   = ": ("blocked_us", 5), "post_proc = ": ("post_proc_us", 6), "bandwidth = ": ("bandwidth_mbps", 7),
    "execTime  = ": ("driver_us", 8), "ipTime    = ": ("ip_us", 9),
}
PMU_STAGE, CORE_STAGE = 10, 12
EXIT_STATUS = {"pass": 0, "not_compared": 0, "fail": 1, "error": 1}
SPLIT_NAME = ": dev va = "  # a buffer line whose address text ended in a line terminator


class LogError(Exception):
    """A file that is not a readable player log; the text says why."""


class _CutShort(Exception):
    """A message that lacks the number it should carry (a line cut short
    or garbled): nothing is taken from it."""


def board_name(path):
    """A log's board: its file name without the extension."""
    return os.path.splitext(os.path.basename(path))[0]


def _int(text):
    m = FIRST_INT.search(text)
    if m is None:
        raise _CutShort
    return int(m.group())


def _hex_word(text):
    """The value of the hexadecimal word that opens `text` (at most eight
    digits are read, blanks around them allowed)."""
    digits = text[:8].strip()
    if HEX_WORD.fullmatch(digits) is None:
        raise _CutShort
    return int(digits, 16)


class _Reader:
    def __init__(self, path):
        self.log = {"file": path, "board": board_name(path),
                    "pattern": None, "settings": {},
                    "loops": [], "verdict": None, "exit_status": None, "loops_reported": None,
                    "messages": [], "loader_messages": []}
        self.loop = None
        self.sub = None
        self.stage = -1
        self.player_lines = 0
        self.final = None
        self.split_name = None  # a debug line that may be a buffer's address text
        # The messages read, by the whole text that opens them (the texts
        # of the player's QORA_LOG calls up to their first variable field).
        self.handlers = {
            "Run command": self.run_command, "ran on core": self.ran_on,
            "---- start to compare result (": self.compare_start, "pmu freq = ": self.pmu_freq,
            "-------- normal mode, cmd_log = 0x": self.pmu_normal, "evt:0x": self.pmu_count,
            "---- flow id = ": self.pmu_flow, "---- ip time = ": self.pmu_ip_time,
            "burst_mode = 0x": self.pmu_burst, "index = ": self.plain_mismatch, "res: core": self.result_record,
            "Get pattern : ": self.pattern, "set priority = ": self.setting, "set core mask = ": self.setting,
            "codebuf ofs ": self.relocation, "dump output name = ": self.dump,
            "Verify pattern ": self.verified, "Run pattern ": self.done, "QORA loop ": self.compare_fail,
            "Command Fail": self.command_fail, "no golden data": self.not_compared,
            "golden number(": self.not_compared, "no output data": self.not_compared,
        }
        for prefix, (field, stage) in TIMINGS.items():
            self.handlers[prefix] = functools.partial(self.timing, field, stage)
        # Longest first, so that no prefix hides a longer one it opens.
        self.prefixes = re.compile("|".join(map(re.escape, sorted(self.handlers, key=len, reverse=True))))

    # -- lines and messages
    def line(self, line):
        """One line, without its terminator."""
        m = PREFIX.search(line)
        if m is None:
            if line.startswith(SPLIT_NAME) and self.split_name is not None:
                self.message("D", self.split_name + line, self.split_name + line)
            elif LOADER.match(line):
                self.log["loader_messages"].append(line.strip())
            elif PROGRESS.match(line):
                self.player_lines += 1  # a loader's progress bar
            self.split_name = None
            return
        while m is not None:
            nxt = PREFIX.search(line, m.end())
            end = nxt.start() if nxt else len(line)
            self.message(m.group(1), line[m.start():end], line[m.end():end])
            m = nxt

    def message(self, level, text, msg):
        self.player_lines += 1
        handler = self.handler(msg)
        self.split_name = msg if handler is None and level == "D" else None
        try:
            if handler is not None:
                handler(msg, text)
        except _CutShort:
            return
        if level in "EW" and handler not in (self.masked_mismatch, self.plain_mismatch):
            self.note(text)

    def handler(self, msg):
        m = self.prefixes.match(msg)
        handler = self.handlers[m.group()] if m is not None else None
        if handler is None and MASKED.match(msg):
            return self.masked_mismatch
        if handler is None and DEV_VA.match(msg):
            return self.buffer
        return handler

    def note(self, text):
        (self.loop["messages"] if self.loop is not None else self.log["messages"]).append(text)

    # -- loops and sub-commands
    def run_command(self, msg, text):
        self.loop = {"index": len(self.log["loops"]), "verdict": None, "compared": None,
                     "subcommands": [], "outputs": [], "messages": [], "dumps": []}
        self.log["loops"].append(self.loop)
        self.sub, self.stage = None, -1

    def sub_at(self, stage):
        """The sub-command a statistics line belongs to: a line that comes
        no later than the last one seen starts the next sub-command."""
        if self.sub is None or stage <= self.stage:
            self.sub = {}
            self.loop["subcommands"].append(self.sub)
        self.stage = stage
        return self.sub

    def timing(self, field, stage, msg, text):
        if self.loop is not None:
            self.sub_at(stage)[field] = _int(msg.split("=", 1)[1])

    def result_record(self, msg, text):
        m = RES.match(msg)
        if self.loop is None or m is None:
            return
        sub = self.sub_at(0 if m.group(2) is not None else 1)
        sub["core"] = int(m.group(1))
        if m.group(2) is not None:
            sub["last_flow_id"] = int(m.group(2))
        else:
            sub["irq_hint"] = int(m.group(3), 16)

    def ran_on(self, msg, text):
        if self.loop is not None:
            self.sub_at(CORE_STAGE)["core"] = _int(msg)

    # -- PMU
    def pmu_freq(self, msg, text):
        if self.loop is not None:
            self.sub_at(PMU_STAGE)["pmu"] = {"freq": _int(msg), "counts": {}}

    def pmu(self):
        return self.sub.get("pmu") if self.sub is not None else None

    def pmu_normal(self, msg, text):
        pmu = self.pmu()
        if pmu is not None:
            pmu.update(mode="normal", cmd_log=_hex_word(msg.split("0x", 1)[1]))

    def pmu_burst(self, msg, text):
        pmu = self.pmu()
        if pmu is not None:
            pmu.update(mode="flusher", burst_mode=_hex_word(msg.split("0x", 1)[1]), flows=[])

    def pmu_flow(self, msg, text):
        pmu, m = self.pmu(), FLOW.match(msg)
        if pmu is not None and m and "flows" in pmu:
            pmu["flows"].append({"flow": int(m.group(1)), "cmd_log": int(m.group(2), 16),
                                 "time_us": int(m.group(3)), "counts": {}})

    def pmu_count(self, msg, text):
        """A count; in flusher mode each flow's record holds the running
        totals of the run so far, so the last flow's, written over the
        earlier ones, are the run's totals."""
        pmu, m = self.pmu(), EVT.match(msg)
        if pmu is None or m is None:
            return
        event, count = "0x" + m.group(1), int(m.group(2))
        if pmu.get("flows"):
            pmu["flows"][-1]["counts"][event] = count
        if pmu.get("flows") or "flows" not in pmu:
            pmu["counts"][event] = count

    def pmu_ip_time(self, msg, text):
        pmu = self.pmu()
        if pmu is not None:
            pmu["ip_time_us"] = _int(msg)

    # -- comparison
    def compare_start(self, msg, text):
        if self.loop is not None:
            self.loop["compared"] = self.loop["compared"] is not False
            self.loop["outputs"].append({"output": _int(msg), "mismatches": []})

    def current_output(self):
        if self.loop is None or not self.loop["outputs"]:
            return None
        return self.loop["outputs"][-1]

    def masked_mismatch(self, msg, text):
        out, m = self.current_output(), MASKED.match(msg)
        if out is not None:
            out["mismatches"].append({"word": int(m.group(1)), "output": int(m.group(2), 16),
                                      "golden": int(m.group(3), 16), "mask": int(m.group(4), 16)})

    def plain_mismatch(self, msg, text):
        out, m = self.current_output(), PLAIN.match(msg)
        if out is not None and m is not None:
            out["mismatches"].append({"word": int(m.group(1)), "output": int(m.group(2), 16),
                                      "golden": int(m.group(3), 16)})

    def not_compared(self, msg, text):
        if self.loop is not None:
            self.loop["compared"] = False

    def dump(self, msg, text):
        if self.loop is not None:
            self.loop["dumps"].append(msg.split('"')[1] if msg.count('"') >= 2 else msg)

    # -- settings
    def pattern(self, msg, text):
        self.log["pattern"] = msg.split(" : ", 1)[1].rstrip()

    def setting(self, msg, text):
        name = "priority" if msg.startswith("set prio") else "core_mask"
        self.log["settings"][name] = _int(msg)

    def buffer(self, msg, text):
        m = DEV_VA.match(msg)
        record = {"dev_va": int(m.group(2), 16), "size": int(m.group(3))}
        settings = self.memory_settings()
        if m.group(1) == "output_buf":
            if record not in settings["outputs"]:
                settings["outputs"].append(record)
        else:
            settings["buffers"].append(dict(name=m.group(1), **record))

    def relocation(self, msg, text):
        self.memory_settings()["relocations"] += 1

    def memory_settings(self):
        """The settings debug bit 2 shows; absent from logs without it."""
        settings = self.log["settings"]
        for key, empty in (("buffers", []), ("outputs", []), ("relocations", 0)):
            settings.setdefault(key, empty)
        return settings

    # -- verdicts
    def settle(self, verdict):
        if self.loop is not None:
            self.loop["verdict"] = verdict

    def verified(self, msg, text):
        self.final = "pass"
        self.log["loops_reported"] = _int(msg)

    def done(self, msg, text):
        self.final = "not_compared"
        self.log["loops_reported"] = _int(msg)

    def compare_fail(self, msg, text):
        self.settle("fail")
        self.final = "fail"

    def command_fail(self, msg, text):
        self.settle("error")
        self.final = "error"

    def finish(self):
        log, loops = self.log, self.log["loops"]
        for loop in loops[:-1]:
            if loop["verdict"] is None:
                loop["verdict"] = "pass" if loop["compared"] else "not_compared"
        if loops and loops[-1]["verdict"] is None:
            loops[-1]["verdict"] = self.final if self.final in ("pass", "not_compared") else "incomplete"
        verdict = self.final
        if verdict is None and not loops and _stops_the_build(log):
            verdict = "error"
        log["verdict"] = verdict or "incomplete"
        log["exit_status"] = EXIT_STATUS.get(log["verdict"])
        settings = log["settings"]
        events = sorted({k for loop in loops for s in loop["subcommands"] for k in s.get("pmu", {}).get("counts", {})})
        settings["pmu_events"] = events
        settings["flusher"] = any(s.get("pmu", {}).get("mode") == "flusher"
                                  for loop in loops for s in loop["subcommands"])
        for loop in loops:
            loop.pop("compared")
            for out in loop["outputs"]:
                out["failed"] = bool(out["mismatches"])  # a failing output lists at least one word
        self.golden_error()
        return log

    def golden_error(self):
        """A run that compared nothing, or passed, while a golden named on
        the command line was not loaded: never trusted as a pass."""
        log = self.log
        if log["verdict"] not in ("pass", "not_compared"):
            return
        lines = log["loader_messages"]
        reason = next((m for m in lines if GOLDEN_FAILURE.match(m)), None)
        if reason is None and log["verdict"] == "not_compared":
            reason = next((m for m in lines if GOLDEN_SCAN.match(m)), None)
        if reason is None:
            return
        log["verdict"], log["reason"] = "golden_error", reason
        for loop in log["loops"]:
            if loop["verdict"] in ("pass", "not_compared"):
                loop["verdict"] = "golden_error"


def _stops_the_build(log):
    """Whether a log without runs shows why the player built nothing."""
    return (any(m.startswith("[E:") for m in log["messages"])
            or any(LOADER_FAILURE.match(m) for m in log["loader_messages"]))


def _lines(f):
    """The lines of a binary file (ends: CR LF, CR, LF) as text, decoded a
    block of whole lines at a time; a line longer than LINE_LIMIT comes in
    pieces of at most BLOCK + LINE_LIMIT bytes."""
    rest = b""
    while True:
        block = f.read(BLOCK)
        data = rest + block
        cut = data.rfind(b"\n") + 1 or (len(data) if len(data) >= LINE_LIMIT or not block else 0)
        if cut:
            text = data[:cut].decode("utf-8", errors="replace")
            lines = LINE_END.split(text)
            yield from lines[:-1] if text.endswith("\n") else lines  # the last end opens no line
        rest = data[cut:]
        if not block:
            return


def parse_log(path):
    """The results of one player log (see the module's contract)."""
    reader = _Reader(path)
    size = 0
    try:
        with open(path, "rb") as f:
            for line in _lines(f):
                reader.line(line)
            size = f.tell()
    except OSError as e:
        raise LogError(f"{path}: {e.strerror}") from None
    if reader.player_lines == 0 and not reader.log["loader_messages"]:
        raise LogError(f"{path}: no line of the player in it" if size else f"{path}: empty file")
    return reader.finish()
