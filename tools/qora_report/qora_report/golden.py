"""Golden files, read exactly as the player reads them.

Contract: `read_text_golden` gives, for every region of a text golden, the
name, length, data and mask bytes the player's loader gives (bytes no data
line reached read as 0 and are not compared), in the player's region order,
or raises GoldenError with the message the player prints when its load
fails. Lengths come from `length_of(name)`, which stands for the player's
output list (0: no output of that name). `keep(i)` picks the regions (by
their place in the file) whose bytes are wanted; the others are walked for
the loader's checks and hold no memory. A region's bytes cost memory only
where data lines reach. Well-formed runs of lines are decoded with numpy;
any other line is read the way the player's line scan reads it, one line at
a time. A file that changes while it is read raises GoldenError.
"""
import binascii
import os

import numpy as np

LINE_BUF = 120          # the player reads text through a 120-byte buffer
PIECE = LINE_BUF - 1    # so a line is read in pieces of at most 119 bytes
CHUNK = 4 << 20         # bytes of whole lines decoded at a time
WHITE = b" \t\n\v\f\r"  # what the line scan skips and stops tokens at
LONG_LINE = "a data line fills the 120-byte line buffer (the player: \"Warning : len >= 120\")"

# Per character: its nibble in bits 0-3, bit 4 when it is compared, bit 7
# when it cannot be inside a token. 'x' reads as 0 and is not compared; any
# other non-hex character reads as 15.
_CODE = np.zeros(256, np.uint8)
for _c in range(256):
    _ch = chr(_c)
    _nib = int(_ch, 16) if _ch in "0123456789abcdefABCDEF" else 15
    _CODE[_c] = 0 if _ch == "x" else _nib | 0x10
    if _c == 0 or bytes([_c]) in WHITE:
        _CODE[_c] |= 0x80
# Columns of the 32 token characters in "aabbccdd_eeffgghh_iijjkkll_mmnnoopp".
_DIGITS = np.array([g * 9 + i for g in range(4) for i in range(8)])


class GoldenError(Exception):
    """A golden the player would not load; the text is the player's message."""


class GoldenChanged(GoldenError):
    """A golden that changed while it was read."""


