"""Charts of runs and comparisons, each written as PNG and SVG.

Contract: every function writes `<dir>/<name>.png` and `<dir>/<name>.svg`
and returns the names it wrote; logs are drawn one line per board so boards
compare, with units on every axis. A board keeps one colour in every chart
(its place among the logs given); each PMU event has its own panel and
scale, since counts of different events differ by many orders.
"""
import os

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402  (the backend is chosen first)
from matplotlib.ticker import MaxNLocator  # noqa: E402
import numpy as np  # noqa: E402

from .summary import loop_pmu_counts, loop_totals  # noqa: E402

TIMES = (("execute_us", "execute time [us]"), ("ip_us", "IP time [us]"),
         ("driver_us", "driver time [us]"), ("bandwidth_mbps", "bandwidth [MB/s]"))


def _save(fig, out_dir, name):
    for ext in ("png", "svg"):
        fig.savefig(os.path.join(out_dir, f"{name}.{ext}"), dpi=120)
    plt.close(fig)
    return [f"{name}.png", f"{name}.svg"]


def _logs(summary):
    """(log, colour) of every log with loops; the colour follows the log's
    place in the summary, so a board looks the same in every chart."""
    colours = plt.rcParams["axes.prop_cycle"].by_key()["color"]
    return [(log, colours[i % len(colours)]) for i, log in enumerate(summary["logs"])
            if log["status"] != "unreadable" and log["loops"]]


def _value(v):
    """A figure as a float to draw (a log may hold numbers of any size)."""
    return np.nan if v is None else float(v)


def timings(summary, out_dir):
    fig, axes = plt.subplots(len(TIMES), 1, sharex=True, figsize=(9, 10))
    for log, colour in _logs(summary):
        totals = [loop_totals(loop) for loop in log["loops"]]
        for ax, (field, _) in zip(axes, TIMES):
            ax.plot([_value(t[field]) for t in totals], marker=".", color=colour, label=log["board"])
    for ax, (_, label) in zip(axes, TIMES):
        ax.set_ylabel(label)
        ax.grid(alpha=0.3)
    axes[0].set_title("Per loop (times summed over sub-commands, bandwidth averaged)")
    axes[0].legend(fontsize="small")
    axes[-1].set_xlabel("loop")
    axes[-1].xaxis.set_major_locator(MaxNLocator(integer=True))
    return _save(fig, out_dir, "timings")


def loop_histogram(summary, out_dir):
    fig, ax = plt.subplots(figsize=(8, 5))
    for log, colour in _logs(summary):
        times = [float(t) for t in (loop_totals(loop)["execute_us"] for loop in log["loops"]) if t is not None]
        if times:
            # A margin around equal times that survives the floats' rounding of large values.
            pad = max(0.5, abs(max(times)) * 1e-6) if min(times) == max(times) else 0
            ax.hist(times, bins=min(50, max(5, len(set(times)))), range=(min(times) - pad, max(times) + pad),
                    histtype="step", color=colour, label=log["board"])
    ax.set_xlabel("execute time per loop [us]")
    ax.set_ylabel("loops")
    ax.set_title("Loop times")
    ax.legend(fontsize="small")
    return _save(fig, out_dir, "loop_times")


def pmu(summary, out_dir):
    """One panel per event, each on its own scale, one line per board."""
    drawn = [(log, colour, [loop_pmu_counts(loop) for loop in log["loops"]]) for log, colour in _logs(summary)]
    events = sorted({e for _, _, per_loop in drawn for counts in per_loop for e in counts})
    if not events:
        return []
    fig, axes = plt.subplots(len(events), 1, sharex=True, squeeze=False, figsize=(9, 1.2 + 2.2 * len(events)))
    for ax, event in zip(axes[:, 0], events):
        for log, colour, per_loop in drawn:
            if any(event in counts for counts in per_loop):
                ax.plot([_value(counts.get(event)) for counts in per_loop], marker=".", color=colour,
                        label=log["board"])
        ax.set_ylabel(f"{event}\n[count]")
        ax.grid(alpha=0.3)
        ax.yaxis.set_major_locator(MaxNLocator(integer=True))
    axes[0, 0].set_title("PMU event counts per loop (sub-command totals summed)")
    axes[0, 0].legend(fontsize="small")
    axes[-1, 0].set_xlabel("loop")
    axes[-1, 0].xaxis.set_major_locator(MaxNLocator(integer=True))
    fig.tight_layout()
    return _save(fig, out_dir, "pmu")


def bits(result, out_dir):
    fig, (ax_bits, ax_lanes) = plt.subplots(1, 2, figsize=(12, 4.5), gridspec_kw={"width_ratios": [4, 1]})
    positions = np.arange(32)
    to_one = np.array(result.bit_set)
    ax_bits.bar(positions, to_one, label="output bit 1 (golden 0)")
    ax_bits.bar(positions, np.array(result.bit_flips) - to_one, bottom=to_one, label="output bit 0 (golden 1)")
    ax_bits.set_xlabel("bit position in the 32-bit word")
    ax_bits.set_ylabel("mismatching words")
    ax_bits.set_xticks(range(0, 32, 4))
    ax_bits.set_title("Bits that differ (a bar in one colour only hints at a stuck bit)")
    ax_bits.legend(fontsize="small")
    ax_lanes.bar(np.arange(4), result.lanes)
    ax_lanes.set_xlabel("byte lane")
    ax_lanes.set_ylabel("mismatching words")
    ax_lanes.set_xticks(range(4))
    ax_lanes.set_title("Byte lanes")
    fig.tight_layout()
    return _save(fig, out_dir, "bits")


def heatmap(result, out_dir):
    shape = result.shape
    fig, (ax_map, ax_ch) = plt.subplots(1, 2, figsize=(12, 5), gridspec_kw={"width_ratios": [3, 2]})
    pixels = result.pixels.reshape(shape.h, shape.w)
    image = ax_map.imshow(pixels, cmap="magma", interpolation="nearest", vmin=0, vmax=max(1, int(pixels.max())))
    bar = fig.colorbar(image, ax=ax_map, label="mismatching bytes per pixel (all channels)")
    bar.locator = MaxNLocator(integer=True)
    bar.update_ticks()
    ax_map.set_xlabel("W (column)")
    ax_map.set_ylabel("H (row)")
    for axis in (ax_map.xaxis, ax_map.yaxis):
        axis.set_major_locator(MaxNLocator(integer=True))
    ax_map.set_title(f"Mismatches over {shape}")
    ax_ch.bar(np.arange(shape.c), result.channels)
    ax_ch.xaxis.set_major_locator(MaxNLocator(integer=True))
    ax_ch.yaxis.set_major_locator(MaxNLocator(integer=True))
    ax_ch.set_xlabel("channel")
    ax_ch.set_ylabel("mismatching bytes")
    ax_ch.set_title("Per channel")
    fig.tight_layout()
    return _save(fig, out_dir, "heatmap")
