#!/usr/bin/env python3
"""qora_report against straightforward baselines measured in the same run.

  diff     a dump against a binary golden of the same size (identical, then
           with a few words changed) beside cmp on the same files, both
           warm in the page cache; peak memory under twice the dump. Then
           text goldens against the dump: one region as long as the dump,
           one of 32 bytes, and 40 regions; peaks under twice the compared
           data plus a fixed amount.
  golden   the text golden reader on a large golden, beside its exact
           line-by-line path on a smaller sample.
  summary  a log of many player loops beside a bare regex scan of its
           statistics lines; a log as large as the dump without line feeds
           beside it: peaks under twice the log plus a fixed amount.

Prints one row per measurement and exits 1 when a target is missed. Run
with an interpreter that has numpy, e.g.
  /usr/bin/python3 tools/qora_report/bench/report_bench.py --player build/qora_player
"""
import argparse
import binascii
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import zlib

import numpy as np

PACKAGE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROOT = os.path.dirname(os.path.dirname(PACKAGE))
ENV = dict(os.environ, PYTHONPATH=PACKAGE, PYTHONDONTWRITEBYTECODE="1")
MIB, MB = 1 << 20, 1000000
FIXED = 100 * MIB  # the interpreter, numpy and the chunks: what any run costs
TIME = "/usr/bin/time"  # GNU time, for the peak memory of a child
# Times the golden reader in a child of its own, so that its peak memory is its own.
READ_GOLDEN = """import sys, time, zlib
from qora_report.golden import read_text_golden
start = time.perf_counter()
regions = read_text_golden(sys.argv[1], lambda name: int(sys.argv[2]), fast=sys.argv[3] == "fast")
seconds = time.perf_counter() - start
print(seconds, len(regions), zlib.crc32(regions[0].data), int(regions[0].mask_bytes(0, regions[0].length).min()))
"""
ROWS = []
MISSED = []


def child(argv):
    """Runs argv: (seconds, peak RSS in bytes, exit status, stdout). The
    peak comes from GNU time: a child of this process would count this
    process's own memory, which it starts with, as its peak."""
    with tempfile.NamedTemporaryFile("r") as rss:
        start = time.perf_counter()
        proc = subprocess.run([TIME, "-f", "%M", "-o", rss.name] + argv, stdout=subprocess.PIPE, env=ENV,
                              text=True)
        seconds = time.perf_counter() - start
        return seconds, int(rss.read().split()[-1]) * 1024, proc.returncode, proc.stdout


def best(argv, repeat, status):
    """The fastest of `repeat` runs and the largest peak RSS; each must exit
    `status`. (Output goes to a pipe: writing to /dev/null, cmp would stop
    at the first difference.)"""
    runs = [child(argv) for _ in range(repeat)]
    codes = {r[2] for r in runs}
    if codes != {status}:
        sys.exit(f"{' '.join(argv)}: exit status {codes}, expected {status}")
    return min(r[0] for r in runs), max(r[1] for r in runs)


def row(what, size, seconds, rate="", ratio="", rss=None, target="", met=None):
    ROWS.append((what, size, f"{seconds:.3f}", rate, ratio, "" if rss is None else f"{rss / MIB:.0f} MiB",
                 target, "" if met is None else ("yes" if met else "NO")))
    if met is False:
        MISSED.append(what)


def warm(*paths):
    for path in paths:
        with open(path, "rb") as f:
            while f.read(8 * MIB):
                pass


