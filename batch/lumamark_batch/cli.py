"""lumamark-batch: many marked copies of one title, on a Dask cluster.

The title is cut into frame ranges; one task per (copy, range) decodes the
range, marks it with the copy's ID and encodes it as an independent
segment. When all of a copy's segments are done, one more task joins them
without re-encoding and muxes in the title's other streams.
"""

import argparse
import csv
import logging
import os
import re
import shutil
import shlex
import signal
import subprocess
import sys
import time

from . import media
from .manifest import Manifest, signature

DEFAULT_ENCODER_ARGS = {
    # One encoder thread: the cluster's parallelism comes from running many
    # tasks at once, and x264's output depends on its thread count, so a
    # fixed count keeps a segment's bytes the same on every worker.
    "libx264": "-preset medium -crf 18 -threads 1",
    "libx265": "-preset medium -crf 20 -x265-params pools=1:frame-threads=1",
}
MUXERS = {"mkv": "matroska", "mp4": "mp4", "mov": "mov", "nut": "nut"}
# Options that lumamark-batch sets itself, per task.
RESERVED = ("--wm-id", "--input-file", "--output-file", "--width", "--height", "--pix-fmt",
            "--payload-file", "--embed-log", "--help", "-h", "--version")
NAME_RE = re.compile(r"^[A-Za-z0-9][A-Za-z0-9._-]*$")


class UsageError(Exception):
    pass


def parse_args(argv):
    p = argparse.ArgumentParser(
        prog="lumamark-batch",
        description="Mark one title once per recipient, split into frame ranges over a Dask cluster.")
    p.add_argument("--input", required=True, help="the title: anything ffmpeg reads")
    p.add_argument("--copies", required=True, help="CSV with the header name,wm_id")
    p.add_argument("--output-dir", required=True, help="where DIR/<name>.<ext> and the manifest go")
    p.add_argument("--scheduler", help="address of a running Dask scheduler (tcp://HOST:8786)")
    p.add_argument("--workers", type=int, default=os.cpu_count() or 1,
                   help="local cluster size when no --scheduler is given (default: cores)")
    p.add_argument("--segment-frames", type=int, default=1440, help="frames per task (default 1440)")
    p.add_argument("--video-codec", default="libx264", help="ffmpeg video encoder (default libx264)")
    p.add_argument("--encoder-args", help="ffmpeg encoder options (default per codec)")
    p.add_argument("--lumamark-args", default="", help="extra lumamark options, e.g. \"--strength 4\"")
    p.add_argument("--container", default="mkv", help="output container extension (default mkv)")
    p.add_argument("--verify", action="store_true", help="read each finished copy back with lumamark-detect")
    p.add_argument("--verify-frames", type=int, default=0,
                   help="frames the verification reads (default 0: all)")
    p.add_argument("--keep-segments", action="store_true", help="keep segments after joining a copy")
    p.add_argument("--retries", type=int, default=2, help="Dask retries of a task that raised (default 2)")
    p.add_argument("--lumamark", help="lumamark binary (default $LUMAMARK_BIN, the build tree, PATH)")
    p.add_argument("--lumamark-detect", help="lumamark-detect binary (default $LUMAMARK_DETECT_BIN, ...)")
    p.add_argument("--ffmpeg", default="ffmpeg")
    p.add_argument("--ffprobe", default="ffprobe")
    p.add_argument("--no-progress", action="store_true", help="no progress bar")
    args = p.parse_args(argv)
    if args.segment_frames < 1:
        p.error("--segment-frames must be at least 1")
    if args.workers < 1:
        p.error("--workers must be at least 1")
    if args.encoder_args is None:
        args.encoder_args = DEFAULT_ENCODER_ARGS.get(args.video_codec, "")
    return args


def read_copies(path):
    """Rows of (name, wm_id) from the copies CSV, checked for usable names."""
    with open(path, newline="") as f:
        reader = csv.DictReader(f)
        fields = [x.strip() for x in (reader.fieldnames or [])]
        if fields[:2] != ["name", "wm_id"]:
            raise UsageError(f"{path}: the header must be name,wm_id (found {','.join(fields)})")
        rows = []
        seen = set()
        for line, row in enumerate(reader, start=2):
            row = {k.strip(): (v or "").strip() for k, v in row.items() if k}
            name, wm_id = row.get("name", ""), row.get("wm_id", "")
            if not name and not wm_id:
                continue
            if not NAME_RE.match(name):
                raise UsageError(f"{path}:{line}: name {name!r} is not usable as a file name")
            if name in seen:
                raise UsageError(f"{path}:{line}: name {name!r} appears twice")
            seen.add(name)
            rows.append((name, wm_id))
    if not rows:
        raise UsageError(f"{path}: no copies listed")
    return rows


