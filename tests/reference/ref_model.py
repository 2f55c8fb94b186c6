#!/usr/bin/env python3
"""Independent reference model of the lumamark command-line tool.

A slow, single-threaded Python re-implementation of the whole tool, used by
scripts/difftest.py to check the C++ binary byte for byte: same command line,
same video bytes, payload files, embedding logs, messages on the same
streams and the same exit statuses.

Usage:
    python3 tests/reference/ref_model.py [lumamark options...]

The options are those of lumamark itself.  The program name printed in the
usage text is taken from the environment variable LUMAMARK_ARGV0 when it is
set (so that the model can print the same name as the binary it is compared
with), else from sys.argv[0].

Behaviour that the tool gets from the C++ runtime is emulated:
  * a non-numeric or out-of-range integer option prints the runtime's
    "terminate called after throwing an instance of ..." report on standard
    error and ends the process with SIGABRT (return code -6);
  * standard output is buffered and flushed at exit, standard error is
    written at once.

Only the Python 3.11 standard library is used.  It is meant for small frames.
"""

import os
import signal
import sys

M32 = 0xFFFFFFFF
M64 = (1 << 64) - 1
INT_MAX = 2147483647
INT_MIN = -2147483648


# ---------------------------------------------------------------- integers

def s32(x):
    x &= M32
    return x - (1 << 32) if x & 0x80000000 else x


def s8(x):
    x &= 0xFF
    return x - 256 if x & 0x80 else x


def cdiv(a, b):
    """Division truncating toward zero (C semantics)."""
    q = abs(a) // abs(b)
    return q if (a >= 0) == (b >= 0) else -q


def cmod(a, b):
    """Remainder with the sign of the dividend (C semantics)."""
    return a - b * cdiv(a, b)


def border_or_default(setting, size):
    return setting if setting > 0 else max(cdiv(size, 8), 1)


# ---------------------------------------------------------------- generator

def _step(st):
    """One step of the 64-bit generator; state = s0 | s1 << 32."""
    s0 = st & M32
    s1 = st >> 32
    t = s1 ^ s0
    n0 = (((s0 >> 6) | (s0 << 26)) & M32) ^ t ^ ((t << 9) & M32)
    n1 = ((t >> 19) | (t << 13)) & M32
    return n0 | (n1 << 32)


class Prng64:
    __slots__ = ("st",)

    def __init__(self, lo, hi):
        self.st = (lo & M32) | ((hi & M32) << 32)

    def next(self):
        """Advance and return the 8 output bytes (the new state, LE)."""
        self.st = _step(self.st)
        return self.st.to_bytes(8, "little")

    def next_int(self):
        self.st = _step(self.st)
        return self.st


# The step is linear over GF(2); jump-ahead by matrix powers lets the pattern
# bank be filled lazily (only the patterns a frame actually uses).
_POW_CACHE = []


def _mat_apply(cols, v):
    r = 0
    i = 0
    while v:
        if v & 1:
            r ^= cols[i]
        v >>= 1
        i += 1
    return r


def _pow_matrix(i):
    """Columns of the matrix of 2**i generator steps."""
    if not _POW_CACHE:
        _POW_CACHE.append([_step(1 << b) for b in range(64)])
    while len(_POW_CACHE) <= i:
        a = _POW_CACHE[-1]
        _POW_CACHE.append([_mat_apply(a, c) for c in a])
    return _POW_CACHE[i]


def prng_jump(st, k):
    i = 0
    while k:
        if k & 1:
            st = _mat_apply(_pow_matrix(i), st)
        k >>= 1
        i += 1
    return st


# ---------------------------------------------------------------- stoi

class StoiAbort(Exception):
    def __init__(self, kind):
        Exception.__init__(self, kind)
        self.kind = kind


def stoi(word):
    ws = b" \t\n\v\f\r"
    i = 0
    n = len(word)
    while i < n and word[i] in ws:
        i += 1
    neg = False
    if i < n and word[i] in b"+-":
        neg = word[i] == 0x2D
        i += 1
    j = i
    while j < n and 0x30 <= word[j] <= 0x39:
        j += 1
    if j == i:
        raise StoiAbort("std::invalid_argument")
    v = int(word[i:j])
    if neg:
        v = -v
    if v < INT_MIN or v > INT_MAX:
        raise StoiAbort("std::out_of_range")
    return v


# ---------------------------------------------------------------- output

def _write_all(fd, data):
    """Writes data to fd; returns False after a write error."""
    try:
        while data:
            data = data[os.write(fd, data):]
    except OSError:
        return False
    return True


class Streams:
    """Standard output is buffered (flushed when large and at exit) and
    standard error is not, as with C stdio.  Write errors are ignored."""

    def __init__(self):
        self.buf = []
        self.size = 0

    def o(self, b):
        self.buf.append(b)
        self.size += len(b)
        if self.size >= 1 << 16:
            self.flush()

    def flush(self):
        data = b"".join(self.buf)
        self.buf = []
        self.size = 0
        _write_all(1, data)

    def e(self, b):
        _write_all(2, b)


IO = Streams()


# ---------------------------------------------------------------- watermark id

HEXDIGITS = b"0123456789abcdefABCDEF"


def wm_id_validate(wm_id, nbits):
    if nbits > 2048:
        return -3
    for ch in wm_id:
        if ch not in HEXDIGITS:
            return -5
    if len(wm_id) == 0:
        return -2
    rest = wm_id.lstrip(b"0")
    if not rest:
        return -4 if nbits < 0 else 0
    d = int(rest[:1], 16)
    length = d.bit_length() + 4 * (len(rest) - 1)
    return -4 if nbits < length else 0


