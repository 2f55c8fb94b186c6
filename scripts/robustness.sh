#!/usr/bin/env bash
# Robustness of the watermark: marks the built-in sample clip at 360p and
# 1080p, damages it (x264 at several CRFs, a half-size scaling round trip),
# decodes it back to raw and runs lumamark-detect on the first 1, 3, 10 and
# 30 frames. Prints a table (recovered or not, z, and the bit error rate of
# the per-superpixel hard decisions against the true coded bits), checks the
# targets, and reads the unmarked clip with many URNs to show that it never
# gets a verdict.
#
# A second table changes the geometry of the 1080p clip the way a leaked copy
# is changed (ladder rungs read at their own size, shifts, crops kept at
# their size or zoomed back, a pillarbox, a mirror), encodes it with x264 at
# CRF 23 and reads the first 10 frames with the default search: the verdict,
# the ID, z, the transform found and the time of the read. The unmarked clip
# is then read with the full search and many URNs: it must never be
# "detected".
#
# Settings through the environment: FRAMES (default 30), WM_ID (default
# 1A2B), STRENGTH (default 3), PRESET (x264 preset, default medium),
# URN_TRIALS (default 40), SIZES (default "360 1080"), PARTS (default
# "quality geometry"), GEO_URN_TRIALS (default 10), BUILD_DIR (default
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
parts=${PARTS:-quality geometry}
geo_urn_trials=${GEO_URN_TRIALS:-10}
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
[[ " $parts " == *" quality "* ]] || sizes=""

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

# JSON field $2 of the detector's output $1 (its first occurrence).
field() { grep -o "\"$2\": \"\{0,1\}[^\",}]*" <<<"$1" | head -n 1 | sed "s/^\"$2\": \"\{0,1\}//"; }

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

cell() {
  local r=${result[$1]:-}
  [ -n "$r" ] || { printf -- "-"; return; }
  read -r match z ber verdict <<<"$r"
  local mark="no"
  if [ "$match" = true ] && [ "$verdict" = detected ]; then mark="yes"; elif [ "$match" = true ]; then mark="($verdict)"; fi
  printf "%s z %s, BER %s" "$mark" "$z" "$ber"
}

if [ -n "$sizes" ]; then
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
fi


