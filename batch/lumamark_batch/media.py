"""ffmpeg/ffprobe plumbing and the work one task does on a worker.

Everything a task needs arrives in one plain dict, and every function here
returns plain dicts, so that tasks can be shipped to any Dask worker. A
failure that would recur on any worker (a refused ID, a decoder error, a
wrong frame count) is returned as {"ok": False, "error": ...} rather than
raised, so that Dask does not retry it; anything raised (a worker that
dies, a transient I/O error) is retried by Dask.
"""

import fractions
import glob
import hashlib
import json
import os
import shlex
import subprocess
import tempfile
import uuid

# lumamark reads raw planar frames. Once it reads y4m, set this to True: the
# decoder then sends y4m (frame size, rate and format travel with the
# stream) and the --width/--height/--pix-fmt options are left out.
LUMAMARK_READS_Y4M = False

# Pixel formats lumamark marks; other sources are converted to the one with
# the same chroma layout (8 bits).
SUPPORTED_PIX_FMTS = ("yuv420p", "yuv422p", "yuv444p")

# Muxer flags that keep repeated runs byte-identical (no random UIDs, no
# version strings).
BITEXACT = ["-fflags", "+bitexact"]


def lumamark_pix_fmt(source_pix_fmt):
    """The lumamark pixel format used for a source pixel format."""
    if source_pix_fmt in SUPPORTED_PIX_FMTS:
        return source_pix_fmt
    if source_pix_fmt.startswith(("yuv444", "yuvj444", "gbr", "rgb", "bgr")):
        return "yuv444p"
    if source_pix_fmt.startswith(("yuv422", "yuvj422")):
        return "yuv422p"
    return "yuv420p"


def probe(path, ffprobe="ffprobe"):
    """Frame count, size, pixel format and rate of the title's first video stream."""
    cmd = [ffprobe, "-v", "error", "-select_streams", "v:0", "-count_packets",
           "-show_entries",
           "stream=index,width,height,pix_fmt,r_frame_rate,avg_frame_rate,nb_frames,nb_read_packets",
           "-of", "json", path]
    res = subprocess.run(cmd, capture_output=True, text=True)
    if res.returncode != 0:
        raise RuntimeError(f"ffprobe failed on {path}: {res.stderr.strip()}")
    streams = json.loads(res.stdout).get("streams", [])
    if not streams:
        raise RuntimeError(f"{path} has no video stream")
    s = streams[0]
    # Packets are counted by demuxing only; the container's own count is
    # used when the demuxer finds none.
    frames = int(s.get("nb_read_packets") or s.get("nb_frames") or 0)
    if frames <= 0:
        raise RuntimeError(f"{path}: no video frames found")
    rate = s.get("r_frame_rate", "0/0")
    avg = s.get("avg_frame_rate", rate)
    if rate in ("0/0", "") or fractions.Fraction(rate) <= 0:
        rate = avg
    return {
        "frames": frames,
        "width": int(s["width"]),
        "height": int(s["height"]),
        "source_pix_fmt": s["pix_fmt"],
        "pix_fmt": lumamark_pix_fmt(s["pix_fmt"]),
        "rate": rate,
        # A variable rate makes time-based seeking unsafe; such titles are
        # decoded from the start and cut by frame index instead.
        "constant_rate": fractions.Fraction(rate) == fractions.Fraction(avg or rate),
    }


def decode_cmd(job, start, count):
    """ffmpeg command writing frames start .. start+count-1 of the title as raw video."""
    title = job["title"]
    fmt = "yuv4mpegpipe" if LUMAMARK_READS_Y4M else "rawvideo"
    cmd = [job["ffmpeg"], "-nostdin", "-v", "error"]
    if title["constant_rate"] and start > 0:
        # Accurate input seek to half a frame before the first wanted frame:
        # ffmpeg decodes from the preceding keyframe and drops every frame
        # before that time, so output starts exactly at frame `start`.
        rate = fractions.Fraction(title["rate"])
        t = (fractions.Fraction(start) - fractions.Fraction(1, 2)) / rate
        cmd += ["-ss", f"{float(t):.6f}", "-i", job["input"],
                "-map", "0:v:0", "-frames:v", str(count)]
    else:
        cmd += ["-i", job["input"], "-map", "0:v:0",
                "-vf", f"trim=start_frame={start}:end_frame={start + count},setpts=PTS-STARTPTS"]
    cmd += ["-fps_mode", "passthrough", "-pix_fmt", title["pix_fmt"], "-f", fmt, "-"]
    return cmd


