"""The whole comparison of an output dump with its golden.

Contract: `compare` finds every 32-bit word the player would count as a
mismatch (output and golden differ under the golden's mask, over the
shorter of the two, trailing bytes of a partial word not compared) and
returns their counts, places, ranges, the bits and byte lanes that differ,
and with a shape H x W x C the mismatching bytes per pixel and channel.
Both files are read in chunks, so memory stays small beside the golden,
of which only the region compared is held. A file that changes while it
is read (its size or time, or a read that comes back short) is an error,
never a comparison.
numpy is loaded only once there is something to count: equal binary files
are compared at the speed of memcmp, with no start-up cost beyond Python's.
"""
import os

CHUNK_WORDS = 1 << 18  # 1 MiB of each file at a time: the two stay in cache for the comparison
FEW_WORDS = 64         # mismatches per chunk counted without numpy


class CompareError(Exception):
    """Input the comparison cannot use; the text says why."""


class Shape:
    """An output laid out as H x W x C bytes, channel fastest."""

    def __init__(self, text):
        try:
            self.h, self.w, self.c = (int(v) for v in text.lower().split("x"))
        except ValueError:
            raise CompareError(f"shape {text!r} is not HxWxC (for example 6x6x8)") from None
        if min(self.h, self.w, self.c) < 1:
            raise CompareError(f"shape {text!r} has an empty side")
        self.bytes = self.h * self.w * self.c

    def __str__(self):
        return f"{self.h}x{self.w}x{self.c}"


