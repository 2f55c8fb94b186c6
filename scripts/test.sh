#!/usr/bin/env bash
# Builds lumamark and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
ensure_build_deps
ensure_video_deps
ensure_batch_deps
ensure_gst_deps
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j2
