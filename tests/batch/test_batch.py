"""End-to-end tests of lumamark-batch on a local cluster of 2 workers."""

import hashlib
import json
import os
import signal
import subprocess
import time

import pytest

from conftest import (FRAMES, HEIGHT, WIDTH, batch_cmd, decode_raw, packets_md5, run_batch,
                      write_copies)

COPIES = [("alice", "1A2B"), ("bob", "0C0D"), ("carol", "1FFF")]
SEGMENT = ["--segment-frames", "16"]  # 3 ranges; GOPs of 12 frames, so ranges start inside one
SEGMENT_TASKS = len(COPIES) * FRAMES // 16


def sha256(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


def manifest(out_dir):
    return json.loads((out_dir / "manifest.json").read_text())


def wrapper(tmp_path, bins, delay):
    """A lumamark that logs each marking run and starts it after a delay."""
    log = tmp_path / "lumamark.log"
    script = tmp_path / "slow-lumamark"
    script.write_text(f"""#!/bin/sh
case " $* " in *" --version "*) exec {bins['lumamark']} "$@";; esac
echo "$*" >> {log}
sleep {delay}
exec {bins['lumamark']} "$@"
""")
    script.chmod(0o755)
    return str(script), log


def runs(log):
    return len(log.read_text().splitlines()) if log.exists() else 0


@pytest.fixture(scope="module")
def clean_run(bins, title, tmp_path_factory):
    """An undisturbed x264 run of three copies with --verify."""
    d = tmp_path_factory.mktemp("clean")
    res = run_batch(bins, title, write_copies(d / "copies.csv", COPIES), d / "out",
                    *SEGMENT, "--verify")
    assert res.returncode == 0, res.stderr
    return d / "out", res


def test_copies_complete_and_detected_with_their_own_ids(clean_run, title):
    out, res = clean_run
    m = manifest(out)
    for name, wm_id in COPIES:
        path = out / f"{name}.mkv"
        assert len(decode_raw(path)) == WIDTH * HEIGHT * 3 // 2 * FRAMES
        c = m["copies"][name]
        assert c["status"] == "done" and c["frames"] == FRAMES and c["size"] == path.stat().st_size
        assert c["verify"]["verdict"] == "detected"
        assert c["verify"]["wm_id"] == wm_id.lower() and c["verify"]["match"] is True
        # The audio is copied, not re-encoded.
        assert packets_md5(path, "0:a") == packets_md5(title, "0:a")
        assert f"detected {wm_id.lower()}" in res.stdout
    # Joined copies leave no segments or temporary files behind.
    assert sorted(p.name for p in out.iterdir()) == ["alice.mkv", "bob.mkv", "carol.mkv",
                                                     "manifest.json"]


def test_lossless_copies_equal_one_whole_run_and_a_bad_id_fails_alone(bins, title, tmp_path):
    rows = [("alice", "1A2B"), ("mallory", "XYZ"), ("carol", "1FFF")]
    out = tmp_path / "out"
    res = run_batch(bins, title, write_copies(tmp_path / "copies.csv", rows), out,
                    "--segment-frames", "20", "--video-codec", "ffv1")
    assert res.returncode == 1
    assert "copy 'mallory', frames " in res.stderr and "WM id validation failed" in res.stderr
    assert not (out / "mallory.mkv").exists()
    assert manifest(out)["copies"]["mallory"]["status"] == "failed"
    whole_title = decode_raw(title)
    for name, wm_id in (rows[0], rows[2]):
        whole = subprocess.run([bins["lumamark"], "--width", str(WIDTH), "--height", str(HEIGHT),
                                "--wm-id", wm_id], input=whole_title, capture_output=True,
                               check=True).stdout
        assert decode_raw(out / f"{name}.mkv") == whole, name


def _descendants(pid):
    kids = []
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/children") as f:
                kids += [int(k) for k in f.read().split()]
        except OSError:
            pass
    return kids + [g for k in kids for g in _descendants(k)]


def _cmdline(pid):
    try:
        with open(f"/proc/{pid}/cmdline", "rb") as f:
            return f.read().decode(errors="replace").split("\0")
    except OSError:
        return []


def _ppid(pid):
    with open(f"/proc/{pid}/stat") as f:
        return int(f.read().rsplit(")", 1)[1].split()[1])


def test_worker_killed_mid_run_still_gives_identical_copies(bins, title, tmp_path, clean_run):
    slow, log = wrapper(tmp_path, bins, 0.3)
    copies = write_copies(tmp_path / "copies.csv", COPIES)
    proc = subprocess.Popen(batch_cmd(bins, title, copies, tmp_path / "out", *SEGMENT,
                                      lumamark=slow),
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    killed = None
    deadline = time.monotonic() + 60
    while killed is None and time.monotonic() < deadline and proc.poll() is None:
        # A marking run still in its delay: its parent worker is mid-task.
        for pid in _descendants(proc.pid):
            if _cmdline(pid)[1:2] == [slow] and runs(log) >= 2:
                killed = _ppid(pid)
                os.kill(killed, signal.SIGKILL)
                break
        time.sleep(0.05)
    out, err = proc.communicate(timeout=150)
    assert killed is not None, "no task was caught running"
    assert proc.returncode == 0, err
    # The killed worker's task ran again elsewhere.
    assert runs(log) > SEGMENT_TASKS
    for name, _ in COPIES:
        assert sha256(tmp_path / "out" / f"{name}.mkv") == sha256(clean_run[0] / f"{name}.mkv")


def test_rerun_after_interruption_redoes_no_finished_work(bins, title, tmp_path, clean_run):
    slow, log = wrapper(tmp_path, bins, 0.3)
    copies = write_copies(tmp_path / "copies.csv", COPIES)
    out = tmp_path / "out"
    proc = subprocess.Popen(batch_cmd(bins, title, copies, out, *SEGMENT, lumamark=slow),
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    deadline = time.monotonic() + 60
    while time.monotonic() < deadline and proc.poll() is None:
        if (out / "manifest.json").exists() and len(manifest(out)["segments"]) >= 3:
            proc.send_signal(signal.SIGINT)
            break
        time.sleep(0.05)
    proc.communicate(timeout=60)
    assert proc.returncode == 130, "the run ended before it could be interrupted"

    m = manifest(out)
    done_copies = [n for n, _ in COPIES if m["copies"][n]["status"] == "done"]
    left = sum(FRAMES // 16 - sum(1 for k in m["segments"] if k.startswith(n + "/"))
               for n, _ in COPIES if n not in done_copies)
    assert left < SEGMENT_TASKS
    log.unlink()
    res = run_batch(bins, title, copies, out, *SEGMENT, lumamark=slow)
    assert res.returncode == 0, res.stderr
    assert runs(log) == left
    for name, _ in COPIES:
        assert sha256(out / f"{name}.mkv") == sha256(clean_run[0] / f"{name}.mkv")
    # A third run finds everything done and starts no cluster at all.
    log.unlink(missing_ok=True)
    res = run_batch(bins, title, copies, out, *SEGMENT, lumamark=slow)
    assert res.returncode == 0 and runs(log) == 0
