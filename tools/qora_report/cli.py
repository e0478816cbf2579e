"""The qora_report command line: summary, plot and diff.

Exit status: 0 all runs passed (summary) or no mismatch (diff); 1 a run
did not pass or words differ; 2 input the tool cannot use (a message on
standard error names the file and says why; never a traceback); 130
interrupted (Ctrl-C). When standard output is closed early (`| head`) the
rest of the output is dropped quietly and the status is still that of the
work done.
"""
import argparse
import json
import os
import re
import sys

from .compare import CompareError, Shape, compare
from .summary import failed, summarize, table, write_json, write_junit

DIFF_SCHEMA = "qora_report.diff/1"
RANGES_SHOWN = 20


class UsageError(Exception):
    pass


class _Stdout:
    closed = False  # its reader went away: nothing more is formatted for it


def _out_dir(path):
    try:
        os.makedirs(path, exist_ok=True)
    except OSError as e:
        raise UsageError(f"{path}: {e.strerror}") from None
    return path


def _write(text):
    """Writes to standard output; once its reader is gone (a closed pipe),
    the rest is dropped without a message."""
    try:
        sys.stdout.write(text)
        sys.stdout.flush()
    except BrokenPipeError:
        _Stdout.closed = True
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, sys.stdout.fileno())  # nothing left to flush at exit
        os.close(devnull)


def _summary_status(summary, require_compare=False):
    unreadable = [log for log in summary["logs"] if log["status"] == "unreadable"]
    for log in unreadable:
        print(f"qora_report: {log['reason']}", file=sys.stderr)
    if unreadable:
        return 2
    return 1 if any(failed(log, require_compare) for log in summary["logs"]) else 0


def cmd_summary(args):
    summary = summarize(args.logs)
    if args.json:
        write_json(summary, args.json)
    if args.junit:
        write_junit(summary, args.junit, args.require_compare)
    _write(table(summary) + "\n")
    return _summary_status(summary, args.require_compare)


def cmd_plot(args):
    summary = summarize(args.logs)
    from . import charts  # matplotlib only where charts are drawn
    out_dir = _out_dir(args.output)
    written = charts.timings(summary, out_dir) + charts.loop_histogram(summary, out_dir) + charts.pmu(summary, out_dir)
    _write("".join(os.path.join(out_dir, name) + "\n" for name in written))
    return _summary_status(summary, args.require_compare)


def _default_region(dump):
    """The output index of a dump the player wrote ("output<loop>_<index>.bin")."""
    m = re.search(r"_(\d+)\.bin$", os.path.basename(dump))
    return int(m.group(1)) if m else 0


def _print_mismatches(index, out, gold, mask):
    if _Stdout.closed:
        return
    lines = (f"{i:10d} 0x{4 * i:08x}: output = {o:08x}, golden = {g:08x}, mask = {m:08x}"
             for i, o, g, m in zip(index, out, gold, mask))
    _write("\n".join(lines) + "\n")


def _diff_json(args, region, result):
    doc = {"schema": DIFF_SCHEMA, "dump": args.dump, "golden": args.golden, "region": region,
           "dump_bytes": result.dump_size, "golden_bytes": result.golden_size,
           "words_compared": result.words, "mismatching_words": result.mismatches,
           "first_word": result.first(), "last_word": result.last(), "ranges": result.ranges,
           "bit_flips": result.bit_flips, "bits_set_in_output": result.bit_set,
           "byte_lanes": result.lanes}
    if result.shape:
        s = result.shape
        doc["shape"] = {"h": s.h, "w": s.w, "c": s.c,
                        "pixels": result.pixels.reshape(s.h, s.w).tolist(), "channels": result.channels.tolist()}
    return doc


