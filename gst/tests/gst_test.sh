#!/usr/bin/env bash
# End-to-end tests of the GStreamer elements, one case per CTest test:
#   bash gst_test.sh CASE
# Environment: GST_PLUGIN_PATH (the directory holding the built plugin),
# LUMAMARK_BIN, LUMAMARK_DETECT_BIN, RUN_PIPELINE (gst/tests/run_pipeline.c). A private registry file keeps the
# user's registry untouched. Exit 77 = skipped (a tool is missing).
set -euo pipefail

case_name=${1:?usage: gst_test.sh CASE}
: "${GST_PLUGIN_PATH:?}" "${LUMAMARK_BIN:?}" "${LUMAMARK_DETECT_BIN:?}"

skip() { echo "SKIP: $*"; exit 77; }
fail() { echo "FAIL: $*" >&2; exit 1; }
for tool in gst-launch-1.0 gst-inspect-1.0; do
  command -v "$tool" >/dev/null || skip "$tool is not installed"
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export GST_REGISTRY="$work/registry.bin"
cd "$work"

# gst-launch-1.0 with standard input closed; its output goes to $1.log.
launch() {
  local log=$1
  shift
  gst-launch-1.0 "$@" </dev/null >"$log.log" 2>&1
}

# Raw frames of a videotestsrc pattern into a file.
source_frames() {  # out frames pattern caps
  launch src -q videotestsrc num-buffers="$2" pattern="$3" ! "$4" ! filesink location="$1" ||
    fail "videotestsrc failed: $(cat src.log)"
}

# Marks videotestsrc frames with the element and the same frames with the
# command line; the two outputs must be equal byte for byte.
same_as_cli() {  # pattern width height format pix-fmt "element props" "cli options"
  local pattern=$1 w=$2 h=$3 format=$4 pix=$5 props=$6 opts=$7
  local caps="video/x-raw,format=$format,width=$w,height=$h"
  source_frames raw.yuv 5 "$pattern" "$caps"
  # shellcheck disable=SC2086
  launch mark -q videotestsrc num-buffers=5 pattern="$pattern" ! "$caps" ! lumamark $props ! \
    filesink location=gst.yuv || fail "pipeline failed ($props): $(cat mark.log)"
  # shellcheck disable=SC2086
  "$LUMAMARK_BIN" --width "$w" --height "$h" --pix-fmt "$pix" $opts --input-file raw.yuv --output-file cli.yuv
  cmp -s raw.yuv cli.yuv && fail "the command line left $format ${w}x$h frames unmarked ($opts)"
  cmp gst.yuv cli.yuv || fail "element output differs from the command line's: $format ${w}x$h $props"
  echo "same as the command line: $format ${w}x$h $props"
}