def find_binary(given, env, name):
    """A binary given on the command line, in the environment, in the build
    tree next to this package, or on PATH; an absolute path either way, since
    the workers run it."""
    here = os.path.dirname(os.path.abspath(__file__))
    candidates = [given, os.environ.get(env),
                  os.path.join(here, "..", "..", "build", name), shutil.which(name)]
    for c in candidates:
        if c and os.path.isfile(c) and os.access(c, os.X_OK):
            return os.path.abspath(c)
    if given:
        raise UsageError(f"{given}: not an executable file")
    raise UsageError(f"cannot find {name}: give --{name} or set {env}")


def check_lumamark_args(text):
    try:
        words = shlex.split(text)
    except ValueError as e:
        raise UsageError(f"--lumamark-args: {e}")
    for w in words:
        if w in RESERVED:
            raise UsageError(f"--lumamark-args: {w} is set by lumamark-batch itself")


class Progress:
    """tqdm when it is installed and the terminal shows it, else silence."""

    def __init__(self, total, initial, enabled):
        self.bar = None
        if enabled:
            try:
                from tqdm import tqdm
                self.bar = tqdm(total=total, initial=initial, unit="task", dynamic_ncols=True,
                                disable=None)
            except ImportError:
                pass

    def update(self, n=1):
        if self.bar:
            self.bar.update(n)

    def write(self, text):
        if self.bar:
            self.bar.write(text, file=sys.stderr)
        else:
            print(text, file=sys.stderr)

    def close(self):
        if self.bar:
            self.bar.close()


def human_size(n):
    for unit in ("B", "kB", "MB", "GB"):
        if n < 1000 or unit == "GB":
            return f"{n:.0f} {unit}" if unit == "B" else f"{n:.1f} {unit}"
        n /= 1000.0
    return str(n)


def summary_table(rows, manifest, verify):
    head = ["copy", "ID", "frames", "size", "status"] + (["verify"] if verify else [])
    table = [head]
    for name, wm_id in rows:
        c = manifest.copies.get(name, {})
        status = c.get("status", "not run")
        line = [name, wm_id, str(c.get("frames", "")),
                human_size(c["size"]) if c.get("size") else "", status]
        if verify:
            v = c.get("verify")
            if v:
                match = "" if v.get("match") is None else (" match" if v["match"] else " MISMATCH")
                line.append(f"{v['verdict']} {v['wm_id']} z {v['z']:.2f}{match}")
            else:
                line.append("")
        table.append(line)
    widths = [max(len(r[i]) for r in table) for i in range(len(head))]
    return "\n".join("  ".join(cell.ljust(w) for cell, w in zip(r, widths)).rstrip() for r in table)


def copy_ok(c, verify):
    if not c or c.get("status") != "done":
        return False
    if verify:
        v = c.get("verify") or {}
        return v.get("verdict") == "detected" and v.get("match") is not False
    return True


def start_client(args):
    from distributed import Client, LocalCluster
    if args.scheduler:
        return Client(args.scheduler), None
    cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, processes=True,
                           dashboard_address=None, silence_logs=logging.ERROR)
    return Client(cluster), cluster


def ship_package(client, out_dir):
    """Send this package to the workers (and to any that join later), so
    that they need only the binaries and Dask, not a copy of lumamark_batch."""
    import tempfile
    import zipfile
    pkg = os.path.dirname(os.path.abspath(__file__))
    with tempfile.TemporaryDirectory(dir=out_dir) as d:
        path = os.path.join(d, "lumamark_batch.zip")
        with zipfile.ZipFile(path, "w") as z:
            for f in sorted(os.listdir(pkg)):
                if f.endswith(".py"):
                    z.write(os.path.join(pkg, f), f"lumamark_batch/{f}")
        client.upload_file(path)


