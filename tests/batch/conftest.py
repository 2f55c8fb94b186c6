"""Fixtures for the lumamark-batch tests: the binaries, a short synthetic
title with audio, and a way to run the command."""

import os
import shutil
import subprocess
import sys

import pytest

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
LAUNCHER = os.path.join(ROOT, "batch", "lumamark-batch")
WIDTH, HEIGHT, FRAMES = 320, 240, 48


def _binary(env, name):
    path = os.environ.get(env) or os.path.join(ROOT, "build", name)
    if not (os.path.isfile(path) and os.access(path, os.X_OK)):
        pytest.skip(f"{name} not built (set {env})")
    return path


@pytest.fixture(scope="session")
def bins():
    if not shutil.which("ffmpeg"):
        pytest.skip("ffmpeg not installed")
    return {"lumamark": _binary("LUMAMARK_BIN", "lumamark"),
            "detect": _binary("LUMAMARK_DETECT_BIN", "lumamark-detect"),
            "sample": _binary("LUMAMARK_SAMPLE_BIN", "lumamark-sample")}


@pytest.fixture(scope="session")
def title(bins, tmp_path_factory):
    """A 48-frame 320x240 H.264 title with B-frames and a keyframe every 12
    frames (so that ranges start inside a GOP), and an AAC audio track."""
    d = tmp_path_factory.mktemp("title")
    raw = d / "sample.yuv"
    subprocess.run([bins["sample"], "--width", str(WIDTH), "--height", str(HEIGHT),
                    "--frames", str(FRAMES), "--output", str(raw)], check=True)
    out = d / "title.mp4"
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "rawvideo", "-pix_fmt", "yuv420p",
                    "-s", f"{WIDTH}x{HEIGHT}", "-r", "24", "-i", str(raw),
                    "-f", "lavfi", "-i", "sine=frequency=440:duration=2",
                    "-c:v", "libx264", "-preset", "ultrafast", "-crf", "8", "-g", "12", "-bf", "2",
                    "-c:a", "aac", "-shortest", str(out)], check=True)
    raw.unlink()
    return out


def write_copies(path, rows):
    path.write_text("name,wm_id\n" + "".join(f"{n},{w}\n" for n, w in rows))
    return path


def batch_cmd(bins, title, copies, out_dir, *extra, lumamark=None):
    return [sys.executable if sys.executable == "/usr/bin/python3" else "/usr/bin/python3",
            LAUNCHER, "--input", str(title), "--copies", str(copies),
            "--output-dir", str(out_dir), "--workers", "2", "--no-progress",
            "--lumamark", lumamark or bins["lumamark"], "--lumamark-detect", bins["detect"],
            *extra]


def run_batch(*args, **kw):
    return subprocess.run(batch_cmd(*args, **kw), capture_output=True, text=True, timeout=150)


def decode_raw(path):
    """Every frame of a file's first video stream as raw yuv420p, one for one."""
    return subprocess.run(["ffmpeg", "-v", "error", "-i", str(path), "-map", "0:v:0",
                           "-fps_mode", "passthrough", "-pix_fmt", "yuv420p", "-f", "rawvideo", "-"],
                          capture_output=True, check=True).stdout


def packets_md5(path, stream):
    return subprocess.run(["ffmpeg", "-v", "error", "-i", str(path), "-map", stream, "-c", "copy",
                           "-f", "md5", "-"], capture_output=True, text=True, check=True).stdout