def hex_to_bits(wm_id, nbits):
    """Right-aligned binary of a validated ID, as a str of nbits chars."""
    if nbits <= 0:
        return ""
    v = int(wm_id, 16) if wm_id.strip(b"0") else 0
    s = format(v, "b")
    if len(s) > nbits:
        s = s[len(s) - nbits:]
    return "0" * (nbits - len(s)) + s


def _strtoul16(buf):
    i = 0
    n = len(buf)
    while i < n and buf[i] in b" \t\n\v\f\r":
        i += 1
    neg = False
    if i < n and buf[i] in b"+-":
        neg = buf[i] == 0x2D
        i += 1
    if i + 1 < n and buf[i] == 0x30 and buf[i + 1] in b"xX":
        i += 2
    v = 0
    while i < n and buf[i] in HEXDIGITS:
        v = v * 16 + int(buf[i:i + 1], 16)
        i += 1
    if neg:
        v = (-v) & M64
    return v & M32


def urn_hash(urn):
    w = []
    for g in range(4):
        if 8 * g >= len(urn):
            w.append(0)
        else:
            w.append(_strtoul16(urn[8 * g:8 * g + 8]))
    h = w[3]
    for x in (w[2], w[1], w[0]):
        h = (h * 1025) & M32
        h ^= h >> 6
        h = (h + x) & M32
    h = (h * 1025) & M32
    h ^= h >> 6
    h = (h * 9) & M32
    h ^= h >> 11
    h = (h * 32769) & M32
    return h


# ---------------------------------------------------------------- FEC

def fec_encode(wm_id, nbits, L, mode):
    if mode == 2:
        if nbits > 0 and nbits <= L:
            return bytearray(b"0" * L)
        return None
    # mode 0
    if nbits < 1:
        return None
    p = cdiv(nbits + 7, 8)
    total = nbits + p
    bits = hex_to_bits(wm_id, nbits)
    g = cdiv(total - 1, p)
    out = bytearray(b"0" * total)
    for i in range(p):
        start = i * g
        end = min(start + g, nbits)
        ones = 0
        if end > start:
            chunk = bits[start:end]
            out[start + i:end + i] = chunk.encode()
            ones = chunk.count("1")
            out[end + i] = 0x31 if ones & 1 else 0x30
        else:
            out[end + i] = 0x30
    return out


CHUNK = 131072