def run(args):
    rows = read_copies(args.copies)
    check_lumamark_args(args.lumamark_args)
    lumamark = find_binary(args.lumamark, "LUMAMARK_BIN", "lumamark")
    detect = find_binary(args.lumamark_detect, "LUMAMARK_DETECT_BIN", "lumamark-detect") \
        if args.verify else None
    ext = args.container.lstrip(".")
    out_dir = os.path.abspath(args.output_dir)
    os.makedirs(out_dir, exist_ok=True)
    title_path = os.path.abspath(args.input)
    if not os.path.exists(title_path):
        raise UsageError(f"{args.input}: no such file")

    t0 = time.monotonic()
    title = media.probe(title_path, args.ffprobe)
    version = subprocess.run([lumamark, "--version"], capture_output=True, text=True).stdout.strip()
    st = os.stat(title_path)
    job = {"input": title_path, "title": title, "lumamark": lumamark, "lumamark_detect": detect,
           "lumamark_args": args.lumamark_args, "video_codec": args.video_codec,
           "encoder_args": args.encoder_args, "muxer": MUXERS.get(ext, ext),
           "ffmpeg": args.ffmpeg, "ffprobe": args.ffprobe}
    common = [title_path, st.st_size, st.st_mtime_ns, title, version, args.lumamark_args,
              args.video_codec, args.encoder_args, args.segment_frames, job["muxer"]]
    n = args.segment_frames
    ranges = [(s, min(n, title["frames"] - s)) for s in range(0, title["frames"], n)]
    print(f"{args.input}: {title['width']}x{title['height']} {title['source_pix_fmt']}"
          f" (marked as {title['pix_fmt']}), {title['rate']} fps, {title['frames']} frames;"
          f" {len(rows)} copies x {len(ranges)} ranges", file=sys.stderr)

    manifest = Manifest(out_dir)
    copy_sig = {name: signature(common, wm_id) for name, wm_id in rows}
    seg_path = {}
    for name, _ in rows:
        for start, _count in ranges:
            seg_path[(name, start)] = os.path.join(out_dir, "segments", name, f"{start:09d}.mkv")

    def copy_file(name):
        return os.path.join(out_dir, f"{name}.{ext}")

    def copy_done(name):
        c = manifest.copies.get(name)
        return (c is not None and c.get("status") == "done" and c.get("signature") == copy_sig[name]
                and os.path.isfile(copy_file(name)) and os.path.getsize(copy_file(name)) == c["size"])

    def seg_done(name, start):
        s = manifest.segments.get(f"{name}/{start}")
        path = seg_path[(name, start)]
        return (s is not None and s.get("signature") == signature(copy_sig[name], start)
                and os.path.isfile(path) and os.path.getsize(path) == s["size"]
                and media.sha256_file(path) == s["sha256"])

    # What is left to do, from the manifest and the files it names.
    todo_segments = {}
    todo_join = set()
    todo_verify = set()
    skipped = 0
    for name, wm_id in rows:
        if copy_done(name):
            skipped += len(ranges) + 1
            if args.verify and not manifest.copies[name].get("verify"):
                todo_verify.add(name)
            elif args.verify:
                skipped += 1
            continue
        manifest.copies[name] = {"wm_id": wm_id, "status": "pending", "signature": copy_sig[name]}
        left = []
        for start, count in ranges:
            if seg_done(name, start):
                skipped += 1
            else:
                manifest.segments.pop(f"{name}/{start}", None)
                left.append((start, count))
        todo_segments[name] = left
        if not left:
            todo_join.add(name)
        if args.verify:
            todo_verify.add(name)
    manifest.save()
    total = len(rows) * (len(ranges) + 1 + (1 if args.verify else 0))
    if skipped:
        print(f"manifest: {skipped} of {total} tasks already done", file=sys.stderr)

    wm = dict(rows)
    progress = None
    client = cluster = None
    failed = {}
    try:
        if total > skipped:
            client, cluster = start_client(args)
            if args.scheduler:
                ship_package(client, out_dir)
        progress = Progress(total, skipped, not args.no_progress)
        if client is None:
            pending = []
        else:
            from distributed import as_completed
            pending = as_completed()
        what = {}

        def submit(kind, name, fn, *fargs, key):
            fut = client.submit(fn, *fargs, key=key, retries=args.retries, pure=False)
            what[fut.key] = (kind, name, fargs, fut)
            pending.add(fut)

        def submit_join(name):
            segs = [{"path": seg_path[(name, s)], "frames": c} for s, c in ranges]
            submit("join", name, media.join_segments, job, name, segs, copy_file(name),
                   key=f"join-{name}-{time.time_ns()}")

        def submit_verify(name):
            submit("verify", name, media.verify_copy, job, name, wm[name], copy_file(name),
                   args.verify_frames, key=f"verify-{name}-{time.time_ns()}")

        def fail(name, message):
            if name in failed:
                return
            failed[name] = message
            manifest.copies[name]["status"] = "failed"
            manifest.copies[name]["error"] = message
            progress.write(f"FAILED {message}")
            # The copy's other tasks would be wasted work.
            for _kind, other, _fargs, fut in what.values():
                if other == name:
                    fut.cancel()

        for name, left in todo_segments.items():
            for start, count in left:
                submit("segment", name, media.mark_segment, job, name, wm[name], start, count,
                       seg_path[(name, start)], key=f"mark-{name}-{start}-{time.time_ns()}")
        for name in todo_join:
            submit_join(name)
        for name in todo_verify:
            if name not in todo_segments:
                submit_verify(name)

        for fut in pending:
            kind, name, fargs, _ = what.pop(fut.key)
            if fut.status == "cancelled":
                continue
            try:
                res = fut.result()
            except Exception as e:  # retries exhausted, or the worker kept dying
                res = {"ok": False, "error": f"{kind} task of copy {name!r}"
                                             f"{_range_text(kind, fargs)} failed: {e!r}"}
            progress.update()
            if name in failed:
                continue
            if not res["ok"]:
                fail(name, res["error"])
                manifest.save()
                continue
            if kind == "segment":
                start = fargs[3]
                manifest.segments[f"{name}/{start}"] = {
                    "file": os.path.relpath(seg_path[(name, start)], out_dir), "start": start,
                    "frames": res["frames"], "size": res["size"], "sha256": res["sha256"],
                    "signature": signature(copy_sig[name], start)}
                if all(f"{name}/{s}" in manifest.segments for s, _ in ranges):
                    submit_join(name)
            elif kind == "join":
                manifest.copies[name].update(status="done", file=os.path.basename(copy_file(name)),
                                             frames=res["frames"], size=res["size"],
                                             sha256=res["sha256"])
                if not args.keep_segments:
                    for s, _ in ranges:
                        try:
                            os.unlink(seg_path[(name, s)])
                        except OSError:
                            pass
                        manifest.segments.pop(f"{name}/{s}", None)
                    try:
                        os.rmdir(os.path.join(out_dir, "segments", name))
                    except OSError:
                        pass
                if args.verify:
                    submit_verify(name)
            elif kind == "verify":
                manifest.copies[name]["verify"] = {k: res[k] for k in ("verdict", "wm_id", "z", "match")}
                if not copy_ok(manifest.copies[name], True):
                    progress.write(f"copy {name!r}: verification gave {res['verdict']}"
                                   f" {res['wm_id']} (expected {wm[name]})")
            manifest.save()
    finally:
        try:
            os.rmdir(os.path.join(out_dir, "segments"))
        except OSError:
            pass
        if progress:
            progress.close()
        if client:
            client.close()
        if cluster:
            cluster.close()
        manifest.save()

    print(summary_table(rows, manifest, args.verify))
    bad = [name for name, _ in rows if not copy_ok(manifest.copies.get(name), args.verify)]
    print(f"{len(rows) - len(bad)} of {len(rows)} copies done in {time.monotonic() - t0:.1f} s"
          + (f"; failed: {', '.join(bad)}" if bad else ""), file=sys.stderr)
    return 1 if bad else 0


def _range_text(kind, fargs):
    if kind == "segment":
        start, count = fargs[3], fargs[4]
        return f", frames {start}-{start + count - 1},"
    return ""


def _interrupt(signum, frame):
    raise KeyboardInterrupt


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    # A terminate request stops like Ctrl-C: the cluster is shut down and the
    # manifest keeps what was finished.
    signal.signal(signal.SIGTERM, _interrupt)
    try:
        return run(args)
    except UsageError as e:
        print(f"lumamark-batch: {e}", file=sys.stderr)
        return 2
    except RuntimeError as e:
        print(f"lumamark-batch: {e}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("lumamark-batch: interrupted; rerun the same command to finish", file=sys.stderr)
        return 130
