#!/usr/bin/env bash
# Robustness of the watermark: marks the built-in sample clip at 360p and
# 1080p, damages it (x264 at several CRFs, a half-size scaling round trip),
# decodes it back to raw and runs lumamark-detect on the first 1, 3, 10 and
# 30 frames. Prints a table (recovered or not, z, and the bit error rate of
# the per-superpixel hard decisions against the true coded bits), checks the
# targets, and reads the unmarked clip with many URNs to show that it never
# gets a verdict.
#
# Settings through the environment: FRAMES (default 30), WM_ID (default
# 1A2B), STRENGTH (default 3), PRESET (x264 preset, default medium),
# URN_TRIALS (default 40), SIZES (default "360 1080"), BUILD_DIR (default
# build), OUT (work directory, default out/robustness; raw files are removed
# as soon as they have been read).
set -euo pipefail
cd "$(dirname "$0")/.."

frames=${FRAMES:-30}
wm_id=${WM_ID:-1A2B}
strength=${STRENGTH:-3}
preset=${PRESET:-medium}
urn_trials=${URN_TRIALS:-40}
sizes=${SIZES:-360 1080}
build=${BUILD_DIR:-build}
out=${OUT:-out/robustness}
counts=(1 3 10 30)
damages=(clean half crf18 crf23 crf28 crf33)

. scripts/deps.sh
ensure_build_deps
ensure_video_deps

mkdir -p "$out"
if [ ! -f "$build/build.ninja" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
if ! cmake --build "$build" --target lumamark lumamark-detect lumamark-sample >"$out/build.log" 2>&1; then
  cat "$out/build.log" >&2
  exit 1
fi
lumamark=$build/lumamark
detect=$build/lumamark-detect
sample=$build/lumamark-sample

ff() { ffmpeg -nostdin -v error -y "$@"; }

# The clip is generated at 1080p and scaled for the smaller sizes.
"$sample" --width 1920 --height 1080 --frames "$frames" --output "$out/sample1080.yuv"

# Damages the marked clip $1 (w x h $2 $3) into raw file $5 by damage $4.
damage() {
  local in=$1 w=$2 h=$3 kind=$4 dst=$5
  local raw=(-f rawvideo -pix_fmt yuv420p -s "${w}x${h}" -r 24)
  case "$kind" in
    clean) cp "$in" "$dst" ;;
    half)
      ff "${raw[@]}" -i "$in" -vf "scale=$((w / 2)):$((h / 2)),scale=$w:$h" -f rawvideo -pix_fmt yuv420p "$dst" ;;
    crf*)
      ff "${raw[@]}" -i "$in" -c:v libx264 -preset "$preset" -crf "${kind#crf}" -pix_fmt yuv420p "$out/damaged.mp4"
      ff -i "$out/damaged.mp4" -f rawvideo -pix_fmt yuv420p "$dst"
      rm -f "$out/damaged.mp4" ;;
  esac
}

# Words equal to $2 in the list $1.
count() { tr ' ' '\n' <<<"$1" | grep -c "^$2\$" || true; }

# JSON field $2 of the detector's output $1.
field() { sed -n "s/.*\"$2\": \"\{0,1\}\([^\",}]*\).*/\1/p" <<<"$1"; }