def lumamark_cmd(job, wm_id, video_fd):
    title = job["title"]
    cmd = [job["lumamark"]]
    if not LUMAMARK_READS_Y4M:
        cmd += ["--width", str(title["width"]), "--height", str(title["height"]),
                "--pix-fmt", title["pix_fmt"]]
    # Video goes out on a descriptor of its own, so that lumamark's messages
    # on standard output never mix with the frames.
    cmd += shlex.split(job["lumamark_args"]) + ["--wm-id", wm_id,
                                                "--output-file", f"/dev/fd/{video_fd}"]
    return cmd


def encode_cmd(job, out_path):
    title = job["title"]
    return [job["ffmpeg"], "-nostdin", "-v", "error", "-y",
            "-f", "rawvideo", "-pix_fmt", title["pix_fmt"],
            "-s", f"{title['width']}x{title['height']}", "-framerate", title["rate"],
            "-i", "-", "-c:v", job["video_codec"]] + shlex.split(job["encoder_args"]) + \
        BITEXACT + ["-f", "matroska", out_path]


def count_frames(path, ffprobe):
    res = subprocess.run([ffprobe, "-v", "error", "-select_streams", "v:0", "-count_packets",
                          "-show_entries", "stream=nb_read_packets", "-of", "csv=p=0", path],
                         capture_output=True, text=True)
    try:
        return int(res.stdout.strip().splitlines()[0].rstrip(","))
    except (ValueError, IndexError):
        return -1


