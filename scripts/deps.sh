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
  ensure_packages cmake:cmake ninja:ninja-build g++:g++ \
    /usr/include/gtest/gtest.h:libgtest-dev \
    /usr/include/benchmark/benchmark.h:libbenchmark-dev
}

# ffmpeg: the end-to-end pipeline tests and scripts/demo.sh feed it real video.
ensure_video_deps() {
  ensure_packages ffmpeg:ffmpeg /usr/bin/time:time
}
