"""The manifest: what a batch run has finished, kept in the output directory.

Only the client process writes it, after each finished task, always as a
whole new file renamed over the old one, so that an interrupted run leaves
either the previous or the next state, never a partial one.
"""

import hashlib
import json
import os

NAME = "manifest.json"
VERSION = 1


def signature(*parts):
    """A short digest of everything that determines a result's bytes."""
    text = json.dumps(parts, sort_keys=True, separators=(",", ":"))
    return hashlib.sha256(text.encode()).hexdigest()[:32]


class Manifest:
    def __init__(self, out_dir):
        self.path = os.path.join(out_dir, NAME)
        self.data = {"version": VERSION, "segments": {}, "copies": {}}
        if os.path.exists(self.path):
            with open(self.path) as f:
                data = json.load(f)
            if data.get("version") == VERSION:
                self.data = data
                self.data.setdefault("segments", {})
                self.data.setdefault("copies", {})

    @property
    def segments(self):
        return self.data["segments"]

    @property
    def copies(self):
        return self.data["copies"]

    def save(self):
        tmp = self.path + ".tmp"
        with open(tmp, "w") as f:
            json.dump(self.data, f, indent=1, sort_keys=True)
            f.flush()
            os.fsync(f.fileno())
        os.replace(tmp, self.path)