def sha256_file(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


def _tail(f, limit=600):
    f.seek(0)
    text = f.read().decode("utf-8", "replace").strip()
    return text[-limit:]


def _temp_name(path):
    d, base = os.path.split(path)
    return os.path.join(d, f".{base}.tmp-{uuid.uuid4().hex[:12]}")


def _remove_stale_temps(path):
    d, base = os.path.split(path)
    for stale in glob.glob(os.path.join(glob.escape(d), f".{glob.escape(base)}.tmp-*")):
        try:
            os.unlink(stale)
        except OSError:
            pass


def mark_segment(job, copy, wm_id, start, count, out_path):
    """Decode one frame range, mark it with one copy's ID, encode it as a segment.

    The segment is written under a temporary name and renamed into place
    once complete and checked, so that out_path only ever holds a whole
    segment."""
    where = f"copy {copy!r}, frames {start}-{start + count - 1}"
    os.makedirs(os.path.dirname(out_path), exist_ok=True)
    # A worker that died on this segment may have left a partial file.
    _remove_stale_temps(out_path)
    tmp = _temp_name(out_path)
    read_fd, write_fd = os.pipe()
    errs = [tempfile.TemporaryFile() for _ in range(3)]
    procs = []
    try:
        dec = subprocess.Popen(decode_cmd(job, start, count), stdout=subprocess.PIPE,
                               stderr=errs[0], stdin=subprocess.DEVNULL)
        procs.append(dec)
        mark = subprocess.Popen(lumamark_cmd(job, wm_id, write_fd), stdin=dec.stdout,
                                stdout=errs[1], stderr=subprocess.STDOUT, pass_fds=(write_fd,))
        procs.append(mark)
        dec.stdout.close()
        os.close(write_fd)
        write_fd = -1
        enc = subprocess.Popen(encode_cmd(job, tmp), stdin=read_fd, stdout=subprocess.DEVNULL,
                               stderr=errs[2])
        procs.append(enc)
        os.close(read_fd)
        read_fd = -1
        rc_mark = mark.wait()
        rc_enc = enc.wait()
        rc_dec = dec.wait()
        if rc_mark != 0:
            return _fail(tmp, f"{where}: lumamark exited with status {rc_mark}: {_tail(errs[1])}")
        if rc_dec != 0:
            return _fail(tmp, f"{where}: decoder failed (status {rc_dec}): {_tail(errs[0])}")
        if rc_enc != 0:
            return _fail(tmp, f"{where}: encoder failed (status {rc_enc}): {_tail(errs[2])}")
        return _finish(job, tmp, out_path, count, f"{where}: the segment")
    finally:
        for fd in (read_fd, write_fd):
            if fd >= 0:
                os.close(fd)
        for p in procs:
            if p.poll() is None:
                p.kill()
                p.wait()
        for f in errs:
            f.close()
        if os.path.exists(tmp):
            os.unlink(tmp)


def _finish(job, tmp, out_path, expected, what):
    """Check a finished file's frame count, then move it to its final name."""
    got = count_frames(tmp, job["ffprobe"])
    if got != expected:
        return _fail(tmp, f"{what} has {got} frames, expected {expected}")
    size = os.path.getsize(tmp)
    digest = sha256_file(tmp)
    os.replace(tmp, out_path)
    return {"ok": True, "size": size, "sha256": digest, "frames": got}


def _fail(tmp, message):
    if os.path.exists(tmp):
        os.unlink(tmp)
    return {"ok": False, "error": message}


def join_segments(job, copy, segments, out_path):
    """Concatenate a copy's segments without re-encoding and mux in the
    title's other streams (audio, subtitles, attachments) untouched."""
    d = os.path.dirname(out_path)
    os.makedirs(d, exist_ok=True)
    _remove_stale_temps(out_path)
    tmp = _temp_name(out_path)
    rate = fractions.Fraction(job["title"]["rate"])
    with tempfile.NamedTemporaryFile("w", suffix=".txt", dir=d, delete=False) as lst:
        lst.write("ffconcat version 1.0\n")
        for seg in segments:
            path = os.path.abspath(seg["path"])
            lst.write("file '" + path.replace("'", "'\\''") + "'\n")
            # The exact length, so that timestamps run on across the joins.
            lst.write(f"duration {float(fractions.Fraction(seg['frames']) / rate):.6f}\n")
    try:
        cmd = [job["ffmpeg"], "-nostdin", "-v", "error", "-y",
               "-f", "concat", "-safe", "0", "-i", lst.name, "-i", job["input"],
               "-map", "0:v:0", "-map", "1", "-map", "-1:V",
               "-map_metadata", "1", "-map_chapters", "1", "-c", "copy"] + BITEXACT + \
            ["-f", job["muxer"], tmp]
        res = subprocess.run(cmd, capture_output=True, text=True)
        if res.returncode != 0:
            return _fail(tmp, f"copy {copy!r}: joining segments failed: {res.stderr.strip()[-600:]}")
        return _finish(job, tmp, out_path, job["title"]["frames"], f"copy {copy!r}: the joined file")
    finally:
        os.unlink(lst.name)
        if os.path.exists(tmp):
            os.unlink(tmp)


# Detector options that must repeat the embedder's settings.
DETECT_OPTIONS = ("--sp-width", "--spb-width", "--fec", "--bit-profile", "--user-urn",
                  "--strength", "--seed", "--sp-density")
# lumamark options that take no argument.
LUMAMARK_FLAGS = ("--deep-fake",)


def detect_args(lumamark_args):
    """The part of the embedder's options that the detector needs too."""
    words = shlex.split(lumamark_args)
    out = []
    i = 0
    while i < len(words):
        w = words[i]
        if w in LUMAMARK_FLAGS:
            i += 1
            continue
        if w in DETECT_OPTIONS and i + 1 < len(words):
            out += [w, words[i + 1]]
        i += 2
    return out


def verify_copy(job, copy, wm_id, path, frames=0):
    """Decode a finished copy and read its mark back with lumamark-detect."""
    title = job["title"]
    dec_cmd = [job["ffmpeg"], "-nostdin", "-v", "error", "-i", path, "-map", "0:v:0"]
    if frames > 0:
        dec_cmd += ["-frames:v", str(frames)]
    dec_cmd += ["-fps_mode", "passthrough", "-pix_fmt", title["pix_fmt"], "-f", "rawvideo", "-"]
    det_cmd = [job["lumamark_detect"], "--width", str(title["width"]),
               "--height", str(title["height"]), "--pix-fmt", title["pix_fmt"],
               "--json", "--wm-id", wm_id] + detect_args(job["lumamark_args"])
    with tempfile.TemporaryFile() as err:
        dec = subprocess.Popen(dec_cmd, stdout=subprocess.PIPE, stderr=err,
                               stdin=subprocess.DEVNULL)
        det = subprocess.run(det_cmd, stdin=dec.stdout, capture_output=True, text=True)
        dec.stdout.close()
        dec.wait()
        # 0 detected, 2 weak, none or ambiguous, 3 detected with another ID:
        # each is a reading of the copy, reported through its verdict and match.
        if det.returncode not in (0, 2, 3):
            return {"ok": False, "error": f"copy {copy!r}: lumamark-detect failed "
                                          f"(status {det.returncode}): {det.stderr.strip()} "
                                          f"{_tail(err)}"}
    try:
        result = json.loads(det.stdout)
    except ValueError:
        return {"ok": False, "error": f"copy {copy!r}: unreadable detector output: {det.stdout!r}"}
    return {"ok": True, "verdict": result.get("verdict"), "wm_id": result.get("wm_id"),
            "z": result.get("z"), "match": result.get("match"), "frames": result.get("frames")}
