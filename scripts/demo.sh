#!/usr/bin/env bash
# Demo: builds lumamark and lumamark-detect if needed, generates a synthetic
# 1080p clip, watermarks it, encodes original and marked clip to MP4, reads
# the mark back from the marked MP4, measures the quality of the marked luma
# against the original and draws the difference.
# Everything lands in out/ (not tracked by git).
#
# Settings through the environment: WIDTH, HEIGHT, FRAMES (default
# 1920 x 1080, 72 frames: 3 s at 24 fps), BUILD_DIR (default build),
# WM_ID (default 1A2B).
set -euo pipefail
cd "$(dirname "$0")/.."

width=${WIDTH:-1920}
height=${HEIGHT:-1080}
frames=${FRAMES:-72}
build=${BUILD_DIR:-build}
wm_id=${WM_ID:-1A2B}
fps=24
out=out

. scripts/deps.sh
ensure_build_deps
ensure_video_deps

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", b - a }'; }
mb() { awk -v n="$(stat -c %s "$1")" 'BEGIN { printf "%.1f MB", n / 1e6 }'; }

if [ ! -f "$build/build.ninja" ]; then
  echo "Configuring $build/ (Release)" >&2
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
if [ ! -x "$build/lumamark" ] || [ ! -x "$build/lumamark-detect" ] || [ ! -x "$build/lumamark-sample" ]; then
  echo "Building lumamark, lumamark-detect and lumamark-sample in $build/" >&2
fi
cmake --build "$build" --target lumamark lumamark-detect lumamark-sample >/dev/null
lumamark=$build/lumamark
detect=$build/lumamark-detect
sample=$build/lumamark-sample

mkdir -p "$out"
raw_in=(-f rawvideo -pix_fmt yuv420p -s "${width}x${height}" -r "$fps")

echo "lumamark demo ($("$lumamark" --version))"

t0=$(now)
"$sample" --width "$width" --height "$height" --frames "$frames" --output "$out/sample.yuv"
t1=$(now)
echo "  sample    $out/sample.yuv: ${width}x${height} yuv420p, $frames frames, $(mb "$out/sample.yuv"), generated in $(secs "$t0" "$t1") s"

"$lumamark" --width "$width" --height "$height" --wm-id "$wm_id" --embed-log "$out/embed_log.json" \
  --input-file "$out/sample.yuv" --output-file "$out/marked.yuv"
t2=$(now)
elapsed=$(secs "$t1" "$t2")
rate=$(awk -v f="$frames" -v s="$elapsed" 'BEGIN { if (s > 0) printf "%.1f", f / s; else print "-" }')
echo "  marked    $out/marked.yuv: $(mb "$out/marked.yuv"), --wm-id $wm_id, default settings, $elapsed s ($rate fps, 1 thread)"
echo "  log       $out/embed_log.json: every embedded superpixel of the last frame and its statistics"

for name in sample marked; do
  ffmpeg -nostdin -v error -y "${raw_in[@]}" -i "$out/$name.yuv" \
    -c:v libx264 -preset fast -crf 18 -pix_fmt yuv420p -movflags +faststart "$out/$name.mp4"
done
echo "  mp4       $out/sample.mp4 ($(mb "$out/sample.mp4")) and $out/marked.mp4 ($(mb "$out/marked.mp4")), libx264 crf 18"

# The mark read back from the marked MP4, decoded to raw frames: the
# detector needs only the settings, not the original or the ID.
found=$(ffmpeg -nostdin -v error -i "$out/marked.mp4" -frames:v 10 -f rawvideo -pix_fmt yuv420p - |
  "$detect" --width "$width" --height "$height") || true
echo "  detect    $out/marked.mp4: ${found:-no answer}"

# Quality of the marked luma against the original, on the raw clips, from
# ffmpeg's own psnr and ssim filters (averages over all frames).
report=$(ffmpeg -nostdin -hide_banner -y "${raw_in[@]}" -i "$out/marked.yuv" "${raw_in[@]}" -i "$out/sample.yuv" \
  -lavfi "[0:v]split[m0][m1];[1:v]split[o0][o1];[m0][o0]psnr;[m1][o1]ssim" -f null - 2>&1)
psnr=$(sed -n 's/.*PSNR y:\([^ ]*\).*/\1/p' <<<"$report" | awk '{ printf "%.2f", $1 }')
ssim=$(sed -n 's/.*SSIM Y:\([^ ]*\) .*/\1/p' <<<"$report" | awk '{ printf "%.4f", $1 }')
echo "  quality   luma PSNR $psnr dB, luma SSIM $ssim; chroma is untouched"

# |marked - original| of frame 0's luma, times 64: a change of 1 is dark
# grey, 4 and more is white. The zoom puts a piece of the original beside its
# difference, 3x enlarged, so that the superpixel grid shows.
diff_chain="[0:v][1:v]blend=all_mode=difference,extractplanes=y,lut=c0=min(val*64\,255)"
zx=$((width * 13 / 100)); zy=$((height * 12 / 100)); zw=$((width / 6)); zh=$((height / 6))
ffmpeg -nostdin -v error -y "${raw_in[@]}" -i "$out/marked.yuv" "${raw_in[@]}" -i "$out/sample.yuv" \
  -lavfi "$diff_chain" -frames:v 1 "$out/diff.png"
ffmpeg -nostdin -v error -y "${raw_in[@]}" -i "$out/marked.yuv" "${raw_in[@]}" -i "$out/sample.yuv" \
  -lavfi "$diff_chain,crop=$zw:$zh:$zx:$zy,scale=iw*3:ih*3:flags=neighbor[d];[1:v]extractplanes=y,crop=$zw:$zh:$zx:$zy,scale=iw*3:ih*3:flags=neighbor[o];[o][d]hstack" \
  -frames:v 1 "$out/diff_zoom.png"
echo "  picture   $out/diff.png: |marked - original| x 64, luma of frame 0"
echo "            $out/diff_zoom.png: a piece of frame 0 and its difference side by side, 3x"
