"""LAVA job logs, read into the same results as plain console logs.

Contract: `is_job_log(path)` tells a LAVA job log (the YAML log lava-run
writes and lava-server serves: one record a line, "- " first in the
server's form) from a console log. `job_logs(path)` returns one log of
runlog's form per pattern run of the project's LAVA run script found in it,
read from the board's console lines between the script's start and end
lines, with the run's exit status, the script's reason and the case result
LAVA recorded ("lava"). It never raises: a file it cannot use gives one
entry with status "unreadable" and the reason.

Verdicts follow the run script's rule: a run whose player exited non-zero
does not pass whatever it printed (its last loop reads "error"), and a run
that compared nothing although goldens were given is "golden_error" in
every loop, as a console log whose loader lines show the cause.
"""
import json
import re

from .runlog import LINE_END, _Reader, board_name

RECORD = re.compile(r'(- )?\{"dt": ')
START = re.compile(r"QORA-LAVA start case=(\S+) pattern=(\S*) goldens=(\d+) loops=(\d+)")
END = re.compile(r"QORA-LAVA end case=(\S+) exit=(\d+) result=(\w+) reason=(.*)")


def is_job_log(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            first = f.readline(4096)
    except OSError:
        return False  # the console log reader reports why
    return RECORD.match(first) is not None


def _records(f, yaml):
    """The records of a job log; lines that are not one are skipped (a log
    cut off mid-line, lines added by hand)."""
    loader = getattr(yaml, "CSafeLoader", yaml.SafeLoader)
    for line in f:
        text = line[2:] if line.startswith("- ") else line
        if not text.startswith("{"):
            continue
        try:
            record = json.loads(text)  # most lines, and much faster than YAML
        except ValueError:
            try:
                record = yaml.load(text, Loader=loader)
            except (yaml.YAMLError, ValueError, RecursionError):  # a bad tagged value too
                continue
        if isinstance(record, dict):
            yield record


class _Run:
    """One pattern run between the run script's start and end lines."""

    def __init__(self, path, start):
        self.case, self.pattern, self.goldens = start.group(1), start.group(2), int(start.group(3))
        self.reader = _Reader(f"{path}#{self.case}")
        self.reader.log["board"] = f"{board_name(path)}/{self.case}"
        self.end = None

    def finish(self):
        log = self.reader.finish()
        log["pattern"] = log["pattern"] or self.pattern
        lava = {"case": self.case, "goldens": self.goldens, "result": None, "reason": None}
        log["lava"] = lava
        if self.end is None:
            lava["reason"] = "the job log ends before the run does"
            log["exit_status"] = None
        else:
            status = int(self.end.group(2))
            lava["result"], lava["reason"] = self.end.group(3), self.end.group(4).strip()
            log["exit_status"] = status
            if status != 0 and log["verdict"] in ("pass", "not_compared"):
                self.exited_with(log, status)
            elif self.goldens and log["verdict"] == "not_compared":
                self.golden_not_compared(log)
        log["status"] = "complete" if log["exit_status"] is not None else "incomplete"
        return log

    @staticmethod
    def exited_with(log, status):
        log["verdict"], log["reason"] = "error", f"exit status {status}"
        if log["loops"]:
            log["loops"][-1]["verdict"] = "error"

    def golden_not_compared(self, log):
        log["verdict"] = "golden_error"
        log["reason"] = f"nothing compared although {self.goldens} golden file(s) were given"
        for loop in log["loops"]:
            loop["verdict"] = "golden_error"

    def line(self, text):
        """Console text of one record, read as the console log reader reads
        the same bytes: split at line terminators, without them."""
        for line in LINE_END.split(text[:-1] if text.endswith("\n") else text):
            self.reader.line(line)


def _unreadable(path, reason):
    return [{"file": path, "board": board_name(path), "status": "unreadable", "reason": f"{path}: {reason}"}]


def job_logs(path):
    """The pattern runs of a job log (see the module's contract)."""
    try:
        import yaml
    except ImportError:
        return _unreadable(path, "reading a LAVA job log needs python3-yaml")
    runs, run, by_case = [], None, {}
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            for record in _records(f, yaml):
                msg = record.get("msg")
                if record.get("lvl") == "results" and isinstance(msg, dict):
                    log = by_case.pop(str(msg.get("case")), None)
                    if log is not None:
                        log["lava"]["result"] = str(msg.get("result"))
                    continue
                if record.get("lvl") != "target" or not isinstance(msg, str):
                    continue
                start, end = START.search(msg), END.search(msg)
                marker = start or end
                if marker and marker.start() > 0 and run is not None:
                    run.line(msg[:marker.start()])  # output without a line feed
                if start:
                    if run is not None:
                        runs.append(run.finish())
                    run = _Run(path, start)
                elif end and run is not None:
                    run.end = end
                    log = run.finish()
                    runs.append(log)
                    by_case[run.case] = log
                    run = None
                elif run is not None:
                    run.line(msg)
    except OSError as e:
        return _unreadable(path, e.strerror)
    if run is not None:
        runs.append(run.finish())
    return runs or _unreadable(path, "no run of the player in this LAVA job log")