declare -A result
for size in $sizes; do
  case "$size" in
    360) w=640; h=360 ;;
    720) w=1280; h=720 ;;
    1080) w=1920; h=1080 ;;
    *) echo "unknown size $size" >&2; exit 1 ;;
  esac
  src=$out/sample$size.yuv
  if [ "$size" != 1080 ]; then
    ff -f rawvideo -pix_fmt yuv420p -s 1920x1080 -i "$out/sample1080.yuv" -vf "scale=$w:$h" \
      -f rawvideo -pix_fmt yuv420p "$src"
  fi
  "$lumamark" --width "$w" --height "$h" --strength "$strength" --wm-id "$wm_id" \
    --input-file "$src" --output-file "$out/marked$size.yuv"
  for kind in "${damages[@]}"; do
    damage "$out/marked$size.yuv" "$w" "$h" "$kind" "$out/damaged.yuv"
    for n in "${counts[@]}"; do
      [ "$n" -le "$frames" ] || continue
      json=$("$detect" --width "$w" --height "$h" --strength "$strength" --input-file "$out/damaged.yuv" \
        --frames "$n" --json --wm-id "$wm_id" || true)
      result[$size,$kind,$n]="$(field "$json" match) $(field "$json" z) $(field "$json" ber) $(field "$json" verdict)"
    done
    rm -f "$out/damaged.yuv"
  done
  rm -f "$out/marked$size.yuv"

  # Unmarked clip, read with many random URNs: the largest z and the verdicts.
  top=0; verdicts=""
  for ((i = 0; i < urn_trials; i++)); do
    urn=$(od -An -N16 -tx1 /dev/urandom | tr -d ' \n')
    json=$("$detect" --width "$w" --height "$h" --strength "$strength" --input-file "$src" \
      --frames "$frames" --json --user-urn "$urn" || true)
    z=$(field "$json" z)
    top=$(awk -v a="$top" -v b="$z" 'BEGIN { print (b > a) ? b : a }')
    verdicts+="$(field "$json" verdict) "
  done
  result[$size,unmarked]="$urn_trials URNs on the unmarked clip ($frames frames): largest z $top, $(count "$verdicts" none) x none, $(count "$verdicts" weak) x weak, $(count "$verdicts" detected) x detected"
  [ "$size" = 1080 ] || rm -f "$src"
done
rm -f "$out/sample1080.yuv"

cell() {
  local r=${result[$1]:-}
  [ -n "$r" ] || { printf -- "-"; return; }
  read -r match z ber verdict <<<"$r"
  local mark="no"
  if [ "$match" = true ] && [ "$verdict" = detected ]; then mark="yes"; elif [ "$match" = true ]; then mark="($verdict)"; fi
  printf "%s z %s, BER %s" "$mark" "$z" "$ber"
}

echo
echo "lumamark robustness: sample clip, --wm-id $wm_id, strength $strength, x264 preset $preset"
echo "Each cell: ID recovered with a \"detected\" verdict (yes/no), z, bit error rate of the"
echo "per-superpixel hard decisions against the true coded bits."
echo
header="| size | damage |"; rule="|---|---|"
for n in "${counts[@]}"; do header+=" $n frame$([ "$n" = 1 ] || echo s) |"; rule+="---|"; done
echo "$header"; echo "$rule"
for size in $sizes; do
  for kind in "${damages[@]}"; do
    label=$kind
    case "$kind" in half) label="half-size round trip" ;; crf*) label="x264 CRF ${kind#crf}" ;; esac
    row="| ${size}p | $label |"
    for n in "${counts[@]}"; do row+=" $(cell "$size,$kind,$n") |"; done
    echo "$row"
  done
done
echo
for size in $sizes; do echo "${size}p: ${result[$size,unmarked]}"; done

# The targets, where the table has them.
echo
echo "Targets:"
target() {
  local label=$1 key=$2 r=${result[$2]:-}
  if [ -z "$r" ]; then echo "  $label: not run"; return; fi
  read -r match z _ verdict <<<"$r"
  if [ "$match" = true ] && [ "$verdict" = detected ]; then echo "  $label: met (z $z)"; else echo "  $label: NOT met (z $z)"; fi
}
target "must: 360p, 1 clean frame" "360,clean,1"
target "must: 360p, 1 frame after a half-size round trip" "360,half,1"
target "must: 360p, 3 frames at CRF 18" "360,crf18,3"
target "must: 360p, 30 frames at CRF 23" "360,crf23,30"
target "must: 1080p, 10 frames at CRF 28" "1080,crf28,10"
target "ambitious: 360p, the intra frame alone at CRF 28" "360,crf28,1"
target "ambitious: 1080p, 10 frames at CRF 33" "1080,crf33,10"
