#!/usr/bin/env python3
"""Differential test: the lumamark binary against the Python reference model.

Usage:
    python3 scripts/difftest.py --bin build/lumamark --cases N --seed S [--quick]
                                [--model tests/reference/ref_model.py]
                                [--only I] [--keep DIR] [--verbose]

Generates N random cases (deterministic from S): settings, command lines and
raw YUV input, sometimes broken on purpose (bad options, bad integers, missing
files, bad payload files).  Every case runs the binary and the model with the
same arguments and the same input, each in its own temporary directory, and
compares exit status, standard output, standard error and every file left in
the directory (video output, payload file, embedding log).  A case may have
two steps (save a payload file, then embed it).  On a mismatch the command
line and the first difference are printed (stream or file, byte offset and,
where it applies, frame, plane, pixel and superpixel; payload header field or
map cell; log line).  The last line is "N passed, M failed"; the exit status
is 1 when anything failed.

--quick keeps frames and bit counts small so that a CI run stays well under a
minute.  --only I runs case I alone (the case numbers are printed on
failure); --keep DIR keeps the two working directories of every case there.
"""

import argparse
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_MODEL = os.path.join(ROOT, "tests", "reference", "ref_model.py")
PROG = "lumamark"
M32 = 0xFFFFFFFF


def s32(x):
    x &= M32
    return x - (1 << 32) if x & 0x80000000 else x


def cdiv(a, b):
    q = abs(a) // abs(b)
    return q if (a >= 0) == (b >= 0) else -q


def frame_size(w, h, fmt):
    if fmt == "yuv420p":
        return cdiv(s32(w * h * 3), 2)
    if fmt == "yuv444p":
        return s32(w * h * 3)
    if fmt == "yuv422p":
        return s32(w * h * 2)
    return 0


# ---------------------------------------------------------------- content