class Result:
    """What the comparison found; the counts are over mismatching words."""

    def __init__(self, shape):
        self.words = 0
        self.mismatches = 0
        self.ranges = []               # [first, last] word index, inclusive
        self.bit_flips = [0] * 32
        self.bit_set = [0] * 32        # flipped bits the output has set
        self.lanes = [0] * 4
        self.shape = shape
        if shape:
            import numpy as np
            self.pixels = np.zeros(shape.h * shape.w, np.int64)
            self.channels = np.zeros(shape.c, np.int64)

    def first(self):
        return self.ranges[0][0] if self.ranges else None

    def last(self):
        return self.ranges[-1][1] if self.ranges else None

    def add_ranges(self, pairs):
        """Appends [first, last] runs, joining one that goes on from the last."""
        if self.ranges and pairs and self.ranges[-1][1] + 1 == pairs[0][0]:
            self.ranges[-1][1] = pairs.pop(0)[1]
        self.ranges.extend(pairs)

    def add_few(self, index, out, gold, listing):
        """A few mismatching words (lists of ints, no mask), counted without numpy."""
        pairs = []
        for i in index:
            if pairs and pairs[-1][1] + 1 == i:
                pairs[-1][1] = i
            else:
                pairs.append([i, i])
        self.add_ranges(pairs)
        self.mismatches += len(index)
        for i, o, g in zip(index, out, gold):
            flipped = o ^ g
            for bit in range(32):
                if flipped >> bit & 1:
                    self.bit_flips[bit] += 1
                    self.bit_set[bit] += o >> bit & 1
            for lane in range(4):
                if flipped >> 8 * lane & 0xFF:
                    self.lanes[lane] += 1
                    self.add_byte(4 * i + lane)
        if listing:
            listing(index, out, gold, [0xFFFFFFFF] * len(index))

    def add_byte(self, byte):
        if self.shape and byte < self.shape.bytes:
            self.pixels[byte // self.shape.c] += 1
            self.channels[byte % self.shape.c] += 1

    def add(self, base, out, gold, mask, listing):
        """Words of a chunk (numpy arrays; mask None: all bits compared)."""
        import numpy as np
        diff = out ^ gold
        if mask is not None:
            diff &= mask
        bad = np.flatnonzero(diff)
        if len(bad) == 0:
            return
        index = bad + base
        flipped, got = diff[bad], out[bad]
        self.mismatches += len(bad)
        breaks = np.flatnonzero(np.diff(index) != 1)
        starts = np.concatenate(([index[0]], index[breaks + 1]))
        ends = np.concatenate((index[breaks], [index[-1]]))
        self.add_ranges(np.stack((starts, ends), axis=1).tolist())
        for bit in range(32):
            on = (flipped >> np.uint32(bit)) & np.uint32(1)
            self.bit_flips[bit] += int(on.sum())
            self.bit_set[bit] += int((on & (got >> np.uint32(bit))).sum())
        for lane in range(4):
            self.lanes[lane] += int(np.count_nonzero((flipped >> np.uint32(8 * lane)) & np.uint32(0xFF)))
        if self.shape:
            self.add_pixels(base, diff)
        if listing:
            listing(index.tolist(), got.tolist(), gold[bad].tolist(),
                    [0xFFFFFFFF] * len(bad) if mask is None else mask[bad].tolist())

    def add_pixels(self, base, diff):
        import numpy as np
        byte = np.flatnonzero(diff.view(np.uint8)) + 4 * base
        byte = byte[byte < self.shape.bytes]
        self.pixels += np.bincount(byte // self.shape.c, minlength=len(self.pixels))
        self.channels += np.bincount(byte % self.shape.c, minlength=self.shape.c)


def _differing_words(out, gold, limit):
    """Word indexes (in the chunk) where the two byte strings differ, found
    by halving with memcmp; None when there are more than `limit`."""
    found, stack = [], [(0, len(out) // 4)]
    while stack:
        lo, hi = stack.pop()
        if out[4 * lo:4 * hi] == gold[4 * lo:4 * hi]:
            continue
        if hi - lo == 1:
            found.append(lo)
            if len(found) > limit:
                return None
            continue
        mid = (lo + hi) // 2
        stack += [(mid, hi), (lo, mid)]
    return found


def _golden_region(golden, dump_size, region):
    """The text golden's region to compare, every region taken as long as
    the dump (the output the player would size it by). Only that region's
    bytes are kept: the first read keeps the file's first region, which is
    the one asked for when the golden has one; otherwise a second read keeps
    the one asked for."""
    from .golden import GoldenChanged, GoldenError, read_text_golden
    wanted = 0
    try:
        while True:
            regions = read_text_golden(golden, lambda name: dump_size, keep=lambda i: i == wanted)
            if not regions:
                raise CompareError(f"{golden}: no region ('@' line) in the golden")
            if not 0 <= region < len(regions):
                raise CompareError(f"{golden}: region {region} asked, the golden has {len(regions)}")
            if regions[region].data is not None:
                return regions[region]
            wanted = regions[region].order
    except GoldenChanged as e:
        raise CompareError(str(e)) from None
    except GoldenError as e:
        raise CompareError(f"{golden}: the player would not load it: {e}") from None



def golden_kind(path):
    """'hex' or 'bin' as the player decides it: by the name's last four characters."""
    for kind in ("hex", "bin"):
        if path.endswith("." + kind):
            return kind
    raise CompareError(f"{path}: a golden's name ends in .hex or .bin (the player: \"Golden file type: Fail\")")


def _read(f, buf, size):
    """The next `size` bytes of `f`; read into `buf`, reused from chunk to
    chunk, when they fill it (a fresh buffer per chunk costs more in page
    faults than the read itself). A short read means the file shrank."""
    if size != len(buf):
        raw = f.read(size)
    else:
        raw = buf if f.readinto(buf) == size else b""
    if len(raw) != size:
        raise CompareError(f"{f.name}: changed while it was read")
    return raw


def _unchanged(f, before):
    after = os.fstat(f.fileno())
    if (after.st_size, after.st_mtime_ns) != (before.st_size, before.st_mtime_ns):
        raise CompareError(f"{f.name}: changed while it was read")


def _add_few(result, base, out, gold, listing):
    """Counts a chunk's mismatching words without numpy when they are few."""
    index = _differing_words(out, gold, FEW_WORDS)
    if index is None:
        return False
    word = lambda raw, i: int.from_bytes(raw[4 * i:4 * i + 4], "little")  # noqa: E731
    result.add_few([base + i for i in index], [word(out, i) for i in index], [word(gold, i) for i in index],
                   listing)
    return True


def _words(raw):
    import numpy as np
    return np.frombuffer(raw, "<u4")


def compare(dump, golden, region=0, shape=None, listing=None):
    """Compares the dump with the golden; `listing(index, out, gold, mask)`
    receives every mismatching word, chunk by chunk, in order."""
    kind = golden_kind(golden)
    for path in (dump, golden):
        if not os.path.isfile(path):
            raise CompareError(f"{path}: no such file")
    dump_size = os.path.getsize(dump)
    if dump_size == 0:
        raise CompareError(f"{dump}: empty dump, no output to compare")
    if shape and shape.bytes > dump_size:
        raise CompareError(f"shape {shape} needs {shape.bytes} bytes, {dump} holds {dump_size}")
    if kind == "bin":
        gold_size = os.path.getsize(golden)
        if gold_size > dump_size:
            raise CompareError(f"{golden} ({gold_size} bytes) is longer than {dump} ({dump_size} bytes): "
                               "the player refuses a binary golden longer than its output")
        text = None
    else:
        text = _golden_region(golden, dump_size, region)
        gold_size = text.length
    result = Result(shape)
    result.words = min(dump_size, gold_size) // 4
    result.dump_size, result.golden_size = dump_size, gold_size
    size = 4 * min(CHUNK_WORDS, result.words)
    out_buf, gold_buf = bytearray(size), bytearray(size if text is None else 0)
    with open(dump, "rb") as out_f, open(golden, "rb") as gold_f:
        stats = [os.fstat(out_f.fileno()), os.fstat(gold_f.fileno())]
        if stats[0].st_size != dump_size or (text is None and stats[1].st_size != gold_size):
            raise CompareError(f"{dump if stats[0].st_size != dump_size else golden}: changed while it was read")
        for base in range(0, result.words, CHUNK_WORDS):
            count = min(CHUNK_WORDS, result.words - base)
            raw = _read(out_f, out_buf, 4 * count)
            if text is None:
                gold_raw = _read(gold_f, gold_buf, 4 * count)
                if raw == gold_raw:
                    continue  # the usual case, at the speed of memcmp
                if _add_few(result, base, memoryview(raw), memoryview(gold_raw), listing):
                    continue
                gold, mask = _words(gold_raw), None
            else:
                gold = text.data[4 * base:4 * (base + count)].view("<u4")
                mask = text.mask_bytes(4 * base, 4 * (base + count)).view("<u4")
            result.add(base, _words(raw), gold, mask, listing)
        _unchanged(out_f, stats[0])
        if text is None:
            _unchanged(gold_f, stats[1])
    return result