# Geometry: the 1080p clip marked, changed like a leaked copy, x264 CRF 23.
# Times are the processor time of the detector (user + system), which other
# work on a shared machine inflates less than the wall clock.
cpu() { /usr/bin/time -f "%U %S" -o "$out/cpu.raw" "$@"; local rc=$?; tail -n 1 "$out/cpu.raw" | awk '{ printf "%.2f", $1 + $2 }' >"$out/cpu"; return $rc; }
if [[ " $parts " == *" geometry "* ]]; then
  "$lumamark" --width 1920 --height 1080 --strength "$strength" --wm-id "$wm_id" \
    --input-file "$out/sample1080.yuv" --output-file "$out/marked1080.yuv"
  # name|filter graph|copy width|copy height
  attacks=(
    "aligned|null|1920|1080"
    "1280x720 rung|scale=1280:720|1280|720"
    "960x540 rung|scale=960:540|960|540"
    "854x480 rung|scale=854:480|854|480"
  )
  for s in "3 0" "4 0" "5 0" "-4 0" "0 4" "0 -5" "7 7" "14 14" "-14 -14" "14 -9" "-11 13"; do
    read -r dx dy <<<"$s"
    ax=$(( dx < 0 ? -dx : dx )); ay=$(( dy < 0 ? -dy : dy ))
    # Crop on one side and pad on the other: the picture moves dx right, dy down.
    cx=$(( dx < 0 ? ax : 0 )); cy=$(( dy < 0 ? ay : 0 )); px=$(( dx > 0 ? ax : 0 )); py=$(( dy > 0 ? ay : 0 ))
    attacks+=("shift $dx,$dy|format=yuv444p,crop=iw-$ax:ih-$ay:$cx:$cy,pad=iw+$ax:ih+$ay:$px:$py,format=yuv420p|1920|1080")
  done
  attacks+=(
    "crop 5% per side, kept|crop=1728:972:96:54|1728|972"
    "crop 5% per side, zoomed back|crop=1728:972:96:54,scale=1920:1080|1920|1080"
    "crop 2% per side, zoomed back|crop=1844:1036:38:22,scale=1920:1080|1920|1080"
    "crop 5% left and right, zoomed back|crop=1728:1080:96:0,scale=1920:1080|1920|1080"
    "crop left 5% top 2% bottom 5%, kept|crop=1824:1004:96:22|1824|1004"
    "crop left 5% top 2% bottom 5%, zoomed back|crop=1824:1004:96:22,scale=1920:1080|1920|1080"
    "4:3 pillarbox|scale=1440:1080,pad=1920:1080:240:0|1920|1080"
    "mirror|hflip|1920|1080"
    "mirror, shift 6,0|hflip,crop=iw-6:ih:0:0,pad=iw+6:ih:6:0|1920|1080"
  )
  geo_rows=()
  wrong=0; missed=0
  for a in "${attacks[@]}"; do
    IFS='|' read -r name vf cw ch <<<"$a"
    ff -f rawvideo -pix_fmt yuv420p -s 1920x1080 -r 24 -i "$out/marked1080.yuv" -frames:v 10 -vf "$vf" \
      -c:v libx264 -preset "$preset" -crf 23 -pix_fmt yuv420p "$out/copy.mp4"
    ff -i "$out/copy.mp4" -f rawvideo -pix_fmt yuv420p "$out/copy.yuv"
    json=$(cpu "$detect" --strength "$strength" --input-width "$cw" --input-height "$ch" --input-file "$out/copy.yuv" \
      --frames 10 --json --wm-id "$wm_id" || true)
    secs=$(cat "$out/cpu")
    verdict=$(field "$json" verdict); id=$(field "$json" wm_id)
    if [ "$verdict" = detected ] && [ "$(field "$json" match)" != true ]; then wrong=$((wrong + 1)); fi
    [ "$verdict" = detected ] && [ "$(field "$json" match)" = true ] || missed=$((missed + 1))
    geo_rows+=("| $name | ${cw}x$ch | $verdict | $id | $(field "$json" z) | $(field "$json" scale_x) x $(field "$json" scale_y), $(field "$json" offset_x), $(field "$json" offset_y)$([ "$(field "$json" flip)" != true ] || echo ", mirrored") | $secs s |")
    rm -f "$out/copy.mp4" "$out/copy.yuv"
  done
  rm -f "$out/marked1080.yuv"

  # Unmarked clip through x264, full search, random URNs.
  ff -f rawvideo -pix_fmt yuv420p -s 1920x1080 -r 24 -i "$out/sample1080.yuv" -frames:v 10 \
    -c:v libx264 -preset "$preset" -crf 23 -pix_fmt yuv420p "$out/copy.mp4"
  ff -i "$out/copy.mp4" -f rawvideo -pix_fmt yuv420p "$out/copy.yuv"
  top=0; verdicts=""; slowest=0
  for ((i = 0; i < geo_urn_trials; i++)); do
    urn=$(od -An -N16 -tx1 /dev/urandom | tr -d ' \n')
    json=$(cpu "$detect" --strength "$strength" --input-file "$out/copy.yuv" --frames 10 --json --search full \
      --user-urn "$urn" || true)
    secs=$(cat "$out/cpu")
    slowest=$(awk -v a="$slowest" -v b="$secs" 'BEGIN { print (b > a) ? b : a }')
    z=$(field "$json" z)
    top=$(awk -v a="$top" -v b="$z" 'BEGIN { print (b > a) ? b : a }')
    verdicts+="$(field "$json" verdict) "
  done
  cpu "$detect" --strength "$strength" --input-file "$out/copy.yuv" --frames 10 --json --search none >/dev/null || true
  aligned=$(cat "$out/cpu")
  rm -f "$out/copy.mp4" "$out/copy.yuv"

  echo
  echo "lumamark geometry: sample clip marked at 1080p, --wm-id $wm_id, changed, x264 CRF 23 (preset $preset),"
  echo "first 10 frames read at the copy's own size with the default search (fast, then full);"
  echo "time: processor seconds of the read."
  echo
  echo "| attack | copy | verdict | ID | z | transform (scale, offset x, y) | time |"
  echo "|---|---|---|---|---|---|---|"
  printf '%s\n' "${geo_rows[@]}"
  echo
  echo "Attacks read with the right ID: $(( ${#attacks[@]} - missed )) of ${#attacks[@]}; detected with a wrong ID: $wrong."
  echo "Unmarked clip (x264 CRF 23, 10 frames), full search, $geo_urn_trials URNs: largest z $top," \
    "$(count "$verdicts" none) x none, $(count "$verdicts" weak) x weak, $(count "$verdicts" detected) x detected;" \
    "slowest read ${slowest} s of processor time (aligned read alone: ${aligned} s)."
fi
rm -f "$out/sample1080.yuv"
