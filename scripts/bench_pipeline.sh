#!/usr/bin/env bash
# Pipeline benchmark: lumamark as the middle stage of
#   cat clip | lumamark ... | cat > /dev/null
# against the same pipeline with cat in the middle, measured in the same run;
# the CPU time of lumamark from a file to /dev/null; the detector's time per
# frame.
#
# Usage: scripts/bench_pipeline.sh [--build DIR] [--lumamark PATH] [--dir DIR]
#                                  [--reps N] [--frames-1080 N] [--frames-2160 N]
#                                  [--quick] [--instructions]
#
# Generates a 1080p and a 2160p yuv420p clip with lumamark-sample (kept in
# --dir between runs), then times every setting --reps times, interleaved
# with the cat baseline, and prints medians:
#   fps and MB/s of the pipeline, its wall time as a ratio to the cat
#   pipeline (whose own fps and MB/s are the first row), user and system
#   milliseconds per frame of the lumamark process and its peak resident set
#   size.
# Settings: perceptual modes 0 to 3, deep-fake, FEC 0 and 2, each with
# --threads 1 and --threads 0, and the defaults on the same frames as y4m
# (made from the raw clip, kept beside it). Then, with --threads 1 from the clip file to
# /dev/null (no pipe), user and system milliseconds per frame: the CPU cost
# of marking with the least I/O. Last, lumamark-detect on the marked 1080p
# clip with --threads 1: user milliseconds per frame. --lumamark times
# another binary (an older build, say) with the same clips and a baseline of
# its own. --instructions prints instead, for every setting at 1080p with
# --threads 1, the instructions one more frame costs (callgrind, 10 frames
# against 5): a figure that does not move with the machine's load.
#
# On a machine shared with other work, wall times (and so the ratios) are
# noisy: compare user and system times, and ratios from the same run only.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
lumamark=
dir=${TMPDIR:-/tmp}/lumamark-bench
reps=5
frames_1080=120
frames_2160=30
instructions=0
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build=$2; shift 2 ;;
    --lumamark) lumamark=$2; shift 2 ;;
    --dir) dir=$2; shift 2 ;;
    --reps) reps=$2; shift 2 ;;
    --frames-1080) frames_1080=$2; shift 2 ;;
    --frames-2160) frames_2160=$2; shift 2 ;;
    --quick) reps=3; frames_1080=30; frames_2160=8; shift ;;
    --instructions) instructions=1; shift ;;
    -h|--help) sed -n '2,27p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
done

. scripts/deps.sh
ensure_packages /usr/bin/time:time
lumamark=${lumamark:-$build/lumamark}
sample=$build/lumamark-sample
detect=$build/lumamark-detect
if [ ! -x "$lumamark" ] || [ ! -x "$sample" ]; then
  echo "build lumamark and lumamark-sample first (ninja -C $build lumamark lumamark-sample)" >&2
  exit 1
fi
mkdir -p "$dir"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

clip() {  # width height frames -> path (generated once)
  local path="$dir/clip_${1}x${2}_${3}.yuv"
  if [ ! -s "$path" ]; then
    echo "generating $path" >&2
    "$sample" --width "$1" --height "$2" --frames "$3" --output "$path.tmp" && mv "$path.tmp" "$path"
  fi
  echo "$path"
}

now() { date +%s.%N; }
calc() { awk "BEGIN {printf \"%.6f\", $1}"; }

# One timed pipeline; prints "wall user sys maxrss_kb" of the middle stage
# (wall of the whole pipeline).
run_once() {  # clip middle-command...
  local in=$1; shift
  local t0 t1
  t0=$(now)
  cat "$in" | /usr/bin/time -o "$work/time" -f "%U %S %M" "$@" | cat > /dev/null
  t1=$(now)
  echo "$(awk -v a="$t0" -v b="$t1" 'BEGIN {printf "%.6f", b - a}') $(cat "$work/time")"
}

# One timed run from a file to /dev/null; prints "user sys maxrss_kb".
run_file() {  # clip command...
  local in=$1; shift
  /usr/bin/time -o "$work/time" -f "%U %S %M" "$@" < "$in" > /dev/null
  cat "$work/time"
}

median() { sort -g | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }

settings=(
  "defaults (pm 3, FEC 2)|"
  "pm 0|--pm-mode 0"
  "pm 1|--pm-mode 1"
  "pm 2|--pm-mode 2"
  "pm 3, FEC 0|--fec 0"
  "deep-fake|--deep-fake"
)