def bench_diff(args, scratch):
    dump, golden = os.path.join(scratch, "output0_0.bin"), os.path.join(scratch, "golden.bin")
    size = args.dump_mib * MIB
    with open(dump, "wb") as d, open(golden, "wb") as g:
        rng = np.random.default_rng(1)
        for offset in range(0, size, 16 * MIB):
            block = rng.integers(0, 1 << 32, min(16 * MIB, size - offset) // 4, np.uint32).tobytes()
            d.write(block)
            g.write(block)
    tool = [sys.executable, "-m", "qora_report", "diff", dump, golden]
    for variant, status in (("identical", 0), ("8 words differ", 1)):
        if status:  # words spread over the file, the last one near its end
            with open(golden, "r+b") as g:
                for word in np.linspace(1000, size // 4 - 3, 8, dtype=np.int64).tolist():
                    g.seek(4 * word)
                    g.write(b"\xa5\x5a\x00\xff")
        warm(dump, golden)
        # cmp stops at the first difference; -l makes it read to the end, as diff does.
        base_argv = ["cmp", "-l", dump, golden] if status else ["cmp", dump, golden]
        base_s, base_rss = best(base_argv, args.repeat, status)
        tool_s, tool_rss = best(tool, args.repeat, status)
        row(f"{' '.join(base_argv[:-2])}, {variant}", f"2x{args.dump_mib} MiB", base_s,
            f"{2 * size / MB / base_s:.0f}", rss=base_rss)
        met = base_s / tool_s >= 1 and tool_rss < 2 * size
        row(f"qora_report diff, {variant}", f"2x{args.dump_mib} MiB", tool_s, f"{2 * size / MB / tool_s:.0f}",
            f"{base_s / tool_s:.2f}x cmp", tool_rss, f">=1x cmp, RSS<{2 * args.dump_mib} MiB", met)
    startup_s, startup_rss = best([sys.executable, "-c", "import qora_report.cli"], args.repeat, 0)
    row("start-up alone: import qora_report.cli", "-", startup_s, rss=startup_rss)
    os.remove(golden)
    bench_text_diff(args, scratch, dump)
    os.remove(dump)


def bench_text_diff(args, scratch, dump):
    """Text goldens against the dump: the peak follows the bytes the golden holds."""
    size = args.dump_mib * MIB
    golden = os.path.join(scratch, "golden.hex")
    write_text_golden(golden, size // 16, dump)
    for what, write in (("1 region, whole dump", None),
                        ("1 region, 32 bytes", "@40009000\n" + "00000000_00000000_00000000_00000000\n" * 2),
                        ("40 regions, 32 bytes each", "".join(f"@4000{k:04x}\n" + "0" * 8 + "_" + "0" * 8 + "_"
                                                              + "0" * 8 + "_" + "0" * 8 + "\n" for k in range(40)))):
        if write:
            open(golden, "w").write(write)
        compared = 2 * size if write is None else size
        seconds, rss = best([sys.executable, "-m", "qora_report", "diff", dump, golden, "--region", "0"], 1,
                            0 if write is None else 1)
        row(f"qora_report diff, text golden, {what}", f"{args.dump_mib} MiB dump", seconds, rss=rss,
            target=f"RSS<2x{compared // MIB} MiB+{FIXED // MIB}", met=rss < 2 * compared + FIXED)
    os.remove(golden)


def write_text_golden(path, lines, source=None):
    """A golden of `lines` data lines (random, or the bytes of the file
    `source`) under one region line: the length of its region and the
    CRC-32 of the bytes it holds."""
    rng, crc, done = np.random.default_rng(2), 0, 0
    digits = np.array([g * 9 + i for g in range(4) for i in range(8)])
    src = open(source, "rb") if source else None
    with open(path, "wb") as f:
        f.write(b"@40009000\n")
        while done < lines:
            n = min(1 << 20, lines - done)
            # memory order: the line spells it backwards
            data = (np.frombuffer(src.read(16 * n), np.uint8).reshape(n, 16) if src
                    else rng.integers(0, 256, (n, 16), np.uint8))
            text = np.full((n, 36), ord("_"), np.uint8)
            text[:, 35] = ord("\n")
            text[:, digits] = np.frombuffer(binascii.hexlify(data[:, ::-1].tobytes()), np.uint8).reshape(n, 32)
            f.write(text.tobytes())
            crc = zlib.crc32(data.tobytes(), crc)
            done += n
    if src:
        src.close()
    return 16 * lines, crc


def read_golden(path, length, crc, fast):
    seconds, rss, status, out = child([sys.executable, "-c", READ_GOLDEN, path, str(length), fast])
    reader_s, regions, got_crc, mask_min = out.split()
    if status or (int(regions), int(got_crc), int(mask_min)) != (1, crc, 255):
        sys.exit(f"the golden reader ({fast}) did not read {path} back: {out}")
    return float(reader_s), rss


def bench_golden(args, scratch):
    rates = {}
    for fast, mb in (("exact", args.sample_mb), ("fast", args.text_mb)):
        path = os.path.join(scratch, f"golden_{fast}.hex")
        length, crc = write_text_golden(path, mb * MB // 36)
        warm(path)
        seconds, rss = read_golden(path, length, crc, fast)
        size = os.path.getsize(path)
        rates[fast] = size / MB / seconds
        os.remove(path)
        if fast == "exact":
            row("golden reader, line by line (fast=False)", f"{size / MB:.0f} MB", seconds,
                f"{rates[fast]:.1f}", rss=rss)
        else:
            row("golden reader (read_text_golden)", f"{size / MB:.0f} MB", seconds, f"{rates[fast]:.1f}",
                f"{rates['fast'] / rates['exact']:.1f}x exact", rss, ">=100 MB/s", rates[fast] >= 100)


def player_log(args, path):
    """A log of args.loops loops: the player's own for args.player_loops
    loops, its loop blocks repeated (renumbered) up to the count asked."""
    ran = min(args.player_loops or args.loops, args.loops)
    with open(path, "w") as f:
        subprocess.run([args.player, "-f", "Test", "-l", str(ran), "-d", "7", "-p", "1708"], stdout=f, check=True)
    if ran == args.loops:
        return ran
    lines = open(path).read().splitlines(keepends=True)
    starts = [i for i, line in enumerate(lines) if line.endswith("] Run command\n")]
    end = next(i for i in range(len(lines) - 1, -1, -1) if "Verify pattern" in lines[i])
    blocks = ["".join(lines[a:b]) for a, b in zip(starts, starts[1:] + [end])]
    times = re.compile(r"times = \d+")
    with open(path, "w") as f:
        f.writelines(lines[:starts[0]])
        for k in range(args.loops):
            f.write(times.sub(f"times = {k}", blocks[k % len(blocks)]))
        f.write(re.sub(r"pattern \d+ times", f"pattern {args.loops} times", "".join(lines[end:])))
    return ran


def bench_summary(args, scratch):
    path = os.path.join(scratch, "board.log")
    ran = player_log(args, path)
    size = os.path.getsize(path)
    warm(path)
    start = time.perf_counter()
    with open(path) as f:
        stats = re.findall(r"\] (\w+)\s*= (-?\d+)\[", f.read())
    base_s = time.perf_counter() - start
    seconds, rss, status, out = child([sys.executable, "-m", "qora_report", "summary", path])
    if status or f" {args.loops} " not in out or len(stats) < 8 * args.loops:
        sys.exit(f"summary of {path}: exit status {status}, {len(stats)} statistics lines\n{out}")
    note = "" if ran == args.loops else f", {ran} run, repeated"
    row(f"regex scan of statistics lines{note}", f"{args.loops} loops", base_s, f"{size / MB / base_s:.0f}")
    row(f"qora_report summary{note}", f"{args.loops} loops", seconds, f"{size / MB / seconds:.0f}",
        f"{base_s / seconds:.2f}x regex", rss, f"<10 s, RSS<2x{size // MIB} MiB+{FIXED // MIB}",
        seconds < 10 and rss < 2 * size + FIXED)
    endless = os.path.join(scratch, "endless.log")
    with open(endless, "wb") as f:
        for _ in range(args.dump_mib):
            f.write(b"[I:x:1] " + b"y" * (MIB - 8))
    seconds, rss, status, out = child([sys.executable, "-m", "qora_report", "summary", endless, path])
    if status != 1 or "pass" not in out:
        sys.exit(f"summary of {endless} and {path}: exit status {status}\n{out}")
    row("qora_report summary, + a log without line feeds", f"{args.dump_mib} MiB", seconds,
        f"{(os.path.getsize(endless) + size) / MB / seconds:.0f}", rss=rss,
        target=f"RSS<2x{size // MIB} MiB+{FIXED // MIB}", met=rss < 2 * size + FIXED)
    os.remove(endless)
    os.remove(path)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--dump-mib", type=int, default=256, help="dump and binary golden size (MiB)")
    parser.add_argument("--text-mb", type=int, default=600, help="text golden size (MB)")
    parser.add_argument("--sample-mb", type=int, default=20, help="text golden size for the exact path (MB)")
    parser.add_argument("--loops", type=int, default=100000, help="loops in the player log")
    parser.add_argument("--player-loops", type=int, default=1000,
                        help="loops the player really runs, repeated up to --loops (0: all)")
    parser.add_argument("--player", default=os.path.join(ROOT, "build", "qora_player"))
    parser.add_argument("--repeat", type=int, default=3, help="runs of each diff and cmp, the best kept")
    parser.add_argument("--scratch", help="directory for the files (default: a new temporary one)")
    parser.add_argument("--only", choices=("diff", "golden", "summary"), action="append")
    args = parser.parse_args()
    scratch = tempfile.mkdtemp(prefix="qora_report_bench.", dir=args.scratch)
    try:
        for name, bench in (("diff", bench_diff), ("golden", bench_golden), ("summary", bench_summary)):
            if not args.only or name in args.only:
                bench(args, scratch)
    finally:
        shutil.rmtree(scratch)
    head = ("what", "size", "seconds", "MB/s", "ratio", "peak RSS", "target", "met")
    widths = [max(len(r[i]) for r in ROWS + [head]) for i in range(len(head))]
    for r in [head] + ROWS:
        print("  ".join(c.ljust(w) if i in (0, 1, 6) else c.rjust(w) for i, (c, w) in enumerate(zip(r, widths))))
    if MISSED:
        print("missed: " + "; ".join(MISSED))
    return 1 if MISSED else 0


if __name__ == "__main__":
    sys.exit(main())