# The luma planes of raw frames laid out with a row stride (GStreamer pads
# rows to 4 bytes), packed, each followed by zeros up to cli-frame-size if
# given; or, with "chroma", the I420 chroma planes without their padding.
frame_parts() {  # luma|chroma file frame-size stride width height [cli-frame-size]
  /usr/bin/python3 -c '
import sys
part, path = sys.argv[1:3]
size, stride, w, h = map(int, sys.argv[3:7])
cli = int(sys.argv[7]) if len(sys.argv) > 7 else 0
data = open(path, "rb").read()
out = sys.stdout.buffer
for f in range(len(data) // size):
    frame = data[f * size:(f + 1) * size]
    if part == "chroma":
        cw, ch = (w + 1) // 2, (h + 1) // 2
        cstride = (cw + 3) // 4 * 4
        for y in range(2 * ch):
            out.write(frame[stride * h + y * cstride:stride * h + y * cstride + cw])
        continue
    luma = b"".join(frame[y * stride:y * stride + w] for y in range(h))
    out.write(luma + bytes(max(cli - len(luma), 0)))
' "$@"
}

case "$case_name" in
  inspect)
    gst-inspect-1.0 lumamark >embed.txt 2>&1 || fail "gst-inspect-1.0 lumamark: $(cat embed.txt)"
    gst-inspect-1.0 lumamarkdetect >detect.txt 2>&1 || fail "gst-inspect-1.0 lumamarkdetect: $(cat detect.txt)"
    for prop in wm-id user-urn strength fec bit-profile sp-width spb-width pm-mode seed sp-density p-density \
      deep-fake threads payload-file; do
      grep -q "^  $prop  *:" embed.txt || fail "lumamark lacks property $prop"
    done
    for prop in user-urn strength fec bit-profile sp-width spb-width seed sp-density threads width height search \
      interval; do
      grep -q "^  $prop  *:" detect.txt || fail "lumamarkdetect lacks property $prop"
    done
    # The defaults are the command line's.
    grep -A2 "^  bit-profile" embed.txt | grep -q "Default: 13" || fail "bit-profile default"
    grep -A2 "^  seed" embed.txt | grep -q "Default: -1" || fail "seed default"
    grep -A2 "^  user-urn" embed.txt | grep -q 'Default: "00000000000000000000000000000000"' || fail "user-urn default"
    grep -A2 "^  search" detect.txt | grep -q 'Default: "auto"' || fail "search default"
    grep -q "Y444" embed.txt || fail "lumamark caps lack Y444"
    echo "both elements listed with their properties"
    ;;

  same-as-cli)
    # Defaults; a 4:2:2 run with most settings changed and two threads; a
    # 4:4:4 run in parity mode from a saved payload file.
    same_as_cli smpte 640 360 I420 yuv420p "wm-id=1a2b" "--wm-id 1a2b"
    urn=0123456789abcdef0123456789abcdef
    same_as_cli ball 320 240 Y42B yuv422p \
      "wm-id=5c user-urn=$urn strength=5 sp-width=9 spb-width=2 pm-mode=2 seed=7 sp-density=80 p-density=60 threads=2" \
      "--wm-id 5c --user-urn $urn --strength 5 --sp-width 9 --spb-width 2 --pm-mode 2 --seed 7 --sp-density 80 --p-density 60"
    "$LUMAMARK_BIN" --width 320 --height 240 --fec 0 --bit-profile 8 --wm-id a7 --payload-file "$work/p.lmp"
    same_as_cli zone-plate 320 240 Y444 yuv444p "payload-file=$work/p.lmp fec=0 pm-mode=1" \
      "--payload-file $work/p.lmp --fec 0 --pm-mode 1"
    same_as_cli pinwheel 320 240 I420 yuv420p "wm-id=3 deep-fake=true" "--wm-id 3 --deep-fake"
    ;;

  any-size)
    # 330x250 I420: GStreamer pads the luma rows to 332 bytes, and neither
    # side is a multiple of the superpixel. The luma must equal the command
    # line's; the chroma must be the source's.
    w=330 h=250 stride=332 size=125000  # 332*250 + 2 * 168*125
    caps="video/x-raw,format=I420,width=$w,height=$h"
    source_frames raw.yuv 4 snow "$caps"
    [ "$(stat -c %s raw.yuv)" -eq $((4 * size)) ] || fail "unexpected frame layout"
    launch mark -q videotestsrc num-buffers=4 pattern=snow ! "$caps" ! lumamark wm-id=77 ! filesink location=gst.yuv ||
      fail "pipeline failed: $(cat mark.log)"
    frame_parts luma raw.yuv $size $stride $w $h $((w * h * 3 / 2)) >cli_in.yuv
    "$LUMAMARK_BIN" --width $w --height $h --wm-id 77 --input-file cli_in.yuv --output-file cli_out.yuv
    cmp -s cli_in.yuv cli_out.yuv && fail "nothing was marked"
    cmp <(frame_parts luma gst.yuv $size $stride $w $h) <(frame_parts luma cli_out.yuv $((w * h * 3 / 2)) $w $w $h) ||
      fail "padded luma differs from the command line's"
    cmp <(frame_parts chroma gst.yuv $size $stride $w $h) <(frame_parts chroma raw.yuv $size $stride $w $h) ||
      fail "chroma changed"
    echo "330x250 I420 with padded rows: luma as the command line's, chroma untouched"
    ;;

  caps-change)
    # Two sizes in one stream: the embedder is reopened for the second.
    launch mark -q concat name=c ! lumamark wm-id=9 ! filesink location=gst.yuv \
      videotestsrc num-buffers=2 pattern=smpte ! video/x-raw,format=I420,width=320,height=240 ! c. \
      videotestsrc num-buffers=2 pattern=ball ! video/x-raw,format=I420,width=640,height=360 ! c. ||
      fail "pipeline failed: $(cat mark.log)"
    source_frames a.yuv 2 smpte video/x-raw,format=I420,width=320,height=240
    source_frames b.yuv 2 ball video/x-raw,format=I420,width=640,height=360
    "$LUMAMARK_BIN" --width 320 --height 240 --wm-id 9 --input-file a.yuv --output-file a_cli.yuv
    "$LUMAMARK_BIN" --width 640 --height 360 --wm-id 9 --input-file b.yuv --output-file b_cli.yuv
    cmp gst.yuv <(cat a_cli.yuv b_cli.yuv) || fail "output after the caps change differs from the command line's"
    echo "320x240 then 640x360 in one stream, both marked as by the command line"
    ;;

  encode-detect)
    gst-inspect-1.0 x264enc >/dev/null 2>&1 || skip "x264enc is not installed (gstreamer1.0-plugins-ugly)"
    gst-inspect-1.0 mp4mux >/dev/null 2>&1 || skip "mp4mux is not installed (gstreamer1.0-plugins-good)"
    command -v ffmpeg >/dev/null || skip "ffmpeg is not installed"
    urn=00000000111111112222222233333333
    caps="video/x-raw,format=I420,width=640,height=360,framerate=25/1"
    launch enc -q videotestsrc num-buffers=30 pattern=ball ! "$caps" ! lumamark wm-id=1a2b user-urn=$urn ! \
      x264enc ! mp4mux ! filesink location=marked.mp4 || fail "encoding pipeline failed: $(cat enc.log)"
    ffmpeg -v error -i marked.mp4 -f rawvideo -pix_fmt yuv420p decoded.yuv
    [ "$(stat -c %s decoded.yuv)" -eq $((30 * 640 * 360 * 3 / 2)) ] || fail "decoded frame count"
    result=$("$LUMAMARK_DETECT_BIN" --width 640 --height 360 --user-urn $urn --input-file decoded.yuv --json) ||
      fail "lumamark-detect: $result"
    echo "$result"
    case "$result" in *'"wm_id": "1a2b"'*'"verdict": "detected"'*) ;; *) fail "wrong detection: $result" ;; esac

    # The element reads the same decoded frames: a message every 12 frames
    # and one at end of stream, all naming the ID.
    launch det -m filesrc location=decoded.yuv ! rawvideoparse width=640 height=360 format=i420 ! \
      lumamarkdetect user-urn=$urn interval=12 ! fakesink || fail "detection pipeline failed: $(cat det.log)"
    grep "lumamark-detection" det.log || fail "no lumamark-detection message: $(cat det.log)"
    [ "$(grep -c 'lumamark-detection, wm-id=(string)1a2b, z=(double)[0-9.e+]*, verdict=(string)detected' det.log)" -eq 3 ] ||
      fail "expected three detections of 1a2b"
    for n in 12 24 30; do grep -q "frames=(int)$n," det.log || fail "no message after $n frames"; done
    # The wrong URN reads no mark.
    launch none -m filesrc location=decoded.yuv ! rawvideoparse width=640 height=360 format=i420 ! \
      lumamarkdetect interval=0 ! fakesink || fail "detection pipeline failed: $(cat none.log)"
    grep -q 'verdict=(string)none, frames=(int)30,' none.log || fail "a mark was read with the wrong URN: $(grep lumamark-detection none.log)"
    # A 480x270 rung of the copy is read against the marked 640x360 through
    # the geometric search, as lumamark-detect reads it.
    ffmpeg -v error -i marked.mp4 -vf scale=480:270 -f rawvideo -pix_fmt yuv420p rung.yuv
    result=$("$LUMAMARK_DETECT_BIN" --width 640 --height 360 --input-width 480 --input-height 270 --user-urn $urn \
      --input-file rung.yuv --json) || fail "lumamark-detect on the rung: $result"
    case "$result" in *'"wm_id": "1a2b"'*'"verdict": "detected"'*'"scale_x": 1.3333'*) ;; *) fail "rung: $result" ;; esac
    launch rung -m filesrc location=rung.yuv ! rawvideoparse width=480 height=270 format=i420 ! \
      lumamarkdetect user-urn=$urn width=640 height=360 interval=0 ! fakesink || fail "rung pipeline failed: $(cat rung.log)"
    grep -q 'wm-id=(string)1a2b, z=(double)[0-9.e+]*, verdict=(string)detected, frames=(int)10, scale-x=(double)1.333' rung.log ||
      fail "the element did not read the rung: $(grep lumamark-detection rung.log)"
    ;;

  bad-property)
    # Each refusal: status 1, the property or the reason on the bus, no frame
    # written. The pipelines run under run_pipeline, which stops them on the
    # first error as an application does.
    : "${RUN_PIPELINE:?}"
    check_refused() {  # expected-message element-and-props
      local expected=$1 element=$2 status=0
      rm -f out.yuv
      "$RUN_PIPELINE" "videotestsrc num-buffers=3 ! ${caps:-video/x-raw,format=I420,width=320,height=240} ! $element ! \
        filesink location=out.yuv" </dev/null >bad.log 2>&1 || status=$?
      [ "$status" -eq 1 ] || fail "'$element': status $status: $(cat bad.log)"
      grep -qF "ERROR: ${element%% *}0: $expected" bad.log || fail "'$element': no clear error: $(cat bad.log)"
      [ ! -s out.yuv ] || fail "'$element' wrote frames"
      echo "refused: $element -> $(cat bad.log)"
    }
    check_refused "Invalid value for property 'strength': \"0\"" "lumamark strength=0"
    check_refused "Invalid value for property 'user-urn': \"xyz\"" "lumamark user-urn=xyz"
    check_refused "Invalid value for property 'wm-id': \"3fff\"" "lumamark wm-id=3fff"
    check_refused "Cannot use property 'payload-file'" "lumamark payload-file=$work/missing.lmp"
    "$LUMAMARK_BIN" --width 64 --height 48 --wm-id 1 --payload-file "$work/small.lmp"
    check_refused "Payload file $work/small.lmp was made for 64x48 frames; the stream is 320x240" \
      "lumamark payload-file=$work/small.lmp"
    check_refused "Cannot mark 320x240 yuv420p video" "lumamark sp-width=8 spb-width=4"
    check_refused "Invalid value for property 'search': \"slow\"" "lumamarkdetect search=slow"
    caps=video/x-raw,format=Y444,width=70000,height=8 check_refused "The stream's width 70000 is refused" lumamark
    check_refused "Cannot read 320x240 yuv420p video" "lumamarkdetect bit-profile=2000"
    ;;

  install)
    # cmake --install puts the plugin in lib/gstreamer-1.0 under the prefix,
    # where GStreamer loads it, with only the plugin entry points exported.
    : "${CMAKE_COMMAND:?}" "${BUILD_DIR:?}"
    "$CMAKE_COMMAND" --install "$BUILD_DIR" --prefix "$work/prefix" >install.log || fail "install: $(cat install.log)"
    plugin=$work/prefix/lib/gstreamer-1.0/libgstlumamark.so
    [ -f "$plugin" ] || fail "the plugin is not in lib/gstreamer-1.0: $(cat install.log)"
    others=$(nm -D --defined-only "$plugin" | awk '{print $3}' | grep -v '^gst_plugin_lumamark_' || true)
    [ -z "$others" ] || fail "symbols exported besides the plugin's: $others"
    GST_PLUGIN_PATH=$work/prefix/lib/gstreamer-1.0 gst-inspect-1.0 lumamark >inspect.txt 2>&1 ||
      fail "the installed plugin does not load: $(cat inspect.txt)"
    grep -q "Filename  *$plugin" inspect.txt || fail "another plugin was loaded: $(grep Filename inspect.txt)"
    echo "installed as lib/gstreamer-1.0/libgstlumamark.so"
    ;;

  *)
    fail "unknown case $case_name"
    ;;
esac