def _diff_report(args, region, result):
    lines = [f"compared {result.words} words ({4 * result.words} bytes) of {args.dump} with {args.golden}"
             + (f" (region {region})" if args.golden.endswith(".hex") else "")]
    if result.golden_size != result.dump_size:
        lines.append(f"sizes differ: golden {result.golden_size} bytes, dump {result.dump_size} bytes; "
                     "the shorter is compared")
    lines.append(f"mismatching words: {result.mismatches}")
    if result.mismatches:
        lines.append(f"first: word {result.first()} (byte 0x{4 * result.first():x}), "
                     f"last: word {result.last()} (byte 0x{4 * result.last():x})")
        lines.append(f"ranges: {len(result.ranges)}")
        for first, last in result.ranges[:RANGES_SHOWN]:
            lines.append(f"  words {first}-{last} ({last - first + 1})")
        if len(result.ranges) > RANGES_SHOWN:
            lines.append(f"  ... {len(result.ranges) - RANGES_SHOWN} more")
        flips = ", ".join(f"{b}:{n}" for b, n in enumerate(result.bit_flips) if n)
        lines.append(f"bits that differ (bit:words): {flips}")
        lines.append("byte lanes (lane:words): " + ", ".join(f"{k}:{n}" for k, n in enumerate(result.lanes)))
    if result.shape:
        lines.append(f"mismatching bytes per channel of {result.shape}: "
                     + ", ".join(str(n) for n in result.channels.tolist()))
    return "\n".join(lines)


def cmd_diff(args):
    shape = Shape(args.shape) if args.shape else None
    region = args.region if args.region is not None else _default_region(args.dump)
    out_dir = _out_dir(args.output) if args.output else None
    try:
        result = compare(args.dump, args.golden, region, shape, _print_mismatches)
    except MemoryError:
        raise UsageError(f"{args.dump}: out of memory comparing it with {args.golden}") from None
    _write(_diff_report(args, region, result) + "\n")
    if out_dir:
        with open(os.path.join(out_dir, "diff.json"), "w") as f:
            json.dump(_diff_json(args, region, result), f)
            f.write("\n")
        from . import charts
        charts.bits(result, out_dir)
        if shape:
            charts.heatmap(result, out_dir)
    return 1 if result.mismatches else 0


def _parser(version):
    parser = argparse.ArgumentParser(prog="qora_report", description="Turn qora_player runs into results.")
    parser.add_argument("--version", action="version", version=f"qora_report {version}")
    commands = parser.add_subparsers(dest="command", required=True, metavar="command")
    summary = commands.add_parser("summary", help="verdicts, timings and PMU counts of player logs")
    summary.add_argument("logs", nargs="+", metavar="LOG")
    summary.add_argument("--json", metavar="FILE", help="write the results as JSON")
    summary.add_argument("--junit", metavar="FILE", help="write JUnit XML: a suite per log, a case per loop")
    summary.add_argument("--require-compare", action="store_true",
                         help="a run that compared nothing (no golden) fails")
    summary.set_defaults(run=cmd_summary)
    plot = commands.add_parser("plot", help="charts of timings, bandwidth and PMU counts per loop")
    plot.add_argument("logs", nargs="+", metavar="LOG")
    plot.add_argument("-o", "--output", required=True, metavar="DIR")
    plot.add_argument("--require-compare", action="store_true", help="as for summary: the exit status")
    plot.set_defaults(run=cmd_plot)
    diff = commands.add_parser("diff", help="every mismatching word of an output dump")
    diff.add_argument("dump", metavar="DUMP")
    diff.add_argument("golden", metavar="GOLDEN")
    diff.add_argument("--shape", metavar="HxWxC", help="lay the output out as H x W x C bytes for a heat map")
    diff.add_argument("--region", type=int, metavar="K",
                      help="region of a text golden (default: the dump's output index, from outputL_K.bin)")
    diff.add_argument("-o", "--output", metavar="DIR", help="write diff.json and charts here")
    diff.set_defaults(run=cmd_diff)
    return parser


def main(argv=None, version="(version unknown: run without its launcher)"):
    """The program; `version` is the project's, set by the launcher."""
    try:
        args = _parser(version).parse_args(argv)
        return args.run(args)
    except KeyboardInterrupt:
        print("qora_report: interrupted", file=sys.stderr)
        return 130
    except (UsageError, CompareError) as e:
        print(f"qora_report: {e}", file=sys.stderr)
    except OSError as e:
        where = f"{e.filename}: " if e.filename else ""
        print(f"qora_report: {where}{e.strerror}", file=sys.stderr)
    except MemoryError:
        print("qora_report: out of memory", file=sys.stderr)
    return 2
