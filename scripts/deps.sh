# Sourced by the project's scripts: installs what a fresh machine lacks.
# Usage: ensure_packages cmd:package [cmd:package ...]
ensure_packages() {
  local missing=()
  local pair cmd pkg
  for pair in "$@"; do
    cmd=${pair%%:*}
    pkg=${pair#*:}
    case "$cmd" in
      /*) [ -e "$cmd" ] || missing+=("$pkg") ;;
      *) command -v "$cmd" >/dev/null 2>&1 || missing+=("$pkg") ;;
    esac
  done
  if [ ${#missing[@]} -gt 0 ]; then
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    echo "Installing: ${missing[*]}" >&2
    $sudo apt-get update -qq >&2
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >&2
  fi
}

ensure_build_deps() {
  ensure_packages cmake:cmake ninja:ninja-build g++:g++ pkg-config:pkg-config \
    /usr/include/gtest/gtest.h:libgtest-dev \
    /usr/include/benchmark/benchmark.h:libbenchmark-dev
}

# ffmpeg: the end-to-end pipeline tests and scripts/demo.sh feed it real video.
ensure_video_deps() {
  ensure_packages ffmpeg:ffmpeg /usr/bin/time:time
}

# lumamark-batch and its tests: Dask, pytest and tqdm for Debian's own
# /usr/bin/python3, judged by importing them (the commands of the same names
# on PATH may belong to another Python), and ffmpeg.
ensure_batch_deps() {
  ensure_video_deps
  local missing=() pair mod
  for pair in distributed:python3-distributed pytest:python3-pytest tqdm:python3-tqdm; do
    mod=${pair%%:*}
    # A path that never exists makes ensure_packages install the package.
    /usr/bin/python3 -c "import $mod" >/dev/null 2>&1 || missing+=("/nonexistent/$pair")
  done
  [ ${#missing[@]} -eq 0 ] || ensure_packages "${missing[@]}"
}

# GStreamer: the plugin's development packages, gst-launch-1.0 and the
# elements its tests use (videotestsrc, rawvideoparse; mp4mux; x264enc).
ensure_gst_deps() {
  local plugins
  plugins=/usr/lib/$(gcc -print-multiarch 2>/dev/null || echo x86_64-linux-gnu)/gstreamer-1.0
  ensure_packages pkg-config:pkg-config \
    /usr/include/gstreamer-1.0/gst/gst.h:libgstreamer1.0-dev \
    /usr/include/gstreamer-1.0/gst/video/video.h:libgstreamer-plugins-base1.0-dev \
    gst-launch-1.0:gstreamer1.0-tools \
    "$plugins/libgstvideotestsrc.so:gstreamer1.0-plugins-base" \
    "$plugins/libgstisomp4.so:gstreamer1.0-plugins-good" \
    "$plugins/libgstx264.so:gstreamer1.0-plugins-ugly"
}
