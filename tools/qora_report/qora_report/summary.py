"""Results of many player logs as JSON, JUnit XML and a console table.

Contract: `summarize(paths)` parses every log (a log that cannot be read is
kept as an entry with status "unreadable" and its reason, and the others
are still read); `write_json` and `write_junit` write what it returns, one
JUnit test suite per log (board) and one test case per loop. The JUnit
XML is well-formed whatever bytes the logs hold: characters XML cannot
carry are written as visible escapes ("\\x1b").
"""
import json
import re
import xml.etree.ElementTree as ET

from .lava import is_job_log, job_logs
from .runlog import LogError, board_name, parse_log

SCHEMA = "qora_report.summary/1"
TIME_FIELDS = ("execute_us", "ip_us", "driver_us")
NOT_XML = re.compile("[^\t\n\r\x20-\ud7ff\ue000-\ufffd\U00010000-\U0010ffff]")


def summarize(paths):
    logs = []
    for path in paths:
        if is_job_log(path):
            logs.extend(job_logs(path))
            continue
        try:
            log = parse_log(path)
            log["status"] = "complete" if log["exit_status"] is not None else "incomplete"
        except LogError as e:
            log = {"file": path, "board": board_name(path), "status": "unreadable", "reason": str(e)}
        except MemoryError:
            log = {"file": path, "board": board_name(path), "status": "unreadable",
                   "reason": f"{path}: out of memory while reading it"}
        logs.append(log)
    return {"schema": SCHEMA, "logs": logs}


def loop_totals(loop):
    """A loop's times summed over its sub-commands and its mean bandwidth;
    None where the log shows no such line."""
    subs = loop["subcommands"]
    totals = {}
    for field in TIME_FIELDS:
        values = [s[field] for s in subs if field in s]
        totals[field] = sum(values) if values else None
    bandwidth = [s["bandwidth_mbps"] for s in subs if "bandwidth_mbps" in s]
    totals["bandwidth_mbps"] = sum(bandwidth) / len(bandwidth) if bandwidth else None
    return totals


def loop_pmu_counts(loop):
    """Event counts of a loop: the sub-commands' totals summed (a flusher
    sub-command's totals are its last flow's running totals)."""
    counts = {}
    for sub in loop["subcommands"]:
        for event, count in sub.get("pmu", {}).get("counts", {}).items():
            counts[event] = counts.get(event, 0) + count
    return counts


def failed(log, require_compare):
    """Whether a log counts as a failure (a run that compared nothing only
    when every run must compare)."""
    passing = ("pass",) if require_compare else ("pass", "not_compared")
    return log["status"] == "unreadable" or log["verdict"] not in passing


def xml_text(text):
    """Text any XML parser reads back: characters XML 1.0 cannot hold
    become visible escapes."""
    return NOT_XML.sub(lambda m: "\\x%02x" % ord(m.group()) if ord(m.group()) < 0x100
                       else "\\u%04x" % ord(m.group()), str(text))


def write_json(summary, path):
    with open(path, "w") as f:
        json.dump(summary, f, indent=1)
        f.write("\n")


def _mismatch_text(loop):
    lines = []
    for out in loop["outputs"]:
        for m in out["mismatches"]:
            mask = f", mask = {m['mask']:08x}" if "mask" in m else ""
            lines.append(f"output {out['output']} word {m['word']}: output = {m['output']:08x}, "
                         f"golden = {m['golden']:08x}{mask}")
    return "\n".join(lines + loop["messages"])


def _case(suite, log, name, seconds=0.0):
    classname = xml_text(f"{log.get('board', 'log')}.{log.get('pattern') or 'pattern'}")
    return ET.SubElement(suite, "testcase", classname=classname, name=name, time=f"{seconds:.6f}")


def _add(case, tag, message, text):
    element = ET.SubElement(case, tag, message=xml_text(message), type=xml_text(message))
    element.text = xml_text(text)


def _suite(root, log, require_compare):
    suite = ET.SubElement(root, "testsuite", name=xml_text(log.get("board") or log["file"]))
    props = ET.SubElement(suite, "properties")
    for key in ("file", "pattern", "verdict", "exit_status", "reason"):
        if log.get(key) is not None:
            ET.SubElement(props, "property", name=key, value=xml_text(log[key]))
    if log["status"] == "unreadable":
        _add(_case(suite, log, "log"), "error", "unreadable log", log["reason"])
        return suite
    for loop in log["loops"]:
        driver = loop_totals(loop)["driver_us"] or 0
        case = _case(suite, log, f"loop {loop['index']}", driver / 1e6)
        verdict = loop["verdict"]
        if verdict == "fail":
            _add(case, "failure", "compare golden fail", _mismatch_text(loop))
        elif verdict == "error":
            _add(case, "error", "command fail", _mismatch_text(loop))
        elif verdict == "incomplete":
            _add(case, "error", "run cut short", _mismatch_text(loop))
        elif verdict == "golden_error":
            _add(case, "failure", "golden not loaded", "\n".join([log["reason"]] + loop["messages"]))
        elif verdict == "not_compared" and require_compare:
            _add(case, "failure", "no golden data compared", _mismatch_text(loop))
        elif verdict == "not_compared":
            ET.SubElement(case, "skipped", message="no golden data compared")
    if not log["loops"]:
        text = "\n".join(log["messages"] + log["loader_messages"])
        verdict = "build failed" if log["verdict"] == "error" else "run cut short before the first loop"
        _add(_case(suite, log, "build"), "error", verdict, text)
    return suite


def write_junit(summary, path, require_compare=False):
    root = ET.Element("testsuites", name="qora_player")
    for log in summary["logs"]:
        suite = _suite(root, log, require_compare)
        cases = suite.findall("testcase")
        suite.set("tests", str(len(cases)))
        for tag, attr in (("failure", "failures"), ("error", "errors"), ("skipped", "skipped")):
            suite.set(attr, str(sum(1 for c in cases if c.find(tag) is not None)))
        suite.set("time", f"{sum(float(c.get('time')) for c in cases):.6f}")
    ET.ElementTree(root).write(path, encoding="utf-8", xml_declaration=True)


def table(summary):
    """One console line per log."""
    rows = [f"{'board':<20} {'pattern':<16} {'verdict':<13} {'loops':>7} {'exit':>4}  {'mean execute':<12}  reason"]
    for log in summary["logs"]:
        if log["status"] == "unreadable":
            rows.append(f"{log['file']:<20} {log['reason']}")
            continue
        times = [t for t in (loop_totals(loop)["execute_us"] for loop in log["loops"]) if t is not None]
        mean = f"{sum(times) / len(times):.1f} us" if times else "-"
        status = "-" if log["exit_status"] is None else str(log["exit_status"])
        rows.append(f"{log['board']:<20} {(log['pattern'] or '-'):<16} {log['verdict']:<13} "
                    f"{len(log['loops']):>7} {status:>4}  {mean:<12}  {log.get('reason', '')}".rstrip())
    return "\n".join(rows)