def make_luma(rng, w, h):
    img = bytearray(w * h)
    kind = rng.choice(["flat", "noise", "hgrad", "vgrad", "dgrad"])
    v0 = rng.randrange(256)
    amp = rng.choice([1, 2, 4, 8, 16, 32, 64, 128])
    for y in range(h):
        for x in range(w):
            if kind == "flat":
                v = v0
            elif kind == "noise":
                v = v0 + rng.randint(-amp, amp)
            elif kind == "hgrad":
                v = v0 + (x * amp) // 8
            elif kind == "vgrad":
                v = v0 - (y * amp) // 8
            else:
                v = v0 + ((x + y) * amp) // 16
            img[y * w + x] = min(max(v, 0), 255)
    for _ in range(rng.randrange(0, 7)):
        rw = rng.randint(1, max(1, w))
        rh = rng.randint(1, max(1, h))
        x0 = rng.randrange(max(1, w - rw + 1))
        y0 = rng.randrange(max(1, h - rh + 1))
        k = rng.choice(["flat", "noise", "checker", "edge", "sat", "grad"])
        base = rng.randrange(256)
        a = rng.choice([1, 2, 3, 5, 8, 12, 20, 40, 90])
        period = rng.randint(1, 4)
        for y in range(y0, min(h, y0 + rh)):
            for x in range(x0, min(w, x0 + rw)):
                if k == "flat":
                    v = base
                elif k == "noise":
                    v = base + rng.randint(-a, a)
                elif k == "checker":
                    v = base + (a if ((x // period) + (y // period)) & 1
                                else -a)
                elif k == "edge":
                    v = base if x - x0 < rw // 2 else base + 4 * a
                elif k == "sat":
                    v = 255 if base & 1 else 0
                else:
                    v = base + (x - x0) * a // 4 - (y - y0)
                img[y * w + x] = min(max(v, 0), 255)
    return img


def make_video(rng, w, h, fmt, nframes, partial):
    fs = frame_size(w, h, fmt)
    data = bytearray()
    for _ in range(nframes):
        luma = make_luma(rng, w, h)
        rest = fs - w * h
        if rng.random() < 0.5:
            chroma = bytes(rng.randrange(256) for _ in range(rest))
        else:
            chroma = bytes([rng.randrange(256)]) * rest
        data += luma + chroma
    if partial and fs > 1:
        data += bytes(rng.randrange(256) for _ in range(rng.randrange(1, fs)))
    return bytes(data)


# ---------------------------------------------------------------- cases

class Step:
    def __init__(self, args, stdin=b"", files=None, video=None):
        self.args = args          # list of str
        self.stdin = stdin        # bytes fed on standard input
        self.files = files or {}  # name -> bytes, created before the step
        self.video = video        # dict(w, h, s, fmt, out) or None


def hexid(rng, bits):
    if bits <= 0:
        return "0" * rng.randint(1, 3)
    v = rng.getrandbits(bits)
    if rng.random() < 0.3:
        v |= 1 << (bits - 1)
    s = format(v, "x")
    if rng.random() < 0.3:
        s = s.upper()
    if rng.random() < 0.2:
        s = "0" * rng.randint(1, 4) + s
    return s


def make_urn(rng, odd):
    r = rng.random()
    if r < 0.3:
        return None
    if not odd:
        s = "".join(rng.choice("0123456789abcdef") for _ in range(32))
        return s.upper() if rng.random() < 0.3 else s
    if r < 0.5:
        return "".join(rng.choice("0123456789ABCDEF")
                       for _ in range(rng.randint(0, 31)))
    return rng.choice([
        "0" * 31 + "A", "A" + "0" * 31, "0x123456 -1234567" + "f" * 15,
        " 1234567+89abcdeg" + "0" * 15, "urn:org:example:12345678",
        "-" * 8 + "0x" * 4 + "1" * 16, "00000000" * 5, "zz", "",
        "\t0ff" + "1" * 29, "1234567"])


PERTURB = ["sp_small", "spb_neg", "strength", "bits", "wm_id", "spd", "pd",
           "pm", "seed", "threads", "urn", "tiny"]


def settings(rng, quick):
    """Random settings for a video or payload run: valid in most cases, with
    one or two odd or invalid values in the others."""
    odd = set()
    if rng.random() < 0.35:
        odd = set(rng.sample(PERTURB, rng.randint(1, 2)))
    c = {}
    sp = rng.choice([5, 5, 6, 7, 7, 8, 9, 10, 12, 16] if quick else
                    [5, 5, 6, 7, 7, 8, 9, 10, 11, 12, 16, 20, 24, 32, 64])
    if not quick and rng.random() < 0.1:
        sp = rng.randint(5, 64)
    c["sp"] = sp
    r = rng.random()
    if "spb_neg" in odd:
        spb = rng.randint(-3, -1)
    elif r < 0.6:
        spb = None
    else:
        spb = rng.randint(0, (sp - 1) // 2)
    c["spb"] = spb
    maxdim = 64 if quick else 160
    if "tiny" in odd:
        w = rng.randint(1, sp + 2)
        h = rng.randint(1, sp + 2)
    else:
        w = rng.randint(5, maxdim)
        h = rng.randint(5, maxdim)
        if rng.random() < 0.5:
            w = max(w, sp * rng.randint(1, 5))
            h = max(h, sp * rng.randint(1, 5))
    c["w"], c["h"] = w, h
    c["fmt"] = rng.choice(["yuv420p", "yuv420p", "yuv422p", "yuv444p"])
    r = rng.random()
    if "strength" in odd:
        c["strength"] = rng.choice([0, -1, -5])
    else:
        c["strength"] = (rng.randint(1, 6) if r < 0.85 else
                         rng.randint(7, 60) if r < 0.95 else None)
    c["fec"] = rng.choice([0, 2, 2])
    r = rng.random()
    if "bits" in odd:
        bits = rng.choice([0, 2048, 2049, 24, 229, 240, 300, 500] if not
                          quick else [0, 2049])
    elif r < 0.85:
        bits = rng.randint(1, 14 if quick else 16)
    else:
        bits = rng.randint(1, 16) if quick else rng.randint(17, 20)
    c["bits"] = bits
    if 200 < bits < 1000 and rng.random() < 0.7:
        # a grid that holds whole repetitions of a code longer than 256
        c["sp"] = sp = 5
        c["spb"] = rng.choice([None, 1, 2])
        c["w"] = rng.randint(120, 160)
        c["h"] = rng.randint(120, 160)
    if "wm_id" in odd:
        if rng.random() < 0.5:
            wid = hexid(rng, max(bits, 0) + rng.randint(1, 6))  # too long
        else:
            wid = rng.choice(["", "0x12", "12 ", "g", "-1", "\u00e9",
                              "1F_F"])
    else:
        wid = hexid(rng, bits)
    c["wm_id"] = wid if rng.random() < 0.9 else None
    c["urn"] = make_urn(rng, "urn" in odd)
    r = rng.random()
    if "spd" in odd:
        c["spd"] = rng.choice([-1, 101, 150])
    else:
        c["spd"] = rng.randint(0, 100) if r < 0.8 else rng.choice([0, 100])
    if "pd" in odd:
        c["pd"] = rng.choice([-200, -50, -6, 130, 250, 1000, 2147483647,
                              -2147483648, 1000000000, -1000000000])
    else:
        c["pd"] = rng.randint(0, 100)
    c["pm"] = rng.choice([4, -1, 7]) if "pm" in odd else rng.randint(0, 3)
    if "seed" in odd:
        c["seed"] = rng.choice([-7, 63, 100, 2147483647, -2147483648])
    else:
        c["seed"] = -1 if rng.random() < 0.3 else rng.randint(-1, 40)
    c["deep"] = rng.random() < 0.3
    c["log"] = rng.random() < 0.5
    c["threads"] = (rng.choice([0, 5, 64, 200]) if "threads" in odd
                    else rng.choice([1, 1, 2, None]))
    return c


def option_pairs(c, rng):
    p = []

    def add(opt, val, default=None):
        if val is None:
            return
        if default is not None and val == default and rng.random() < 0.5:
            return
        p.append([opt, str(val)])

    add("--width", c["w"])
    add("--height", c["h"])
    add("--sp-width", c["sp"], 7)
    add("--spb-width", c["spb"], 0)
    add("--pix-fmt", c["fmt"], "yuv420p")
    add("--strength", c["strength"], 3)
    add("--fec", c["fec"], 2)
    add("--bit-profile", c["bits"], 13)
    add("--wm-id", c.get("wm_id"))
    add("--user-urn", c["urn"])
    add("--sp-density", c["spd"], 100)
    add("--p-density", c["pd"], 100)
    add("--pm-mode", c["pm"], 3)
    add("--seed", c["seed"], -1)
    add("--threads", c["threads"], 1)
    if c["log"]:
        p.append(["--embed-log", "log.json"])
    if c["deep"]:
        p.append(["--deep-fake"])
    if rng.random() < 0.1:
        p.append(["--sp-height", rng.choice(["9", "abc", "-4", ""])])
    if rng.random() < 0.05:
        p.append(["--spb-height", "zz"])
    if rng.random() < 0.1 and p:
        # an option given twice: the later one wins
        q = list(rng.choice(p))
        if len(q) == 2 and q[0] in ("--seed", "--sp-density", "--pm-mode"):
            p.insert(0, [q[0], str(rng.randint(0, 9))])
    return p


def flatten(pairs, rng, shuffle=True):
    pairs = list(pairs)
    if shuffle:
        rng.shuffle(pairs)
    out = []
    for q in pairs:
        out.extend(q)
    return out


def header(w, h, s, count, s2=None):
    vals = (w, h, s, s if s2 is None else s2, count)
    return b"".join((v & M32).to_bytes(4, "little") for v in vals)


def case_video(rng, quick, c=None):
    c = c or settings(rng, quick)
    c["wm_id"] = c.get("wm_id") if rng.random() < 0.85 else None
    pairs = option_pairs(c, rng)
    nframes = rng.choice([1, 1, 2, 3, 4, 0]) if not quick else \
        rng.choice([1, 1, 2])
    fs = frame_size(c["w"], c["h"], c["fmt"])
    data = b""
    if fs > 0 and c["w"] * c["h"] <= 160 * 160:
        data = make_video(rng, c["w"], c["h"], c["fmt"], nframes,
                          rng.random() < 0.15)
    files = {}
    stdin = b""
    if rng.random() < 0.7:
        pairs.append(["--input-file", "in.yuv"])
        files["in.yuv"] = data
    else:
        stdin = data
    out = None
    if rng.random() < 0.7:
        pairs.append(["--output-file", "out.yuv"])
        out = "out.yuv"
    args = flatten(pairs, rng)
    video = dict(w=c["w"], h=c["h"], s=c["sp"], fmt=c["fmt"], out=out)
    return [Step(args, stdin, files, video)]


def case_save_then_embed(rng, quick):
    c = settings(rng, quick)
    if c.get("wm_id") is None:
        c["wm_id"] = hexid(rng, max(c["bits"], 0))
    pairs = option_pairs(c, rng)
    pairs.append(["--payload-file", "pay.bin"])
    odd_strength = False
    if rng.random() < 0.3 and c["strength"] is not None:
        # the save mode does not check the strength
        for q in pairs:
            if q[0] == "--strength":
                q[1] = str(rng.choice([0, -2, 80, 200, 300]))
                odd_strength = True
    steps = [Step(flatten(pairs, rng))]
    # embed the saved payload: header replaces geometry and bit count
    c2 = settings(rng, quick)
    if odd_strength:
        # keep embedded magnitudes below 128 (signed pattern bytes)
        c2["deep"] = False
    c2["fec"] = c["fec"] if rng.random() < 0.9 else 2
    c2["spb"] = c["spb"]
    c2["wm_id"] = None
    if rng.random() < 0.5:
        c2["strength"] = c["strength"]
    pairs2 = [q for q in option_pairs(c2, rng)
              if q[0] not in ("--width", "--height")]
    pairs2.append(["--payload-file", "pay.bin"])
    w, h = c["w"], c["h"]
    fs = frame_size(w, h, c2["fmt"])
    nframes = rng.choice([1, 2]) if quick else rng.choice([1, 2, 3])
    data = b""
    if 0 < fs and w * h <= 160 * 160:
        data = make_video(rng, w, h, c2["fmt"], nframes, rng.random() < 0.1)
    pairs2.append(["--input-file", "in.yuv"])
    out = None
    if rng.random() < 0.8:
        pairs2.append(["--output-file", "out.yuv"])
        out = "out.yuv"
    steps.append(Step(flatten(pairs2, rng), b"", {"in.yuv": data},
                      dict(w=w, h=h, s=c["sp"], fmt=c2["fmt"], out=out,
                           from_payload="pay.bin")))
    return steps


def case_synthetic_payload(rng, quick):
    c = settings(rng, quick)
    c["wm_id"] = None
    fec = c["fec"]
    sp = rng.choice([5, 6, 7, 8, 12])
    w = rng.randint(5, 64)
    h = rng.randint(5, 64)
    strength = c["strength"] or 3
    kind = "valid" if rng.random() < 0.5 else rng.choice([
                       "valid", "short", "zero_sp",
                       "neg", "narrow", "nomap", "noidx", "bigcount",
                       "negcount", "overflow", "border", "badbits"])
    n_sp = (w // sp) * (h // sp)
    count = rng.randint(1, 20)
    if fec == 0:
        count = rng.randint(2, 24)
    if kind == "valid" and rng.random() < 0.25:
        # every magnitude 0..20 present: long log statistics line
        strength = rng.randint(20, 40)
        c["strength"] = strength
        c["log"] = True
        c["spd"] = 100
        c["fec"] = fec = 2
        sp = rng.choice([5, 6])
        w = rng.randint(40, 100)
        h = rng.randint(40, 100)
        n_sp = (w // sp) * (h // sp)
    mp = bytes(rng.randint(0, min(255, strength + 100)) for _ in range(n_sp))
    if c["strength"] is not None and c["strength"] >= 20:
        mp = bytes(strength + rng.randint(-20, 20) for _ in range(n_sp))
    L = count if fec == 0 else n_sp
    idx = bytes(rng.randrange(min(L, 256)) for _ in range(16 * count)) \
        if fec == 0 else b""
    body = header(w, h, sp, count, rng.choice([None, 0, 99])) + mp + idx
    if rng.random() < 0.2:
        body += b"trailing bytes"
    if kind == "short":
        body = body[:rng.randint(0, 19)]
    elif kind == "zero_sp":
        body = header(w, h, rng.choice([0, -7]), count) + mp + idx
    elif kind == "neg":
        body = header(rng.choice([-w, w]), -h, sp, count) + mp + idx
    elif kind == "narrow":
        body = header(sp - 1, h, sp, count) + mp + idx
    elif kind == "nomap":
        body = body[:20 + rng.randrange(max(n_sp, 1))]
    elif kind == "noidx":
        body = header(w, h, sp, count) + mp + idx[:rng.randrange(
            max(len(idx), 1))]
    elif kind == "bigcount":
        body = header(w, h, sp, rng.choice([0x7FFFFFFF, 200000000]) if fec
                      == 0 else rng.choice([3000, 2049])) + mp + idx
    elif kind == "negcount":
        body = header(w, h, sp, -rng.randint(1, 5)) + mp + idx
    elif kind == "overflow":
        body = header(1 << 30, 1 << 30, 5, count) + mp
    elif kind == "border":
        body = header(w, h, rng.choice([1, 2, 3, 4]), count) + mp + idx
    elif kind == "badbits" and fec == 2:
        body = header(w, h, sp, rng.choice([0, -3, 2049])) + mp
    c["spb"] = rng.choice([None, None, 0, 1, 2])
    pairs = [q for q in option_pairs(c, rng)
             if q[0] not in ("--width", "--height")]
    pairs.append(["--payload-file", "pay.bin"])
    fs = frame_size(w, h, c["fmt"])
    data = make_video(rng, w, h, c["fmt"], rng.choice([1, 2]), False) \
        if fs > 0 else b""
    pairs.append(["--input-file", "in.yuv"])
    pairs.append(["--output-file", "out.yuv"])
    return [Step(flatten(pairs, rng), b"", {"pay.bin": body, "in.yuv": data},
                 dict(w=w, h=h, s=sp, fmt=c["fmt"], out="out.yuv",
                      from_payload="pay.bin"))]


BAD_INTS = ["abc", "", " ", "-", "+", "99999999999", "-2147483649",
            "2147483648", "x12", "--5", "\u0661"]
ODD_INTS = [" 12", "\t7", "+5", "7xyz", "2x", "0x10", "-0", "\n\v\f\r 3"]
INT_OPTS = ["--strength", "--fec", "--bit-profile", "--sp-density",
            "--p-density", "--width", "--height", "--sp-width",
            "--spb-width", "--pm-mode", "--seed", "--threads"]
ARG_OPTS = INT_OPTS + ["--input-file", "--output-file", "--payload-file",
                       "--sp-height", "--spb-height", "--user-urn", "--wm-id",
                       "--pix-fmt", "--embed-log"]


def case_cli(rng, quick):
    """Command lines that end before or right after parsing."""
    c = settings(rng, quick)
    c["w"] = rng.randint(5, 40)
    c["h"] = rng.randint(5, 40)
    pairs = option_pairs(c, rng)
    rng.shuffle(pairs)
    kind = rng.choice(["noargs", "help", "version", "unknown", "missing",
                       "badint", "oddint", "fec", "threads", "spwidth",
                       "border", "pixfmt", "strength", "spdensity",
                       "nofile", "noout", "nopayload", "savefail",
                       "logdir", "bitprofile", "pmmode"] +
                      ([] if quick else ["fullout", "fullpayload"]))
    args = flatten(pairs, rng, shuffle=False)
    files = {}
    stdin = b""
    video = None
    if kind == "noargs":
        args = []
    elif kind == "help":
        pos = rng.randint(0, len(pairs))
        args = flatten(pairs[:pos], rng, False) + [rng.choice(
            ["--help", "-h"])] + rng.choice([[], ["--fec", "1"], ["bogus"],
                                             ["--width", "abc"]])
    elif kind == "version":
        pos = rng.randint(0, len(pairs))
        args = flatten(pairs[:pos], rng, False) + ["--version", "--nope"]
    elif kind == "unknown":
        pos = rng.randint(0, len(pairs))
        bad = rng.choice(["foo", "--width=64", "-w", "--Width", "-", "--",
                          "--help=1", "in.yuv", "--deepfake", "-hh"])
        args = flatten(pairs[:pos], rng, False) + [bad] + \
            flatten(pairs[pos:], rng, False)
    elif kind == "missing":
        args = args + [rng.choice(ARG_OPTS)]
    elif kind == "badint":
        pos = rng.randint(0, len(pairs))
        args = flatten(pairs[:pos], rng, False) + [
            rng.choice(INT_OPTS), rng.choice(BAD_INTS)] + \
            flatten(pairs[pos:], rng, False)
    elif kind == "oddint":
        opt = rng.choice(["--seed", "--threads", "--sp-density", "--pm-mode",
                          "--p-density"])
        args = args + [opt, rng.choice(ODD_INTS)]
    elif kind == "fec":
        args = args + ["--fec", rng.choice(["1", "3", "-1", "4", "2x", "0 "])]
    elif kind == "threads":
        args = args + ["--threads", rng.choice(["-1", "-100", "0", "200"])]
    elif kind == "spwidth":
        args = args + ["--sp-width", str(rng.choice([4, 65, 0, -5, 5, 64]))]
    elif kind == "border":
        s = rng.randint(5, 20)
        args = args + ["--sp-width", str(s), "--spb-width",
                       str(rng.choice([s // 2, (s + 1) // 2, s, -s, 1]))]
    elif kind == "pixfmt":
        args = args + ["--pix-fmt", rng.choice(["nv12", "", "YUV420P",
                                                "yuv420", "yuv444p "])]
    elif kind == "strength":
        args = args + ["--strength", rng.choice(["0", "-1", "-100"])]
    elif kind == "spdensity":
        args = args + ["--sp-density", rng.choice(["-1", "101", "1000"])]
    elif kind == "nofile":
        args = args + ["--input-file", rng.choice(["missing.yuv",
                                                   "nodir/x.yuv"])]
    elif kind == "noout":
        args = args + ["--output-file", "nodir/out.yuv"]
        files["in.yuv"] = b""
        args += ["--input-file", "in.yuv"]
    elif kind == "nopayload":
        args = strip_opt(args, "--wm-id") + ["--payload-file", "nope.bin"]
    elif kind == "savefail":
        args = strip_opt(args, "--wm-id") + [
            "--wm-id", "1", "--payload-file",
            rng.choice(["nodir/p.bin", "."]), "--input-file", "missing.yuv"]
    elif kind == "fullout":
        # write errors on the video, log and payload files are not examined
        args = strip_opt(args, "--wm-id") + ["--output-file", "/dev/full"]
        if rng.random() < 0.5:
            args += ["--embed-log", "/dev/full"]
    elif kind == "fullpayload":
        args = strip_opt(args, "--wm-id") + ["--wm-id", "1", "--payload-file",
                                             "/dev/full"]
    elif kind == "logdir":
        args = args + ["--embed-log", "nodir/log.json"]
    elif kind == "bitprofile":
        args = strip_opt(args, "--bit-profile") + [
            "--bit-profile", rng.choice(["0", "2048", "2049", "-1", "-5"])]
        # negative bit counts only with FEC 2 (FEC 0 would size the index
        # table negatively before the ID is validated)
        args = strip_opt(args, "--fec") + ["--fec", "2"]
    elif kind == "pmmode":
        args = args + ["--pm-mode", rng.choice(["4", "-1", "7", "3"])]
    if kind not in ("noargs", "help", "version", "unknown", "missing",
                    "badint", "nofile", "noout", "savefail"):
        w, h, fmt = c["w"], c["h"], c["fmt"]
        fs = frame_size(w, h, fmt)
        if fs > 0 and "--input-file" not in args:
            stdin = make_video(rng, w, h, fmt, 1, False)
        video = dict(w=w, h=h, s=c["sp"], fmt=fmt, out=None)
    return [Step(args, stdin, files, video)]


def strip_opt(args, opt):
    out = []
    i = 0
    while i < len(args):
        if args[i] == opt and i + 1 < len(args):
            i += 2
            continue
        out.append(args[i])
        i += 1
    return out


def case_huge(rng, quick):
    """A frame size that is negative, or positive but smaller than the luma
    plane, after the 32-bit wrap (W x H itself fits in 32 bits)."""
    small = rng.random() < 0.3
    while True:
        w = rng.randint(20000, 46000)
        h = rng.randint(20000, 46000)
        fmt = rng.choice(["yuv420p", "yuv444p", "yuv422p"])
        fs = frame_size(w, h, fmt)
        if w * h < 2 ** 31 and (0 < fs < w * h if small else fs < 0):
            break
    args = ["--width", str(w), "--height", str(h), "--sp-width", "64",
            "--fec", "0", "--bit-profile", "8", "--wm-id", "a5",
            "--pix-fmt", fmt,
            "--input-file", "missing.yuv", "--payload-file", ""]
    return [Step(args)]


def make_case(rng, quick):
    r = rng.random()
    if r < 0.50:
        return "video", case_video(rng, quick)
    if r < 0.65:
        return "save+embed", case_save_then_embed(rng, quick)
    if r < 0.75:
        return "payload-file", case_synthetic_payload(rng, quick)
    if r < 0.995 or quick:
        return "cli", case_cli(rng, quick)
    return "huge", case_huge(rng, quick)


# ---------------------------------------------------------------- running

def run_side(cmd, argv0_env, step, cwd, timeout):
    for name, data in step.files.items():
        with open(os.path.join(cwd, name), "wb") as f:
            f.write(data)
    env = dict(os.environ)
    if argv0_env:
        # the model takes its program name from the environment
        env["LUMAMARK_ARGV0"] = PROG
        argv, exe = cmd + step.args, None
    else:
        # run the binary with the same argv[0] the model prints
        argv, exe = [PROG] + step.args, cmd[0]
    t0 = time.time()
    try:
        p = subprocess.run(argv, cwd=cwd, input=step.stdin,
                           capture_output=True, timeout=timeout, env=env,
                           executable=exe)
        res = (p.returncode, p.stdout, p.stderr)
    except subprocess.TimeoutExpired:
        res = ("timeout", b"", b"")
    return res, time.time() - t0


def dir_files(d):
    out = {}
    for root, _dirs, names in os.walk(d):
        for n in names:
            path = os.path.join(root, n)
            rel = os.path.relpath(path, d)
            if rel.startswith("core"):
                continue
            with open(path, "rb") as f:
                out[rel] = f.read()
    return out


# ---------------------------------------------------------------- diffs

def first_diff(a, b):
    n = min(len(a), len(b))
    for i in range(n):
        if a[i] != b[i]:
            return i
    return n if len(a) != len(b) else -1


def snippet(data, off, width=40):
    lo = max(0, off - width // 2)
    return repr(data[lo:lo + width])


def describe_video(off, video, wsz, hsz, s):
    fs = frame_size(wsz, hsz, video["fmt"])
    if fs <= 0:
        return "byte %d" % off
    frame = off // fs
    r = off % fs
    if r < wsz * hsz:
        x = r % wsz
        y = r // wsz
        cols = wsz // s
        rows = hsz // s
        sx, sy = x // s, y // s
        if sx < cols and sy < rows:
            sp = "superpixel (%d, %d) index %d, pixel (%d, %d) inside it" % (
                sx, sy, sy * cols + sx, x - sx * s, y - sy * s)
        else:
            sp = "outside the superpixel grid"
        return "frame %d, plane Y, pixel (x=%d, y=%d), %s" % (frame, x, y, sp)
    c = r - wsz * hsz
    half = (fs - wsz * hsz) // 2
    plane = "U" if c < half else "V"
    return "frame %d, plane %s, byte %d of the plane" % (
        frame, plane, c if c < half else c - half)


def describe_payload(off, data):
    names = ["width", "height", "SP width", "SP height", "count"]
    if off < 20:
        return "header field %s (offset %d)" % (names[off // 4], off)
    if len(data) < 20:
        return "offset %d" % off
    w = int.from_bytes(data[0:4], "little", signed=True)
    h = int.from_bytes(data[4:8], "little", signed=True)
    s = int.from_bytes(data[8:12], "little", signed=True)
    count = int.from_bytes(data[16:20], "little", signed=True)
    if s <= 0:
        return "offset %d" % off
    cols = max(w // s, 0)
    n = cols * max(h // s, 0)
    if off < 20 + n:
        i = off - 20
        return "map cell %d (superpixel (%d, %d))" % (i, i % cols, i // cols)
    i = off - 20 - n
    if count > 0:
        return "index table row %d, position %d" % (i // count, i % count)
    return "offset %d past the map" % off


def describe_text(off, data):
    line = data.count(b"\n", 0, off) + 1
    col = off - (data.rfind(b"\n", 0, off) + 1)
    return "line %d, column %d" % (line, col)


def video_geometry(step, dir_bin):
    v = step.video
    w, h, s = v["w"], v["h"], v["s"]
    pf = v.get("from_payload")
    if pf:
        path = os.path.join(dir_bin, pf)
        try:
            with open(path, "rb") as f:
                hd = f.read(12)
            if len(hd) == 12:
                w = int.from_bytes(hd[0:4], "little", signed=True)
                h = int.from_bytes(hd[4:8], "little", signed=True)
                s = int.from_bytes(hd[8:12], "little", signed=True)
        except OSError:
            pass
    return w, h, max(s, 1)


def compare(step, rb, rm, fb, fm, dir_bin):
    """Returns a list of difference descriptions (first difference each)."""
    diffs = []
    if rb[0] != rm[0]:
        diffs.append("exit status: binary %s, model %s" % (rb[0], rm[0]))
    for name, a, b in (("stderr", rb[2], rm[2]), ("stdout", rb[1], rm[1])):
        off = first_diff(a, b)
        if off < 0:
            continue
        where = describe_text(off, a if off < len(a) else b)
        if (name == "stdout" and step.video and step.video["out"] is None
                and rb[0] == 0):
            w, h, s = video_geometry(step, dir_bin)
            where = describe_video(off, step.video, w, h, s)
        diffs.append("%s differs at byte %d (%s); lengths %d vs %d;\n"
                     "      binary: %s\n      model:  %s" % (
                         name, off, where, len(a), len(b), snippet(a, off),
                         snippet(b, off)))
    for name in sorted(set(fb) | set(fm)):
        if name not in fb or name not in fm:
            diffs.append("file %s exists only on the %s side" % (
                name, "binary" if name in fb else "model"))
            continue
        a, b = fb[name], fm[name]
        off = first_diff(a, b)
        if off < 0:
            continue
        if step.video and name == step.video.get("out"):
            w, h, s = video_geometry(step, dir_bin)
            where = describe_video(off, step.video, w, h, s)
            detail = "binary %s, model %s" % (
                a[off] if off < len(a) else "EOF",
                b[off] if off < len(b) else "EOF")
        elif name.endswith(".bin"):
            where = describe_payload(off, a)
            detail = "binary %s, model %s" % (
                a[off] if off < len(a) else "EOF",
                b[off] if off < len(b) else "EOF")
        else:
            where = describe_text(off, a if off < len(a) else b)
            la = a[a.rfind(b"\n", 0, off) + 1:a.find(b"\n", off)][:300]
            lb = b[b.rfind(b"\n", 0, off) + 1:b.find(b"\n", off)][:300]
            detail = "\n      binary: %r\n      model:  %r" % (la, lb)
        diffs.append("file %s differs at byte %d (%s); lengths %d vs %d; %s"
                     % (name, off, where, len(a), len(b), detail))
    return diffs


def shell_quote(args):
    out = []
    for a in args:
        if a and all(ch.isalnum() or ch in "-_./=:+," for ch in a):
            out.append(a)
        else:
            out.append("'" + a.replace("'", "'\\''") + "'")
    return " ".join(out)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--bin", required=True)
    ap.add_argument("--cases", type=int, default=100)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--quick", action="store_true")
    ap.add_argument("--model", default=DEFAULT_MODEL)
    ap.add_argument("--only", type=int, default=None)
    ap.add_argument("--keep", default=None)
    ap.add_argument("--verbose", action="store_true")
    opts = ap.parse_args()

    binary = os.path.abspath(opts.bin)
    if not os.access(binary, os.X_OK):
        print("binary not found: %s" % binary)
        return 2
    bin_cmd = [binary]
    model_cmd = [sys.executable, os.path.abspath(opts.model)]
    n = opts.cases
    passed = failed = 0
    t_start = time.time()
    for i in range(n):
        rng = random.Random("%d/%d/%d" % (opts.seed, i, int(opts.quick)))
        kind, steps = make_case(rng, opts.quick)
        if opts.only is not None and i != opts.only:
            continue
        base = tempfile.mkdtemp(prefix="difftest-")
        dir_bin = os.path.join(base, "bin")
        dir_model = os.path.join(base, "model")
        os.mkdir(dir_bin)
        os.mkdir(dir_model)
        problems = []
        for k, step in enumerate(steps):
            rb, tb = run_side(bin_cmd, False, step,
                              dir_bin, 120)
            rm, tm = run_side(model_cmd, True, step, dir_model, 900)
            diffs = compare(step, rb, rm, dir_files(dir_bin),
                            dir_files(dir_model), dir_bin)
            if opts.verbose:
                print("case %d step %d (%s): %.2fs / %.2fs status %s" % (
                    i, k, kind, tb, tm, rb[0]))
            if diffs:
                problems.append((k, step, diffs))
                break
        if problems:
            failed += 1
            for k, step, diffs in problems:
                print("FAIL case %d (%s), step %d of %d:" % (
                    i, kind, k + 1, len(steps)))
                for j, st in enumerate(steps[:k + 1]):
                    print("  $ %s %s%s" % (PROG, shell_quote(st.args),
                                           "  < stdin (%d bytes)" % len(
                                               st.stdin) if st.stdin else ""))
                for d in diffs:
                    print("  - " + d)
            sys.stdout.flush()
        else:
            passed += 1
        if opts.keep:
            dest = os.path.join(opts.keep, "case%d" % i)
            shutil.rmtree(dest, ignore_errors=True)
            shutil.copytree(base, dest)
        shutil.rmtree(base, ignore_errors=True)
    if opts.verbose:
        print("elapsed %.1fs" % (time.time() - t_start))
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
