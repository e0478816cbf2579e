"""The diff command's results: the console report and the JSON document
(diff.json) of one output dump compared with its golden."""
import json
import os
import re

SCHEMA = "qora_report.diff/1"
RANGES_SHOWN = 20


def default_region(dump):
    """The output index of a dump the player wrote ("output<loop>_<index>.bin")."""
    m = re.search(r"_(\d+)\.bin$", os.path.basename(dump))
    return int(m.group(1)) if m else 0


def document(dump, golden, region, result):
    """The JSON document of a comparison (diff.json)."""
    doc = {"schema": SCHEMA, "dump": dump, "golden": golden, "region": region,
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


def report(dump, golden, region, result):
    """The console report of a comparison."""
    lines = [f"compared {result.words} words ({4 * result.words} bytes) of {dump} with {golden}"
             + (f" (region {region})" if golden.endswith(".hex") else "")]
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


def write_json(doc, path):
    with open(path, "w") as f:
        json.dump(doc, f)
        f.write("\n")
