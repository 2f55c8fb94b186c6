#!/usr/bin/env bash
# Runs both tools on an emulated x86-64 processor without AVX
# (qemu-x86_64 -cpu Westmere), where only the plain kernels can run:
#   1. the end-to-end tests of lumamark and lumamark-detect, with every run of
#      the tools under the emulator;
#   2. a set of runs natively and emulated, whose video, payload files, logs,
#      messages and statuses must be the same bytes;
#   3. the same runs natively with LUMAMARK_CPU=plain.
# Uses an existing build (BUILD_DIR, default build/).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
ensure_packages qemu-x86_64:qemu-user
build=$(realpath "${BUILD_DIR:-build}")
emulator=(qemu-x86_64 -cpu Westmere)
tool=$build/lumamark
detect=$build/lumamark-detect
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "cpu_check: end-to-end tests under ${emulator[*]}"
LUMAMARK_TEST_EMULATOR="${emulator[*]}" "$build/tests/e2e_tests" --gtest_brief=1 \
  --gtest_filter=-Hostile.LongRunsKeepMemoryFlat  # a memory test of 10,000 frames, not about bytes

"$build/lumamark-sample" --width 320 --height 184 --frames 4 --output "$work/in.yuv"
"$build/lumamark-sample" --width 96 --height 64 --frames 3 --pix-fmt yuv444p \
  --output "$work/in444.yuv"

# One run: its outputs go to $work/<name>.<label>.*; prefix words come first.
run() {
  local label=$1 name=$2
  shift 2
  local prefix=()
  case "$label" in
    emulated) prefix=("${emulator[@]}") ;;
    plain) prefix=(env LUMAMARK_CPU=plain) ;;
  esac
  local dir=$work/$label
  mkdir -p "$dir"
  local status=0
  (cd "$dir" && "${prefix[@]}" "$@" >"$name.out" 2>"$name.err") || status=$?
  echo "$status" >"$dir/$name.status"
}

runs() {
  local label=$1 in=$work/in.yuv
  local size=(--width 320 --height 184)
  run "$label" default "$tool" "${size[@]}" --wm-id 1A2B --input-file "$in" --output-file default.yuv
  run "$label" pm0 "$tool" "${size[@]}" --pm-mode 0 --fec 0 --wm-id 7 --input-file "$in" --output-file pm0.yuv
  run "$label" pm1 "$tool" "${size[@]}" --pm-mode 1 --sp-width 9 --input-file "$in" --output-file pm1.yuv
  run "$label" pm2 "$tool" "${size[@]}" --pm-mode 2 --sp-width 16 --spb-width 3 --sp-density 60 \
    --input-file "$in" --output-file pm2.yuv
  run "$label" deep "$tool" "${size[@]}" --deep-fake --strength 5 --embed-log deep.json \
    --input-file "$in" --output-file deep.yuv
  run "$label" threads "$tool" "${size[@]}" --threads 3 --sp-width 24 --seed 5 --sp-density 40 \
    --input-file "$in" --output-file threads.yuv
  run "$label" yuv444 "$tool" --width 96 --height 64 --pix-fmt yuv444p --sp-width 5 \
    --input-file "$work/in444.yuv" --output-file yuv444.yuv
  run "$label" save "$tool" "${size[@]}" --fec 0 --bit-profile 40 --wm-id abcdef \
    --user-urn 0123456789abcdef0123456789abcdef --payload-file save.bin
  run "$label" refused "$tool" --sp-width 4
  run "$label" detect "$detect" "${size[@]}" --input-file "$work/native/default.yuv" --wm-id 1a2b
  run "$label" detect_json "$detect" "${size[@]}" --sp-width 24 --sp-density 40 --json \
    --input-file "$work/native/threads.yuv"
}

runs native
runs emulated
runs plain
for label in emulated plain; do
  if ! diff -r "$work/native" "$work/$label" >/dev/null; then
    diff -r "$work/native" "$work/$label" | head -20
    echo "cpu_check: $label runs differ from the native runs" >&2
    exit 1
  fi
done
files=$(find "$work/native" -type f | wc -l)
echo "cpu_check: $files files of 11 runs equal natively, under ${emulator[*]} and with LUMAMARK_CPU=plain"