bench_size() {  # width height frames
  local w=$1 h=$2 frames=$3
  local in
  in=$(clip "$w" "$h" "$frames")
  local frame_bytes=$((w * h * 3 / 2))
  local mb
  mb=$(calc "$frame_bytes * $frames / 1000000")
  cat "$in" > /dev/null  # into the page cache

  # The same frames as y4m (a header, and a FRAME line before each frame).
  local y4m="${in%.yuv}.y4m"
  if [ ! -s "$y4m" ]; then
    {
      printf 'YUV4MPEG2 W%d H%d F25:1 Ip A1:1 C420jpeg\n' "$w" "$h"
      local f
      for ((f = 0; f < frames; f++)); do
        printf 'FRAME\n'
        tail -c +$((f * frame_bytes + 1)) "$in" | head -c "$frame_bytes"
      done
    } > "$y4m.tmp" && mv "$y4m.tmp" "$y4m"
  fi
  cat "$y4m" > /dev/null

  local names=("cat")
  local cmds=("cat")
  local inputs=("$in")
  local s t
  for s in "${settings[@]}"; do
    for t in 1 0; do
      names+=("${s%%|*}, --threads $t")
      cmds+=("$lumamark --width $w --height $h --threads $t ${s#*|}")
      inputs+=("$in")
    done
  done
  names+=("defaults, y4m, --threads 0")
  cmds+=("$lumamark --threads 0")
  inputs+=("$y4m")

  # Repetitions interleave all settings, so that a slow moment of the
  # machine touches them alike.
  local i r
  for ((r = 0; r < reps; r++)); do
    for i in "${!cmds[@]}"; do
      # shellcheck disable=SC2086
      run_once "${inputs[$i]}" ${cmds[$i]} >> "$work/res_$i"
    done
  done

  local base_wall
  base_wall=$(cut -d' ' -f1 "$work/res_0" | median)
  printf '\n%dx%d yuv420p, %d frames (%.0f MB), %d runs each, medians\n' "$w" "$h" "$frames" "$mb" "$reps"
  printf 'pipeline cat clip | X | cat > /dev/null (first row: X = cat, the baseline)\n'
  printf '%-34s %8s %8s %9s %8s %9s %9s %8s\n' setting wall_s fps MB/s ratio user_ms sys_ms rss_MB
  for i in "${!cmds[@]}"; do
    local wall user sys rss
    wall=$(cut -d' ' -f1 "$work/res_$i" | median)
    user=$(cut -d' ' -f2 "$work/res_$i" | median)
    sys=$(cut -d' ' -f3 "$work/res_$i" | median)
    rss=$(cut -d' ' -f4 "$work/res_$i" | sort -g | tail -1)
    printf '%-34s %8.3f %8.1f %9.1f %8.2f %9.2f %9.2f %8.1f\n' "${names[$i]}" "$wall" \
      "$(calc "$frames / $wall")" "$(calc "$mb / $wall")" "$(calc "$wall / $base_wall")" \
      "$(calc "$user * 1000 / $frames")" "$(calc "$sys * 1000 / $frames")" "$(calc "$rss / 1024")"
    rm -f "$work/res_$i"
  done

  # CPU from the file to /dev/null, one worker.
  printf '\nfrom the clip file to /dev/null, --threads 1 (per frame)\n'
  printf '%-34s %9s %9s %8s\n' setting user_ms sys_ms rss_MB
  local fnames=() fcmds=()
  for s in "${settings[@]}"; do
    fnames+=("${s%%|*}")
    fcmds+=("$lumamark --width $w --height $h --threads 1 ${s#*|}")
  done
  for ((r = 0; r < reps; r++)); do
    for i in "${!fcmds[@]}"; do
      # shellcheck disable=SC2086
      run_file "$in" ${fcmds[$i]} >> "$work/file_$i"
    done
  done
  for i in "${!fcmds[@]}"; do
    local user sys rss
    user=$(cut -d' ' -f1 "$work/file_$i" | median)
    sys=$(cut -d' ' -f2 "$work/file_$i" | median)
    rss=$(cut -d' ' -f3 "$work/file_$i" | sort -g | tail -1)
    printf '%-34s %9.2f %9.2f %8.1f\n' "${fnames[$i]}" "$(calc "$user * 1000 / $frames")" \
      "$(calc "$sys * 1000 / $frames")" "$(calc "$rss / 1024")"
    rm -f "$work/file_$i"
  done

  # The detector on the marked clip (aligned read), one worker.
  if [ -x "$detect" ]; then
    "$lumamark" --width "$w" --height "$h" --wm-id 1A2B --input-file "$in" --output-file "$work/marked.yuv"
    for ((r = 0; r < reps; r++)); do
      run_file "$work/marked.yuv" "$detect" --width "$w" --height "$h" --threads 1 >> "$work/detect"
    done
    printf '\nlumamark-detect --threads 1 on the marked clip: %.2f user ms per frame\n' \
      "$(calc "$(cut -d' ' -f1 "$work/detect" | median) * 1000 / $frames")"
    rm -f "$work/detect" "$work/marked.yuv"
  fi
}

# Instructions of one more frame, per setting, at 1080p.
count_instructions() {
  ensure_packages valgrind:valgrind
  local in
  in=$(clip 1920 1080 10)
  head -c $((1920 * 1080 * 3 / 2 * 5)) "$in" > "$work/five.yuv"
  refs() {  # clip settings... -> instructions of the whole run
    valgrind --tool=callgrind --callgrind-out-file=/dev/null "$lumamark" --width 1920 --height 1080 \
      --threads 1 --input-file "$1" --output-file /dev/null "${@:2}" 2>&1 |
      awk '/refs:/ {gsub(",", "", $NF); print $NF}'
  }
  printf '\n1920x1080, --threads 1: instructions per frame (callgrind, 10 frames against 5)\n'
  local s ten five
  for s in "${settings[@]}"; do
    # shellcheck disable=SC2086
    ten=$(refs "$in" ${s#*|})
    # shellcheck disable=SC2086
    five=$(refs "$work/five.yuv" ${s#*|})
    printf '%-34s %10.2fM\n' "${s%%|*}" "$(calc "($ten - $five) / 5 / 1000000")"
  done
}

echo "lumamark pipeline benchmark: $(nproc) processors, $("$lumamark" --version 2>&1 | head -1)"
if [ "$instructions" = 1 ]; then
  count_instructions
  exit 0
fi
bench_size 1920 1080 "$frames_1080"
bench_size 3840 2160 "$frames_2160"
echo
echo "ratio = pipeline wall time / wall time of cat clip | cat | cat > /dev/null (same run)"
echo "user_ms, sys_ms and rss_MB are those of the middle stage (per frame; peak RSS)"
