"""The qora_report command line: summary, plot and diff.

Exit status: 0 all runs passed (summary) or no mismatch (diff); 1 a run
did not pass or words differ; 2 input the tool cannot use (a message on
standard error names the file and says why; never a traceback); 130
interrupted (Ctrl-C). When standard output is closed early (`| head`) the
rest of the output is dropped quietly and the status is still that of the
work done.
"""
import argparse
import os
import sys

from . import diff
from .compare import CompareError, Shape, compare
from .summary import failed, summarize, table, write_json, write_junit


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


def _print_mismatches(index, out, gold, mask):
    if _Stdout.closed:
        return
    lines = (f"{i:10d} 0x{4 * i:08x}: output = {o:08x}, golden = {g:08x}, mask = {m:08x}"
             for i, o, g, m in zip(index, out, gold, mask))
    _write("\n".join(lines) + "\n")


def cmd_diff(args):
    shape = Shape(args.shape) if args.shape else None
    region = args.region if args.region is not None else diff.default_region(args.dump)
    out_dir = _out_dir(args.output) if args.output else None
    try:
        result = compare(args.dump, args.golden, region, shape, _print_mismatches)
    except MemoryError:
        raise UsageError(f"{args.dump}: out of memory comparing it with {args.golden}") from None
    _write(diff.report(args.dump, args.golden, region, result) + "\n")
    if out_dir:
        diff.write_json(diff.document(args.dump, args.golden, region, result), os.path.join(out_dir, "diff.json"))
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
    diff_command = commands.add_parser("diff", help="every mismatching word of an output dump")
    diff_command.add_argument("dump", metavar="DUMP")
    diff_command.add_argument("golden", metavar="GOLDEN")
    diff_command.add_argument("--shape", metavar="HxWxC", help="lay the output out as H x W x C bytes for a heat map")
    diff_command.add_argument("--region", type=int, metavar="K",
                      help="region of a text golden (default: the dump's output index, from outputL_K.bin)")
    diff_command.add_argument("-o", "--output", metavar="DIR", help="write diff.json and charts here")
    diff_command.set_defaults(run=cmd_diff)
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