def rm_block_encode(out, start, end, stride, bitchars, k, r, seed):
    if out is None or start >= end or bitchars is None or k == 0:
        return -1
    m = k + r - 1
    count = 1 << m
    needed = -(-(end - start) // stride)
    while count < needed:
        m += 1
        count <<= 1
    a = [1 if bitchars[i] == "1" else 0 for i in range(k)]
    pad = 1
    while len(a) < m + 1:
        a.append(pad)
        pad ^= 1
    a0 = a[0]
    mask = 0
    for p in range(m):
        if a[p + 1]:
            mask |= 1 << p
    nchunks = (count + CHUNK - 1) // CHUNK
    # columns of the read-out that can be reached
    cmax = min(CHUNK, -(-needed // nchunks) + 1)
    x = seed % 2147483647
    if x == 0:
        x = 1
    perms = []
    for q in range(nchunks):
        base = q * CHUNK
        n = min(CHUNK, count - base)
        perm = list(range(base, base + n))
        if count > 1:
            for s in range(n, 1, -1):
                x = x * 48271 % 2147483647
                t = x % s
                perm[s - 1], perm[t] = perm[t], perm[s - 1]
        perms.append(perm[:cmax])
    place = start
    for c in range(CHUNK):
        for q in range(nchunks):
            idx = c + CHUNK * q
            if idx < count:
                j = perms[q][c]
                bit = a0 ^ ((j & mask).bit_count() & 1)
                out[place] = 0x31 if bit else 0x30
                place += stride
                if place >= end:
                    return 0
    return 0


def rm_encode_payload(out, wm_id, nbits, L, seed):
    bits = hex_to_bits(wm_id, nbits) if nbits > 0 else ""
    if nbits <= 20:
        return rm_block_encode(out, 0, L, 1, bits, nbits, 3, seed)
    if nbits <= 60:
        k, r = 20, 2
    else:
        k, r = 17, 1
    B = (nbits + k - 1) // k
    for i in range(B):
        lo = i * nbits // B
        hi = (i + 1) * nbits // B
        res = rm_block_encode(out, i, L, B, bits[lo:hi], hi - lo, r, seed)
        if res < 0:
            return res
    return 0


# ---------------------------------------------------------------- payload map

def sign_pattern_generate(strength, cols, rows, s0, s1):
    n = s32(cols * rows)
    M = s32(2 * strength + 1)
    out = bytearray(max(n, 0))
    g = Prng64(s0, s1)
    for start in range(0, n, 8):
        b = g.next()
        for k in range(min(8, n - start)):
            u = cmod(b[k], M)
            if (u & 0xFF) == (strength & 0xFF):
                val = 1
            else:
                val = u - strength
            out[start + k] = val & 0xFF
    return out


def index_row_shuffle(row, off, n, s0, s1):
    g = Prng64(s0, s1)
    if n < 1:
        return
    last = ((n - 1) // 8) * 8
    b = 0
    while b <= last:
        while True:
            bs = g.next()
            if 0 not in bs:
                break
        for k in range(min(8, n - b)):
            q = b + k
            idx = bs[k] % (q + 1)
            row[off + q], row[off + idx] = row[off + idx], row[off + q]
        b += 8


def index_table_build(table, nrows, L, w):
    for t in range(nrows):
        off = t * L
        for j in range(L):
            table[off + j] = j & 0xFF
        index_row_shuffle(table, off, L, 33 + 19 * t, w)


# ---------------------------------------------------------------- filter

class Filter:
    def __init__(self):
        self.width = 0
        self.height = 0
        self.sp_size = 0
        self.sp_border = 0
        self.bit_count = 0
        self.ebc = 0
        self.p_density = 0
        self.sp_density = 0
        self.strength = 0
        self.wm_id = b""
        self.coded = None
        self.pattern_values = None
        self.fec_mode = 0
        self.indexes = None
        self.deep_fake = 0
        self.map = None
        self.pm_mode = 0
        self.log_path = None
        self.threads = 0
        self.bank_cache = {}


def wm_filter_init(F, strength, sp_size, sp_border, p_density, sp_density,
                   width, height, wm_id, bit_count, deep_fake, fec_mode,
                   pm_mode):
    code = wm_id_validate(wm_id, bit_count)
    if code:
        IO.o(b"WM id validation failed (error code %d)\n" % code)
        return code
    if fec_mode & ~2:
        IO.o(b"Error: FEC mode %d is not supported\n" % fec_mode)
        return -1
    if (pm_mode & M32) > 3:
        IO.o(b"Error: PM mode %d is not supported\n" % pm_mode)
        return -7
    F.strength = strength
    F.bit_count = bit_count
    F.width = width
    F.height = height
    F.sp_size = sp_size
    F.sp_border = sp_border
    F.p_density = p_density
    F.sp_density = sp_density
    F.deep_fake = deep_fake
    F.fec_mode = fec_mode
    F.pm_mode = pm_mode
    if fec_mode != 0:
        F.ebc = s32(cdiv(width, sp_size) * cdiv(height, sp_size))
    else:
        F.ebc = bit_count + cdiv(bit_count + 7, 8)
    F.wm_id = wm_id
    F.coded = fec_encode(wm_id, bit_count, F.ebc, fec_mode)
    cols = cdiv(width, sp_size)
    rows = cdiv(height, sp_size)
    if cols < 1 or rows < 1:
        return -1
    if fec_mode == 2:
        F.indexes = None
        return 0
    if F.ebc < 1:
        return -1
    return 0


def wm_filter_set_payload(F, pmap, indexes, ebc, sp_size, width, height):
    F.ebc = ebc
    F.sp_size = sp_size
    F.width = width
    F.height = height
    cols = cdiv(width, sp_size)
    rows = cdiv(height, sp_size)
    if cols < 1 or rows < 1:
        return
    n = cols * rows
    if F.fec_mode != 2:
        if ebc < 1:
            return
        F.indexes = bytearray(ebc * 16)
    F.map = bytearray(pmap[:n])
    if indexes is not None and F.indexes is not None:
        F.indexes[:] = indexes[:ebc * 16]


def wm_generate_payload_map(F, pmap, urn, indexes):
    cols = cdiv(F.width, F.sp_size)
    rows = cdiv(F.height, F.sp_size)
    N = s32(cols * rows)
    L = F.ebc
    reps = cdiv(N, L)
    seed = urn_hash(urn)
    if F.fec_mode == 2:
        r = rm_encode_payload(F.coded, F.wm_id, F.bit_count, L, seed)
        if r < 0:
            IO.e(b"Failed to generate payload\n")
            return
    s1 = 0 if urn == b"0" * 32 else seed
    pattern = sign_pattern_generate(F.strength, cols, rows, 9, s1)
    F.pattern_values = pattern
    if indexes is not None:
        index_table_build(indexes, 16, L, 3)
    b = F.strength & 0xFF
    coded = F.coded
    for i in range(reps):
        for j in range(L):
            c = i * L + j
            v = s8(pattern[c])
            if indexes is not None:
                bit = coded[indexes[(i % 16) * L + j]]
            else:
                bit = coded[j]
            if bit == 0x31:
                v = -v
            pmap[c] = (v + b) & 0xFF
    for c in range(max(reps * L, 0), N):
        pmap[c] = 0


# ---------------------------------------------------------------- kernels

def block_ssd(luma, off, w, h, stride):
    if h < 1:
        return 0
    vals = []
    if w >= 1:
        for r in range(h):
            o = off + r * stride
            vals.extend(luma[o:o + w])
    s = sum(vals) & M32
    mean = cdiv(s32(s), s32(w * h))
    return s32(sum((v - mean) * (v - mean) for v in vals))


def embed_superpixel(luma, x, y, stride, sp_w, sp_h, spb_w, spb_h, value,
                     frame_w, frame_h, pattern, texture, pm_mode):
    bw = spb_w if spb_w >= 1 else max(cdiv(sp_w, 8), 1)
    bh = spb_h if spb_h >= 1 else max(cdiv(sp_h, 8), 1)
    sign = -1 if value < 0 else 1
    table = list(range(8))
    rng = None
    if pm_mode == 0:
        pass
    elif pm_mode == 3:
        lo = ((y << 16) ^ (frame_w ^ frame_h) ^ (x + 1)) & M32
        hi = lo ^ 0xACBDEF01
        rng = Prng64(lo, hi)
    elif pm_mode == 2:
        bh2 = s32(2 * bh)
        bw2 = s32(2 * bw)
        top = block_ssd(luma, y * stride + x, sp_w, bh2, stride)
        bottom = block_ssd(luma, (sp_h + y - bh2) * stride + x, sp_w,
                           bh2, stride)
        left = block_ssd(luma, y * stride + x, bw2, sp_h, stride)
        right = block_ssd(luma, y * stride + (sp_w + x - bw2), bw2,
                          sp_h, stride)
        m = min(min(top, bottom), min(left, right))
        if m < 1000:
            for i in range(1, 8):
                table[i] = 1
        elif m < 5000:
            c = 5 - cdiv(m, 1000)
            for k in range(1, 5):
                table[k] = cdiv(c * k, 5)
            table[5] = c
            table[6] = cdiv(6 * c, 5)
            table[7] = cdiv(7 * c, 5)
    else:
        for i in range(1, 8):
            table[i] = 1
    if sp_h < 1:
        return 0
    percept = pm_mode == 3 and texture is not None
    total = 0
    counter = 8
    rb = b""
    for row in range(sp_h):
        base = (y + row) * stride + x
        prow = row * sp_w
        for col in range(sp_w):
            p = pattern[prow + col]
            if p == 0:
                continue
            tp = table[p] if 0 <= p < 8 else p
            a = min(p, tp) * sign
            if a == 0:
                continue
            addr = base + col
            old = luma[addr]
            if percept:
                if counter > 7:
                    rb = rng.next()
                    r = rb[0]
                    counter = 1
                else:
                    r = rb[counter]
                    counter += 1
                t = texture[(y + row) * frame_w + x + col]
                weight = r + 24 * t + 128
                d = cdiv(a * weight, 1024)
                if d == 0:
                    continue
                new = old + d
            else:
                new = old + a
            if new > 255:
                new = 255
            if new < 0:
                new = 0
            luma[addr] = new
            total += new - old
    return s32(total)


def signal_measure(luma, x, y, sp_w, sp_h, stride, spb_w, spb_h):
    bw = spb_w if spb_w > 0 else max(cdiv(sp_w, 8), 1)
    bh = spb_h if spb_h > 0 else max(cdiv(sp_h, 8), 1)
    iw = sp_w - 2 * bw
    ih = sp_h - 2 * bh
    if ih < 1 or iw < 1:
        return 0
    nW = iw + 1
    nH = ih + 1
    hW = nW // 2
    hH = nH // 2
    top = (y + bh - 1) * stride + x + bw - 1
    bot = (y + sp_h - bh) * stride + x + bw - 1
    T = [luma[top + j] for j in range(iw + 1)]
    B = [luma[bot + j] for j in range(iw + 1)]
    total = 0
    for i in range(1, ih + 1):
        ro = (y + bh - 1 + i) * stride + x
        L = luma[ro + bw - 1]
        R = luma[ro + sp_w - bw]
        for j in range(1, iw + 1):
            h = (L * (nW - j) + R * j + hW) // nW
            v = (T[j] * (nH - i) + B[j] * i + hH) // nH
            m = (h + v + 1) // 2
            p = luma[ro + bw - 1 + j]
            dh = abs(p - h)
            dv = abs(p - v)
            dm = abs(p - m)
            if dh < min(dv, dm):
                total += p - h
            elif dm <= dv:
                total += p - m
            else:
                total += p - v
    return s32(total)


def texture_map(luma, w, h, stride, radius):
    out = bytearray(w * h)
    if radius == 0:
        return out
    r = radius
    # column prefix sums: colpre[y][x] = sum of rows < y in column x
    colpre = [[0] * w]
    for y in range(h):
        prev = colpre[-1]
        row = luma[y * stride:y * stride + w]
        colpre.append([prev[x] + row[x] for x in range(w)])
    for y in range(h):
        row = luma[y * stride:y * stride + w]
        rp = [0]
        for v in row:
            rp.append(rp[-1] + v)
        y0 = max(y - r, 0)
        y1 = min(y + r + 1, h)
        nv = y1 - y0
        c1 = colpre[y1]
        c0 = colpre[y0]
        o = y * w
        for x in range(w):
            s = max(x - r, 0)
            e = min(x + r, w - 1)
            nh = e - s + 1
            S = rp[e + 1] - rp[s]
            C = c1[x] - c0[x]
            mh = (S + nh // 2) // nh
            mv = (C + nv // 2) // nv
            p = row[x]
            dh = abs(mh - p)
            dv = abs(mv - p)
            k = min(dh, dv)
            out[o + x] = min(dh + dv + 7 * k, 50)
    return out


def image_seed(luma, width, height, stride, cells_x, cells_y, cols, rows):
    gx = s32(cols * cells_x)
    gy = s32(rows * cells_y)
    n = s32(gx * gy)
    if n < 1:
        return 0
    cw = cdiv(width, gx)
    ch = cdiv(height, gy)
    h = 0
    for r in range(gy):
        for c in range(gx):
            if cw < 1 or ch < 1:
                v = 0
            else:
                s = 0
                for yy in range(ch):
                    o = (r * ch + yy) * stride + c * cw
                    s += sum(luma[o:o + cw])
                v = s32(s) >> 8
            h = s32(h * 31 + v)
            h = cmod(h, 9001)
    return cmod(h, 32)


def selection_block(out, off, n, density, seed):
    t = cdiv(s32(density * 255), 100)
    g = Prng64(seed, 9)
    if n < 1:
        return
    c = 0
    for p in range(0, n, 8):
        b = g.next()
        for j in range(min(8, n - p)):
            v = 1 if b[j] <= t else 0
            out[off + p + j] = v
            c += v
    if n == 1:
        return
    T = cdiv(s32(density * n), 100)
    while c != T:
        r = g.next_int()
        q = ((r + 1) & M64) % n
        kind = 1 if c > T else 0
        while out[off + q] != kind:
            q = (q + 1) % n
        out[off + q] = 1 - kind
        c += -1 if kind else 1


def selection_mask(out, reps, length, density, seed):
    if reps == 1:
        selection_block(out, 0, length, density, seed)
    else:
        for k in range(length):
            selection_block(out, k * reps, reps, density, s32(seed + 67 * k))


def key_hash(text):
    h = 0
    for b in text:
        h = cmod(s32(h * 31 + s8(b)), 9001)
    return h


CLASS_ADJUST = (20, 15, 5, -5)


class PatternBank:
    """Lazily filled pattern bank: 4 classes, 16 variants, `levels` levels."""

    def __init__(self, levels, size, border, base_density, key, seed, dotted):
        self.levels = levels
        self.size = size
        self.border = border
        self.base = base_density
        self.dotted = dotted
        self.start = (seed & M32) | ((key_hash(key) & M32) << 32)
        b = border_or_default(border, size)
        self.b = b
        if b < size - b:
            self.steps = (size - 2 * b) * (-(-(size - 2 * b) // 8))
        else:
            self.steps = 0
        self.cache = {}

    def get(self, cls, variant, level):
        key = (cls, variant, level)
        p = self.cache.get(key)
        if p is None:
            p = self._fill(cls, variant, level)
            self.cache[key] = p
        return p

    def _fill(self, c, v, L):
        S = self.size
        b = self.b
        levels = self.levels
        P = [0] * (S * S)
        d = min(s32(self.base + CLASS_ADJUST[c]), 100)
        # 32-bit arithmetic throughout: extreme densities wrap
        hi = cdiv(s32(cdiv(d, 2) * 256), 100)
        lo = cdiv(s32(cdiv(d, 4) * 256), 100)
        t = cdiv(s32(min(cdiv(s32(d * levels), L + 1), 100) * 256), 100)
        if self.steps:
            idx = (c * 16 + v) * levels + L
            st = prng_jump(self.start, idx * self.steps)
            for r in range(b, S - b):
                c0 = b
                while c0 < S - b:
                    st = _step(st)
                    bs = st.to_bytes(8, "little")
                    for k in range(min(8, S - b - c0)):
                        x = bs[k]
                        if L > 0:
                            val = L + 1 if x <= t else 0
                        else:
                            if x > t:
                                val = 0
                            elif x <= lo:
                                val = 3
                            elif x <= hi:
                                val = 2
                            else:
                                val = 1
                        P[r * S + c0 + k] = s8(val)
                    c0 += 8
        if self.dotted:
            k = 0
            while b + 3 * k < S - 3:
                P[b * S + b + 3 * k + 2] = 0
                P[(S - b - 1) * S + b + 3 * k + 2] = 0
                k += 1
            k = 0
            while b + 3 * k < S - 3:
                P[(b + 3 * k + 2) * S + b] = 0
                P[(b + 3 * k + 2) * S + S - b - 1] = 0
                k += 1
        return P


def position_class(sx, sy, cols, rows):
    qc = cols // 4
    qr = rows // 4
    tc = cols // 3

    def zone(s, q, n):
        if s == q or s == n - q:
            return "line"
        if s < q or s > n - q:
            return "outer"
        return "inner"

    zc = zone(sx, qc, cols)
    zr = zone(sy, qr, rows)
    if zc == "line" or zr == "line":
        return 2
    if zc == "outer" and zr == "outer":
        return 0
    if zc == "outer" or zr == "outer":
        return 1
    return 3 if tc < sx < cols - tc else 2


# ---------------------------------------------------------------- log

class EmbedLog:
    def __init__(self, fd, sp, border, init_value, stride):
        self.fd = fd
        self.first = True
        self.count = 0
        self.noise_sum = 0
        self.signal_sum = 0.0
        self.noise_min = INT_MAX
        self.noise_max = INT_MIN
        self.signal_min = 1e9
        self.signal_max = -1e9
        self.sp = sp
        self.border = border
        self.init_value = init_value
        self.stride = stride
        bw2 = s32(2 * border) if border > 0 else (
            2 if sp <= 7 else 2 * cdiv(sp, 8))
        side = s32(sp - bw2)
        self.inner_area = max(s32(side * side), 1)
        self.bin_count = [0] * 21
        self.bin_signal = [0.0] * 21
        self.bin_extr = [0.0] * 21
        self.parts = [("%-1024s\n" % '{"stats": {},').encode(),
                      b'"entries": [\n']

    @staticmethod
    def open(path, sp, border, init_value, stride):
        if not path:
            return None
        try:
            fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o666)
        except OSError:
            return None
        return EmbedLog(fd, sp, border, init_value, stride)

    def add(self, luma, sx, sy, value, signal):
        sv = signal / self.inner_area
        extr = signal_measure(luma, sx * self.sp, sy * self.sp, self.sp,
                              self.sp, self.stride, self.border, self.border)
        ev = extr / self.inner_area
        self.count += 1
        self.noise_sum += value
        self.signal_sum += sv
        if value < self.noise_min:
            self.noise_min = value
        if value > self.noise_max:
            self.noise_max = value
        if self.signal_min > sv:
            self.signal_min = sv
        if sv > self.signal_max:
            self.signal_max = sv
        av = abs(value)
        if av <= 20:
            self.bin_count[av] += 1
            self.bin_signal[av] += abs(sv)
            self.bin_extr[av] += abs(ev)
        if not self.first:
            self.parts.append(b",\n")
        self.parts.append((
            '  {"sp_x": %d, "sp_y": %d, "noise_val": %d, "signal_val": %.4f, '
            '"signal_val_extr": %.4f}' % (sx, sy, value, sv, ev)).encode())
        self.first = False

    def finish(self):
        self.parts.append(b"\n]}\n")
        buf = bytearray(b"".join(self.parts))
        if self.count:
            navg = self.noise_sum / self.count
            savg = self.signal_sum / self.count
        else:
            navg = 0.0
            savg = 0.0

        def dictionary(name, sums):
            items = ['"%d": %.4f' % (k, sums[k] / self.bin_count[k])
                     for k in range(21) if self.bin_count[k] > 0]
            return ('"%s": {' % name + ", ".join(items) + "}")[:511]

        stats = (
            '{"stats": {"init_value": %d, "total_sp_count": %d, '
            '"noise_val": {"min": %d, "max": %d, "avg": %.2f, "sum": %d}, '
            '"signal_val": {"min": %.4f, "max": %.4f, "avg": %.4f, '
            '"sum": %.4f}, %s, %s},' % (
                self.init_value, self.count,
                0 if self.noise_min == INT_MAX else self.noise_min,
                0 if self.noise_max == INT_MIN else self.noise_max,
                navg, self.noise_sum,
                0.0 if self.signal_min > 1e8 else self.signal_min,
                0.0 if self.signal_max < -1e8 else self.signal_max,
                savg, self.signal_sum,
                dictionary("str_stats", self.bin_signal),
                dictionary("str_stats_extr", self.bin_extr)))[:2047]
        line = ("%-1024s\n" % stats).encode()
        if len(line) > len(buf):
            buf.extend(b"\0" * (len(line) - len(buf)))
        buf[0:len(line)] = line
        _write_all(self.fd, bytes(buf))
        os.close(self.fd)


# ---------------------------------------------------------------- frame

def embed_frame(luma, width, height, stride, p_density, strength, deep_fake,
                pmap, selection, seed, sp, border, pm_mode, texture, log):
    key = bytes(0x31 if (k < len(pmap) and pmap[k] > strength) else 0x30
                for k in range(12))
    bank = PatternBank(strength, sp, border, p_density, key, seed,
                       pm_mode != 3)
    cols = cdiv(width, sp)
    rows = cdiv(height, sp)
    measures = None
    if deep_fake:
        measures = [signal_measure(luma, (i % cols) * sp, (i // cols) * sp,
                                   sp, sp, width, border, border)
                    for i in range(cols * rows)]
    total = rows * cols
    for i in range(total):
        sx = i % cols
        sy = i // cols
        if sy >= rows:
            break
        if selection[i] != 1:
            continue
        value = pmap[i] - strength
        cls = position_class(sx, sy, cols, rows)
        level = 0 if value == 0 else cmod(abs(value) - 1, strength)
        pattern = bank.get(cls, sx % 16, level)
        if not deep_fake:
            signal = embed_superpixel(luma, sx * sp, sy * sp, stride, sp, sp,
                                      border, border, value, width, height,
                                      pattern, texture, pm_mode)
        else:
            target = measures[i]
            a = value
            P = pattern
            while True:
                mag = s8(abs(a))
                scratch = [mag if P[k] != 0 else 0 for k in range(sp * sp)]
                signal = embed_superpixel(luma, sx * sp, sy * sp, stride, sp,
                                          sp, border, border, a, width,
                                          height, scratch, texture, pm_mode)
                a = a - 1 if a < 0 else a + 1
                if abs(a) >= strength or abs(target) <= abs(signal):
                    break
                P = scratch
        if log is not None:
            log.add(luma, sx, sy, value, signal)


def wm_filter_apply(F, luma, width, height, stride, seed):
    sp = F.sp_size
    cols = cdiv(F.width, sp)
    rows = cdiv(F.height, sp)
    if cols < 1 or rows < 1:
        return -1
    total = s32(cols * rows)
    if seed < 0:
        s = image_seed(luma, width, height, stride, 1, 1, cols, rows)
    else:
        s = seed & 31
    log = None
    if F.log_path:
        log = EmbedLog.open(F.log_path, sp, F.sp_border, s, stride)
    L = F.ebc
    reps = cdiv(total, L)
    mask = bytearray(total)
    selection_mask(mask, reps, L, F.sp_density, s)
    selection = bytearray(total)
    if F.indexes is not None:
        idx = F.indexes
        for j in range(reps):
            row = (j & 15) * L
            for k in range(L):
                selection[j * L + k] = mask[idx[row + k] * reps + j]
    else:
        for j in range(reps):
            selection[j * L:j * L + L] = mask[:L]
    texture = None
    if F.pm_mode == 3 and F.width >= 1 and F.height >= 1:
        texture = texture_map(luma, F.width, F.height, stride, 10)
    if F.map is None or len(F.map) < total:
        # a map that has to grow here has undefined content
        F.map = bytearray(total)
    embed_frame(luma, F.width, F.height, stride, F.p_density, F.strength,
                F.deep_fake, F.map, selection, s, sp, F.sp_border,
                F.pm_mode, texture, log)
    if log is not None:
        log.finish()
    return 0


# ---------------------------------------------------------------- front end

USAGE_LINES = [
    b"Options:\n",
    b"  --help                Show this help message\n",
    b"  --version             Show version information\n",
    b"  --input-file <path>   Input yuv file\n",
    b"  --output-file <path>  Output yuv file\n",
    b"  --payload-file <path> Payload file\n",
    b"  --strength <int>      Embedding strength\n",
    b"  --fec <int>           Forward error correction mode. 0 is old parity "
    b"bit + repeat mode, 2 is new RM-based mode (default)\n",
    b"  --bit-profile <int>   Bit profile\n",
    b"  --sp-density <int>    Superpixel density\n",
    b"  --p-density <int>     Pixel density\n",
    b"  --width <int>         Input file width\n",
    b"  --height <int>        Input file height\n",
    b"  --user-urn <str>      User organization URN\n",
    b"  --wm-id <str>         Watermark ID\n",
    b"  --pix-fmt <str>       Pixel format\n",
    b"  --deep-fake           Increase embedding strength for deep fake "
    b"detection\n",
    b"  --sp-width <int>      Superpixel size\n",
    b"  --spb-width <int>     Superpixel border size override (0 = auto)\n",
    b"  --pm-mode <int>       Perceptual mode\n",
    b"  --seed <int>          Watermark superpixel mask seed (defines which "
    b"SPs are embedded). Range: 0 to 31 (or -1, default = derive from image "
    b"hash)\n",
    b"  --embed-log <path>    Output JSON file with embedding stats\n",
    b"  --threads <int>       Number of threads to use (0 = auto-detect)\n",
]


def print_usage(prog):
    IO.o(b"Usage: " + prog + b" <options>\n")
    for line in USAGE_LINES:
        IO.o(line)


# option -> (kind, field, message when the argument is missing)
OPTIONS = {
    b"--input-file": ("path", "input_file",
                      b"Error: --input-file option requires an argument\n"),
    b"--output-file": ("path", "output_file",
                       b"Error: --output-file requires an argument\n"),
    b"--payload-file": ("path", "payload_file",
                        b"Error: --payload-file requires an argument\n"),
    b"--strength": ("int", "strength",
                    b"Error: --strength requires an argument\n"),
    b"--fec": ("int", "fec", b"Error: --fec requires an argument\n"),
    b"--bit-profile": ("int", "bit_profile",
                       b"Error: --bit-profile requires an argument\n"),
    b"--sp-density": ("int", "sp_density",
                      b"Error: --sp-density requires an argument\n"),
    b"--p-density": ("int", "p_density",
                     b"Error: --p-density requires an argument\n"),
    b"--width": ("int", "width", b"Error: --width requires an argument\n"),
    b"--height": ("int", "height", b"Error: --height requires an argument\n"),
    b"--sp-width": ("int", "sp_width",
                    b"Error: --sp-width requires an argument\n"),
    b"--sp-height": ("skip", None,
                     b"Error: --sp-height requires an argument\n"),
    b"--spb-width": ("int", "spb_width",
                     b"Error: --spb-width requires an argument\n"),
    b"--spb-height": ("skip", None,
                      b"Error: --spb-height requires an argument\n"),
    b"--user-urn": ("str", "user_urn",
                    b"Error: --user-urn requires an argument\n"),
    b"--wm-id": ("str", "wm_id", b"Error: --wm-id requires an argument\n"),
    b"--pix-fmt": ("str", "pix_fmt",
                   b"Error: --pix-fmt requires an argument\n"),
    b"--pm-mode": ("int", "pm_mode",
                   b"Error: --pm-mode requires an argument\n"),
    b"--seed": ("int", "seed", b"Error: --seed requires an argument\n"),
    b"--embed-log": ("path", "embed_log",
                     b"Error: --embed-log requires an argument\n"),
    b"--threads": ("int", "threads",
                   b"Error: --threads requires an argument\n"),
}

RUN, HELP_SHOWN, VERSION_SHOWN, ERROR = 0, 1, 2, 3


def default_config():
    return {
        "input_file": b"", "output_file": b"", "payload_file": b"",
        "strength": 3, "fec": 2, "bit_profile": 13, "sp_density": 100,
        "p_density": 100, "width": 1920, "height": 1080, "sp_width": 7,
        "spb_width": 0, "pm_mode": 3, "seed": -1,
        "user_urn": b"0" * 32, "wm_id": b"0", "pix_fmt": b"yuv420p",
        "embed_log": b"", "threads": 1, "deep_fake": False,
        "wm_id_given": False,
    }


def parse_options(prog, words, cfg):
    if not words:
        print_usage(prog)
        return ERROR
    i = 0
    while i < len(words):
        w = words[i]
        if w == b"--help" or w == b"-h":
            print_usage(prog)
            return HELP_SHOWN
        if w == b"--version":
            IO.o(b"2.1.3\n")
            IO.flush()
            return VERSION_SHOWN
        if w == b"--deep-fake":
            cfg["deep_fake"] = True
            i += 1
            continue
        opt = OPTIONS.get(w)
        if opt is None:
            IO.e(b"Error: Unknown option: " + w)
            return ERROR
        kind, field, msg = opt
        if i + 1 >= len(words):
            IO.e(msg)
            return ERROR
        arg = words[i + 1]
        i += 2
        if kind == "int":
            v = stoi(arg)
            cfg[field] = v
            if field == "fec" and v != 0 and v != 2:
                IO.e(b"Error: Unsupported FEC mode (%d), use 0 or 2\n" % v)
                return ERROR
        elif kind == "skip":
            pass
        else:
            cfg[field] = arg
            if field == "wm_id":
                cfg["wm_id_given"] = True
    return RUN


def _open_read(path):
    try:
        return os.open(path, os.O_RDONLY)
    except OSError:
        return None


def _read_all(fd):
    chunks = []
    try:
        while True:
            b = os.read(fd, 1 << 20)
            if not b:
                break
            chunks.append(b)
    except OSError:
        pass
    return b"".join(chunks)


def _le32(data, off):
    return int.from_bytes(data[off:off + 4], "little", signed=True)


def read_payload_file(cfg, path, fec):
    """Returns (W, H, S, bits, ebc, map, indexes) or an error message."""
    fd = _open_read(path)
    if fd is None:
        return b"Error opening payload file: " + path + b"\n"
    data = _read_all(fd)
    os.close(fd)
    hdr_err = b"Failed to read payload header from: " + path + b"\n"
    if len(data) < 20:
        return hdr_err
    W = _le32(data, 0)
    H = _le32(data, 4)
    S = _le32(data, 8)
    count = _le32(data, 16)
    if S <= 0 or W < 0 or H < 0:
        return hdr_err
    n_sp = (W // S) * (H // S)
    if n_sp > INT_MAX:
        return hdr_err
    b = border_or_default(cfg["spb_width"], S)
    if S <= 2 * b:
        return hdr_err
    if fec == 0 and (count < 0 or 16 * count > INT_MAX):
        return hdr_err
    if fec == 2:
        bits = count
        ebc = n_sp
    else:
        ebc = count
        bits = count - (count + 8) // 9
    if n_sp == 0 or len(data) < 20 + n_sp:
        return b"Failed to read payload map from: " + path + b"\n"
    pmap = bytearray(data[20:20 + n_sp])
    indexes = None
    if fec == 0:
        n = 16 * ebc
        if n == 0 or len(data) < 20 + n_sp + n:
            return b"Failed to read payload indexes from: " + path + b"\n"
        indexes = bytearray(data[20 + n_sp:20 + n_sp + n])
    return (W, H, S, bits, ebc, pmap, indexes)


def run(prog, words):
    cfg = default_config()
    res = parse_options(prog, words, cfg)
    if res in (HELP_SHOWN, VERSION_SHOWN):
        return 0
    if res == ERROR:
        return 1
    if cfg["threads"] < 0:
        IO.e(b"Error: --threads must be >= 0 (0 = auto-detect)\n")
        return 1
    if not 5 <= cfg["sp_width"] <= 64:
        IO.e(b"Error: --sp-width must be in [5, 64]\n")
        return 1
    if cfg["sp_width"] <= s32(2 * cfg["spb_width"]):
        IO.e(b"SP size and border mismatch, reduce borders\n")
        return 1
    F = Filter()
    W, H, S, bits = cfg["width"], cfg["height"], cfg["sp_width"], \
        cfg["bit_profile"]
    fec = cfg["fec"]
    payload_file = cfg["payload_file"]
    if payload_file:
        mode = "save" if cfg["wm_id_given"] else "file"
    else:
        mode = "gen"
    urn = cfg["user_urn"]
    if mode == "file":
        r = read_payload_file(cfg, payload_file, fec)
        if isinstance(r, bytes):
            IO.e(r)
            return 1
        W, H, S, bits, ebc, pmap, indexes = r
        urn = b"0" * 32
    else:
        n_sp = s32(cdiv(W, S) * cdiv(H, S))
        if fec == 0:
            ebc = bits + cdiv(bits + 7, 8)
        else:
            ebc = n_sp
        pmap = bytearray(n_sp)
        indexes = bytearray(ebc * 16) if fec == 0 else None
        if indexes is not None and len(indexes) == 0:
            indexes = None
    code = wm_filter_init(F, cfg["strength"], S, cfg["spb_width"],
                          cfg["p_density"], cfg["sp_density"], W, H,
                          cfg["wm_id"], bits, 1 if cfg["deep_fake"] else 0,
                          fec, cfg["pm_mode"])
    if code != 0:
        IO.e(b"Filter initialization failed! Error code: %d\n" % code)
        return 1
    if cfg["embed_log"]:
        F.log_path = cfg["embed_log"]
    F.threads = cfg["threads"]
    if mode == "save":
        wm_generate_payload_map(F, pmap, urn, indexes)
        try:
            fd = os.open(payload_file, os.O_WRONLY | os.O_CREAT | os.O_TRUNC,
                         0o666)
        except OSError:
            IO.e(b"Error opening payload file: " + payload_file + b"\n")
            return 1
        count = bits if fec == 2 else ebc
        data = b"".join(v.to_bytes(4, "little", signed=True)
                        for v in (W, H, S, S, count))
        data += bytes(pmap)
        if indexes is not None:
            data += bytes(indexes)
        _write_all(fd, data)
        os.close(fd)
        return 0
    if mode == "gen":
        wm_generate_payload_map(F, pmap, urn, indexes)
    wm_filter_set_payload(F, pmap, indexes, ebc, S, W, H)
    pf = cfg["pix_fmt"]
    if pf == b"yuv420p":
        frame_size = cdiv(s32(W * H * 3), 2)
    elif pf == b"yuv444p":
        frame_size = s32(W * H * 3)
    elif pf == b"yuv422p":
        frame_size = s32(W * H * 2)
    else:
        frame_size = 0
    # A size that wrapped to a positive value below the luma plane could not
    # hold the picture; the tool refuses it like a size of 0.
    if frame_size == 0 or 0 < frame_size < W * H:
        IO.e(b"Invalid frame dimensions or pixel format\n")
        return 1
    if cfg["strength"] < 1:
        IO.e(b"Error: --strength must be >= 1\n")
        return 1
    if not 0 <= cfg["sp_density"] <= 100:
        IO.e(b"Error: --sp-density must be in [0, 100]\n")
        return 1
    if frame_size < 0:
        IO.e(b"Failed to allocate frame buffer of size %d\n"
             % ((2 * frame_size) & M64))
        return 1
    if cfg["input_file"]:
        infd = _open_read(cfg["input_file"])
        if infd is None:
            IO.e(b"Error opening input file: " + cfg["input_file"] + b"\n")
            return 1
    else:
        infd = sys.stdin.buffer.fileno()
    if cfg["output_file"]:
        try:
            outfd = os.open(cfg["output_file"],
                            os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o666)
        except OSError:
            IO.e(b"Error opening output file: " + cfg["output_file"] + b"\n")
            if cfg["input_file"]:
                os.close(infd)
            return 1
    else:
        outfd = None
    while True:
        buf = bytearray()
        eof = False
        while len(buf) < frame_size:
            try:
                b = os.read(infd, frame_size - len(buf))
            except OSError:
                b = b""
            if not b:
                eof = True
                break
            buf += b
        if eof:
            break
        luma = buf  # the Y plane lies at the start of the frame
        if wm_filter_apply(F, luma, W, H, W, cfg["seed"]) != 0:
            IO.e(b"Error applying watermark\n")
            return 1
        if outfd is None:
            IO.o(bytes(buf))
        else:
            _write_all(outfd, bytes(buf))
    if cfg["input_file"]:
        os.close(infd)
    if outfd is not None:
        os.close(outfd)
    return 0


def main():
    # a closed pipe on standard output ends the process as it would the tool
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    prog_env = os.environ.get("LUMAMARK_ARGV0")
    prog = os.fsencode(prog_env if prog_env is not None else sys.argv[0])
    words = [os.fsencode(a) for a in sys.argv[1:]]
    try:
        status = run(prog, words)
    except StoiAbort as e:
        IO.e(b"terminate called after throwing an instance of '"
             + e.kind.encode() + b"'\n  what():  stoi\n")
        os.abort()
    IO.flush()
    os._exit(status)


if __name__ == "__main__":
    main()
