"""qora_report diff on dumps of real runs, its refusals, and its golden
reader against the player's own loader."""
import glob
import json
import os
import re
import subprocess

import numpy as np
import pytest

from conftest import CORRUPTED_WORDS, report
from qora_report import compare as compare_module
from qora_report import golden as golden_module
from qora_report.compare import Shape
from qora_report.golden import GoldenError, read_text_golden

DRIVER = os.environ.get("QORA_GOLDEN_DRIVER", "build/tests/qora_pattern_golden_driver")
SOURCE = os.environ.get("QORA_SOURCE_DIR", ".")


@pytest.fixture(scope="module")
def dump(runs):
    return os.path.join(runs["dir"], "output0_0.bin")


def test_every_mismatch_of_a_failing_run(runs, dump, tmp_path):
    status, out, err = report("diff", dump, runs["bad_golden"], "--shape", "6x6x16", "-o", str(tmp_path))
    assert status == 1, err
    listed = [int(line.split()[0]) for line in out.splitlines() if ": output = " in line]
    assert listed == list(CORRUPTED_WORDS)  # all 20, where the player stops at 17
    doc = json.loads((tmp_path / "diff.json").read_text())
    assert (doc["words_compared"], doc["mismatching_words"], doc["first_word"], doc["last_word"]) == (144, 20, 3, 143)
    assert doc["ranges"] == [[3, 5], [40, 41], [100, 111], [120, 121], [143, 143]]
    assert doc["bit_flips"] == [20 if bit == 3 else 0 for bit in range(32)]
    assert doc["byte_lanes"] == [20, 0, 0, 0]
    pixels = np.zeros(36, int)
    channels = np.zeros(16, int)
    for w in CORRUPTED_WORDS:
        pixels[4 * w // 16] += 1
        channels[4 * w % 16] += 1
    assert doc["shape"]["pixels"] == pixels.reshape(6, 6).tolist()
    assert doc["shape"]["channels"] == channels.tolist()
    for name in ("bits", "heatmap"):
        assert (tmp_path / f"{name}.png").read_bytes()[:4] == b"\x89PNG"
        assert (tmp_path / f"{name}.svg").stat().st_size > 0


def test_the_right_golden_matches(runs, dump):
    status, out, _ = report("diff", dump, os.path.join(runs["demo"], "golden.hex"))
    assert status == 0 and "mismatching words: 0" in out


def test_binary_golden_bits_lanes_and_masked_nibbles(dump, tmp_path):
    words = np.fromfile(dump, "<u4")
    gold = words.copy()
    gold[7] ^= 0x80000000           # bit 31, lane 3
    gold[9] ^= 0x00010001           # bits 0 and 16, lanes 0 and 2
    gold.tofile(str(tmp_path / "g.bin"))
    status, out, _ = report("diff", dump, str(tmp_path / "g.bin"), "-o", str(tmp_path))
    doc = json.loads((tmp_path / "diff.json").read_text())
    assert status == 1 and doc["mismatching_words"] == 2 and doc["ranges"] == [[7, 7], [9, 9]]
    flips = [0] * 32
    flips[31] = flips[0] = flips[16] = 1
    assert doc["bit_flips"] == flips and doc["byte_lanes"] == [1, 0, 1, 1]
    set_bits = [((int(words[7]) >> b) & 1) * (b == 31) + ((int(words[9]) >> b) & 1) * (b in (0, 16))
                for b in range(32)]
    assert doc["bits_set_in_output"] == set_bits
    # A shorter golden compares its own length, as the player does.
    gold[:8].tofile(str(tmp_path / "short.bin"))
    status, out, _ = report("diff", dump, str(tmp_path / "short.bin"))
    assert status == 1 and "compared 8 words" in out and "mismatching words: 1" in out
    # The same difference under an 'x' nibble of a text golden is not compared.
    rows = gold.view(np.uint8).reshape(-1, 16)[:, ::-1]
    lines = ["_".join(row[i:i + 4].tobytes().hex() for i in range(0, 16, 4)) for row in rows]
    lines[1] = "x" + lines[1][1:]       # high nibble of byte 15 of line 1: word 7's bit 31
    (tmp_path / "g.hex").write_text("@40009000\n" + "\n".join(lines) + "\n")
    words.tofile(str(tmp_path / "plain.bin"))  # no output index in its name: region 0
    status, out, _ = report("diff", str(tmp_path / "plain.bin"), str(tmp_path / "g.hex"))
    assert status == 1 and "mismatching words: 1" in out and "first: word 9" in out


@pytest.mark.parametrize("chunk,few", [(1, 64), (3, 0), (4, 64), (1 << 22, 0), (1 << 22, 64)])
def test_chunks_and_counting_ways_agree(monkeypatch, tmp_path, chunk, few):
    rnd = np.random.default_rng(3)
    out = rnd.integers(0, 1 << 32, 40, dtype=np.uint32)
    gold = out.copy()
    changed = [2, 3, 4, 5, 6, 11, 12, 39]
    gold[changed] ^= rnd.integers(1, 1 << 32, len(changed), dtype=np.uint32)
    out.tofile(str(tmp_path / "d.bin"))
    gold.tofile(str(tmp_path / "g.bin"))
    monkeypatch.setattr(compare_module, "CHUNK_WORDS", chunk)
    monkeypatch.setattr(compare_module, "FEW_WORDS", few)
    listed = []
    result = compare_module.compare(str(tmp_path / "d.bin"), str(tmp_path / "g.bin"), shape=Shape("5x4x8"),
                                    listing=lambda *words: listed.extend(zip(*words)))
    assert result.ranges == [[2, 6], [11, 12], [39, 39]] and result.mismatches == 8
    assert listed == [(i, int(out[i]), int(gold[i]), 0xFFFFFFFF) for i in changed]
    flipped = out[changed] ^ gold[changed]
    assert result.bit_flips == [int(((flipped >> b) & 1).sum()) for b in range(32)]
    assert result.bit_set == [int(((flipped & out[changed]) >> b & 1).sum()) for b in range(32)]
    lanes = flipped.view(np.uint8).reshape(-1, 4) != 0
    assert result.lanes == lanes.sum(axis=0).tolist()
    byte = [4 * i + k for i, row in zip(changed, lanes) for k in range(4) if row[k]]
    assert result.pixels.tolist() == np.bincount(np.array(byte) // 8, minlength=20).tolist()
    assert result.channels.tolist() == np.bincount(np.array(byte) % 8, minlength=8).tolist()


@pytest.mark.parametrize("args,message", [
    (["missing.bin", "{golden}"], "missing.bin: no such file"),
    (["{dump}", "missing.hex"], "missing.hex: no such file"),
    (["{dump}", "{dir}/g.txt"], "ends in .hex or .bin"),
    (["{dump}", "{dir}/long.bin"], "is longer than"),
    (["{dump}", "{golden}", "--shape", "6x6x17"], "shape 6x6x17 needs 612 bytes"),
    (["{dump}", "{golden}", "--shape", "6x6"], "is not HxWxC"),
    (["{dump}", "{golden}", "--shape", "0x6x6"], "has an empty side"),
    (["{dump}", "{golden}", "--region", "1"], "region 1 asked, the golden has 1"),
    (["{dump}", "{golden}", "--region", "-1"], "region -1 asked, the golden has 1"),
    (["{dump}", "{dir}/wide.hex"], "len >= 120"),
    (["{dump}", "{dir}/empty.hex"], "no region"),
    (["{dump}", "{golden}", "-o", "{dump}/x"], "Not a directory"),
])
def test_diff_refuses_bad_input(runs, dump, tmp_path, args, message):
    (tmp_path / "g.txt").write_text("")
    (tmp_path / "long.bin").write_bytes(b"\0" * (os.path.getsize(dump) + 4))
    (tmp_path / "wide.hex").write_text("@40009000\n" + "0" * 130 + "\n")
    (tmp_path / "empty.hex").write_text("// nothing\n")
    values = {"dump": dump, "golden": runs["bad_golden"], "dir": str(tmp_path)}
    status, out, err = report("diff", *(a.format(**values) for a in args))
    assert status == 2 and message in err and "Traceback" not in err


@pytest.mark.parametrize("args,message", [
    (["summary", "missing.log"], "missing.log: No such file or directory"),
    (["summary", "{empty}"], "empty file"),
    (["plot", "{empty}", "-o", "{empty}/charts"], "Not a directory"),
    (["summary"], "the following arguments are required"),
    (["frobnicate"], "invalid choice"),
])
def test_commands_refuse_bad_input(tmp_path, args, message):
    (tmp_path / "empty.log").write_text("")
    status, out, err = report(*(a.format(empty=str(tmp_path / "empty.log")) for a in args))
    assert status == 2 and message in err and "Traceback" not in err


# The golden reader against the player's loader: the pattern the golden
# fuzz target loads goldens against, and its corpus.
OUTPUTS = {"40009000": 64, "4000A000": 20, "40000000": 4096}
PATTERN = "// Output\n" + "".join(f"// @{name} {{{size}}}\n" for name, size in OUTPUTS.items())


def sizer(outputs):
    """The player's rule for a region's length: the size of the first
    output, in address order, whose name begins with the region's name."""
    def length_of(name):
        for output in sorted(outputs, key=str.lower):
            if output.startswith(name):
                return outputs[output]
        return 0
    return length_of


def reader_view(path, fast, outputs=OUTPUTS):
    try:
        regions = read_text_golden(path, sizer(outputs), fast)
    except GoldenError:
        regions = []
    lines = [f"{r.length} {r.data.tobytes().hex()} {r.mask_bytes(0, r.length).tobytes().hex()}"
             for r in regions] or ["fail"]
    names = [r.name.lower() for r in regions]
    return lines, len(set(names)) < len(names)


def player_view(tmp, golden, pattern=None):
    subprocess.run([DRIVER, pattern or str(tmp / "p.hex"), golden, str(tmp / "r.txt")], check=True,
                   stdout=subprocess.DEVNULL)
    return (tmp / "r.txt").read_text().splitlines()


def test_reader_agrees_on_the_authored_patterns(runs, tmp_path):
    for pattern, golden in [("conv_demo/pattern.hex", "conv_demo/golden.hex"),
                            ("conv_demo/pattern.hex", "bad_golden.hex"),
                            ("max_pwr4_pi_test/pattern.hex", "max_pwr4_pi_test/cmodel_output.hex")]:
        pattern, golden = os.path.join(runs["dir"], pattern), os.path.join(runs["dir"], golden)
        outputs = {name: int(size) for name, size in re.findall(r"^// @(\S+) \{(\d+)\}$", open(pattern).read(), re.M)}
        player = player_view(tmp_path, golden, pattern)
        assert player != ["fail"]
        assert reader_view(golden, True, outputs)[0] == player
        assert reader_view(golden, False, outputs)[0] == player


@pytest.mark.parametrize("chunk", [36, 370, 1 << 24])
def test_reader_agrees_with_the_players_loader(monkeypatch, tmp_path, chunk):
    # Small chunks put whole chunks of plain lines inside a region, which
    # the reader decodes without looking for line ends.
    monkeypatch.setattr(golden_module, "CHUNK", chunk)
    (tmp_path / "p.hex").write_text(PATTERN)
    corpus = sorted(glob.glob(os.path.join(SOURCE, "fuzz/corpus/qora_pattern_golden_fuzz/*")))
    inputs = [data[1:] for data in (open(f, "rb").read() for f in corpus) if data and not data[0] & 1]
    assert len(inputs) > 100
    golden = str(tmp_path / "g.hex")
    outcomes = set()
    for data in inputs:
        with open(golden, "wb") as f:
            f.write(data)
        player = player_view(tmp_path, golden)
        for fast in (True, False):
            lines, equal_names = reader_view(golden, fast)
            # Regions of equal names may come in either order from the player's sort.
            if equal_names:
                lines, player = sorted(lines), sorted(player)
            assert lines == player, data[:200]
        outcomes.add("fail" if player == ["fail"] else "loaded")
    assert outcomes == {"fail", "loaded"}