class Region:
    """One region of a golden: its bytes as the comparison sees them. The
    data are zero pages from the system until lines write them; the mask
    exists only once a nibble is not compared (until then every byte below
    `filled` is compared whole and none above it)."""

    def __init__(self, name, length, order, kept=True):
        self.name = name
        self.length = length
        self.order = order  # its place in the file
        self.data = np.zeros(length, np.uint8) if kept else None
        self.mask = None
        self.filled = 0  # bytes the data lines reached so far

    def mask_bytes(self, start, end):
        """The mask of bytes [start, end)."""
        if self.mask is not None:
            return self.mask[start:end]
        mask = np.zeros(end - start, np.uint8)
        mask[:max(0, min(end, self.filled) - start)] = 0xFF
        return mask


    def take(self, count):
        """Bytes the next `count` lines add: whole lines, then what is left."""
        room = self.length - self.filled
        return min(count, room // 16), room % 16

    def store(self, data, mask):
        """Appends decoded lines (rows of 16 bytes in memory order)."""
        whole, rest = self.take(len(data))
        end = self.filled + 16 * whole
        if self.data is not None:
            self.data[self.filled:end] = data[:whole].reshape(-1)
            self._fill_mask(self.filled, end, None if mask is None else mask[:whole].reshape(-1))
        self.filled = end
        if whole < len(data) and rest:
            if self.data is not None:
                self.data[end:end + rest] = data[whole, :rest]
                self._fill_mask(end, end + rest, None if mask is None else mask[whole, :rest])
            self.filled += rest

    def _fill_mask(self, start, end, values):
        """Mask bytes [start, end): all compared (values None) or `values`."""
        if values is None and self.mask is None:
            return  # still implied by `filled`
        if self.mask is None:
            self.mask = np.zeros(self.length, np.uint8)
            self.mask[:start] = 0xFF
        self.mask[start:end] = 0xFF if values is None else values


def scan_field(text, i, width):
    """What a "%<width>s" conversion reads at `i`: white space skipped, then
    up to `width` other characters. Returns the field (empty: none) and
    where the scan stopped."""
    n = len(text)
    while i < n and text[i] in WHITE:
        i += 1
    j = i
    while j < n and j - i < width and text[j] not in WHITE:
        j += 1
    return text[i:j], j


def scan_tokens(text):
    """The tokens the sixteen-token line scan reads from `text` (at most 16)."""
    tokens, i = [], 0
    for t in range(16):
        if t in (4, 8, 12):
            if i >= len(text) or text[i] != 0x5F:  # '_' must follow every fourth token
                break
            i += 1
        token, i = scan_field(text, i, 2)
        if not token:
            break
        tokens.append(token)
    return tokens


def decode_line(text):
    """Data and mask bytes (memory order) of one line, as the scan reads it.
    Tokens the scan does not fill read as empty: nibbles 15, compared."""
    codes = np.full(32, _CODE[0], np.uint8)
    for t, token in enumerate(scan_tokens(text)):
        for k, c in enumerate(token):
            codes[2 * t + k] = _CODE[c]
    return _bytes_of(codes.reshape(1, 32))


def _bytes_of(codes):
    """Rows of 32 character codes to rows of 16 data and mask bytes, last
    token first; mask None when every nibble is compared."""
    hi, lo = codes[:, 0::2], codes[:, 1::2]
    data = ((hi << 4) | (lo & 0x0F))[:, ::-1]
    if codes.size == 0 or (codes & 0x10).all():
        return data, None
    mask = (np.where(hi & 0x10, 0xF0, 0) | np.where(lo & 0x10, 0x0F, 0)).astype(np.uint8)
    return data, mask[:, ::-1]


def _decode_rows(rows):
    """Decodes a run of equal-length lines (`rows`, k x L, L >= 36, C order).
    None when a line is not plainly laid out."""
    if not ((rows[:, 8] == 0x5F) & (rows[:, 17] == 0x5F) & (rows[:, 26] == 0x5F)).all():
        return None
    if rows.shape[1] == 36:
        # The four 8-digit tokens of every line side by side, for unhexlify.
        digits = np.ndarray((len(rows), 4), "<u8", rows, strides=(36, 9)).copy()
        try:
            spelled = np.frombuffer(binascii.unhexlify(digits), np.uint8)
            return spelled.reshape(-1, 16)[:, ::-1], None
        except binascii.Error:
            pass  # 'x' nibbles or other characters: the table below
    codes = _CODE[rows[:, _DIGITS]]
    if codes.max() & 0x80:
        return None
    return _bytes_of(codes)


class _TextReader:
    """The loader's walk over the lines of a text golden."""

    def __init__(self, length_of, fast, keep):
        self.length_of = length_of
        self.fast = fast
        self.keep = keep
        self.regions = []
        self.region = None

    def piece(self, piece):
        """One piece of at most 119 bytes, as the loader handles it."""
        text = piece.split(b"\0", 1)[0]
        if len(text) < 8 or piece[0] == 0x2F:  # short, or a '/' comment
            return
        if piece[0] == 0x40:  # '@'
            self.open(text)
        elif self.region is not None:
            if len(text) >= PIECE:
                raise GoldenError(LONG_LINE)
            if self.region.data is not None:
                self.region.store(*decode_line(text))

    def open(self, text):
        name, _ = scan_field(text, 1, 9)  # "@%9s"
        if not name:
            raise GoldenError("a region line has no name (the player: \"sscanf fail\")")
        name = name.decode("latin-1")
        length = self.length_of(name)
        if length == 0:
            raise GoldenError(f"region {name} names no output (the player: \"get invalid out sz\")")
        order = len(self.regions)
        self.region = Region(name, length, order, self.keep(order))
        self.regions.append(self.region)

    def pieces(self, buf):
        """The slow path: every piece of `buf`, one at a time."""
        pos, n = 0, len(buf)
        while pos < n:
            nl = buf.find(b"\n", pos, pos + PIECE)
            end = nl + 1 if nl >= 0 else min(pos + PIECE, n)
            self.piece(buf[pos:end])
            pos = end

    def chunk(self, buf):
        """Whole lines of the file (`buf`, a memoryview, ends with a line feed)."""
        a = np.frombuffer(buf, np.uint8)
        if self.fast and self.region is not None and len(a) % 36 == 0:
            # Mostly the chunk is one run of plain 36-byte data lines: rows
            # that decode so are such lines, found without a line search.
            rows = a.reshape(-1, 36)
            first = rows[:, 0]
            if (rows[:, 35] == 0x0A).all() and not ((first == 0x2F) | (first == 0x40)).any():
                if self.region.data is None:
                    return  # a region not wanted: lines this short hold no error
                decoded = _decode_rows(rows)
                if decoded is not None:
                    self.region.store(*decoded)
                    return
        ends = np.flatnonzero(a == 0x0A) + 1
        starts = np.concatenate(([0], ends[:-1]))
        lens = ends - starts
        if not self.fast or lens.max() > PIECE or not a.all():
            self.pieces(bytes(buf))  # long lines or NUL bytes: the slow path
            return
        first = a[starts]
        data_line = (lens >= 8) & (first != 0x2F) & (first != 0x40)
        # Runs of data lines of one length decode together; anything else
        # (the '@' lines that open regions among them) goes line by line.
        key = np.where(data_line & (lens >= 36), lens, -np.arange(1, len(lens) + 1))
        run_starts = np.flatnonzero(np.concatenate(([True], key[1:] != key[:-1])))
        run_ends = np.concatenate((run_starts[1:], [len(lens)]))
        for r0, r1 in zip(run_starts.tolist(), run_ends.tolist()):
            if key[r0] < 0 or self.region is None:
                for i in range(r0, r1):
                    self.piece(bytes(buf[starts[i]:ends[i]]))
                continue
            self.run(buf, a, starts[r0], int(lens[r0]), r1 - r0)

    def run(self, buf, a, start, length, count):
        end = start + length * count
        if length >= PIECE:
            raise GoldenError(LONG_LINE)
        if self.region.data is None or self.region.take(count) == (0, 0):
            return  # a region not wanted, or past its end: the lines add nothing
        rows = a[start:end].reshape(count, length)
        decoded = _decode_rows(rows)
        if decoded is None:
            for i in range(count):
                s = start + i * length
                self.piece(bytes(buf[s:s + length]))
            return
        self.region.store(*decoded)


def read_text_golden(path, length_of, fast=True, keep=lambda index: True):
    """The regions of a text golden, sorted by name as the player sorts them."""
    reader = _TextReader(length_of, fast, keep)
    with open(path, "rb") as f:
        before = os.fstat(f.fileno())
        rest = b""
        while True:
            block = f.read(CHUNK)
            if not block:
                break
            text = rest + block
            cut = text.rfind(b"\n") + 1  # whole lines now, the rest with the next block
            if cut:
                reader.chunk(memoryview(text)[:cut])
            rest = text[cut:]
            if len(rest) > CHUNK:  # no line feed for a long way: pieces, as the loader reads them
                keep_from = len(rest) - len(rest) % PIECE
                reader.pieces(rest[:keep_from])
                rest = rest[keep_from:]
        reader.pieces(rest)  # a last line without a line feed
        _unchanged(f, before, path)
    reader.regions.sort(key=lambda r: r.name.encode("latin-1").lower())
    return reader.regions


def _unchanged(f, before, path):
    """Raises GoldenError when the file changed while it was read."""
    after = os.fstat(f.fileno())
    if (after.st_size, after.st_mtime_ns) != (before.st_size, before.st_mtime_ns) or f.tell() != after.st_size:
        raise GoldenChanged(f"{path}: changed while it was read")
