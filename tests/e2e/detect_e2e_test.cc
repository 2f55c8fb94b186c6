// lumamark-detect end to end: sample clips marked by lumamark are read back
// through the detector's command line, from a file and from standard input,
// with every setting that shapes the mark passed through.
#include <gtest/gtest.h>

#include <string>

#include "e2e/e2e_util.h"

#if defined(LUMAMARK_DETECT_BIN) && defined(LUMAMARK_SAMPLE_BIN)

namespace lumamark::test {
namespace {

std::string mark(const std::string& raw, const Args& args) {
  const RunResult r = run_tool(cat({"--width", "320", "--height", "240"}, args), raw);
  EXPECT_TRUE(r.exited(0)) << r.err;
  return r.out;
}

// The 320 x 240 yuv420p frames cropped to w x h from (x0, y0), as a y4m
// stream (chroma grey: the detector reads luma only).
std::string crop_to_y4m(const std::string& raw, int32_t x0, int32_t y0, int32_t w, int32_t h) {
  std::string out = "YUV4MPEG2 W" + std::to_string(w) + " H" + std::to_string(h) + " F25:1 C420jpeg\n";
  const size_t frame = 320 * 240 * 3 / 2, chroma = size_t((w + 1) / 2) * ((h + 1) / 2) * 2;
  for (size_t f = 0; f + frame <= raw.size(); f += frame) {
    out += "FRAME\n";
    for (int32_t y = 0; y < h; ++y) out += raw.substr(f + size_t(y + y0) * 320 + x0, size_t(w));
    out += std::string(chroma, '\x80');
  }
  return out;
}

TEST(DetectE2e, OutputsAndExitStatuses) {
  TempDir dir;
  const Args geo = {"--width", "320", "--height", "240"};
  const Args urn = {"--user-urn", "00000000111111112222222233333333"};
  const std::string raw = sample_clip(320, 240, 3), raw444 = sample_clip(320, 240, 2, "yuv444p");
  const std::string marked = mark(raw, cat({"--wm-id", "1A2B"}, urn));
  write_file(dir.file("marked.yuv"), marked);
  // Parity mode with its own geometry and strength; a lower density whose
  // seed is either searched or given (41 acts as 9).
  const Args parity = {"--pix-fmt", "yuv444p", "--sp-width", "9", "--spb-width", "2", "--fec", "0",
                       "--bit-profile", "4", "--strength", "8"};
  const Args sparse = {"--sp-density", "60", "--bit-profile", "8"};
  const std::string marked_parity = mark(raw444, cat(parity, {"--wm-id", "C"}));
  const std::string marked_sparse = mark(raw.substr(0, 2 * 320 * 240 * 3 / 2), cat(sparse, {"--wm-id", "5", "--seed", "9"}));
  struct Case {
    Args args;
    std::string in;
    int status;
    std::string out;   // standard output starts with this
    std::string more;  // ... and contains this
    std::string err;
  };
  const Case cases[] = {
      {cat(geo, cat({"--input-file", dir.file("marked.yuv"), "--json"}, urn)), "", 0, "{\"wm_id\": \"1a2b\", \"z\": ",
       ", \"frames\": 3, \"verdict\": \"detected\", \"transform\": {\"scale_x\": 1.0000, \"scale_y\": 1.0000, "
       "\"offset_x\": 0.00, \"offset_y\": 0.00, \"flip\": false}}\n", ""},
      // y4m: the header gives the copy's size, --width/--height the marked one.
      {cat(geo, cat({"--json"}, urn)), crop_to_y4m(marked, 9, 5, 311, 235), 0, "{\"wm_id\": \"1a2b\"",
       "\"verdict\": \"detected\", \"transform\": {\"scale_x\": 1.0000, \"scale_y\": 1.0000, \"offset_x\": ", ""},
      {cat(geo, cat({"--frames", "1"}, urn)), marked, 0, "Watermark detected: ID 1a2b (z ", " from 1 frame).\n", ""},
      {cat(geo, cat({"--json", "--wm-id", "1a2b"}, urn)), marked, 0, "{", "\"expected\": \"1a2b\", \"match\": true, \"ber\": 0.", ""},
      // A detected ID that is not the expected one has a status of its own.
      {cat(geo, cat({"--wm-id", "1a2c"}, urn)), marked, 3, "Watermark detected: ID 1a2b", "Expected ID 1a2c: does not match", ""},
      // The wrong URN, or no mark at all: status 2.
      {cat(geo, {"--json"}), marked, 2, "{", "\"verdict\": \"none\", \"transform\": ", ""},
      {cat(geo, urn), raw, 2, "No watermark detected (z ", "", ""},
      {cat(geo, parity), marked_parity, 0, "Watermark detected: ID c ", "", ""},
      {cat(geo, sparse), marked_sparse, 0, "Watermark detected: ID 05 ", "", ""},
      {cat(geo, cat(sparse, {"--seed", "41"})), marked_sparse, 0, "Watermark detected: ID 05 ", "", ""},
      {{"--version"}, "", 0, "2.1.3\n", "", ""},
      {{"-h"}, "", 0, "Usage: ", "--frames <int>", ""},
      {{}, "", 1, "Usage: ", "", ""},
      {{"--bogus"}, "", 1, "", "", "Error: Unknown option: --bogus\n"},
      {cat(geo, {"--width", "12x"}), "", 1, "", "", "Error: --width expects an integer, got '12x'\n"},
      {cat(geo, {"--search", "deep"}), "", 1, "", "", "Error: --search expects none, fast, full or auto, got 'deep'\n"},
      {cat(geo, {"--pix-fmt", "rgb24"}), raw, 1, "", "",
       "Error: Unsupported pixel format: rgb24 (use yuv420p, yuv422p or yuv444p)\n"},
      {cat(geo, {"--wm-id", "3fff"}), raw, 1, "", "", "Error: --wm-id 3fff is not a hexadecimal ID of at most 13 bits\n"},
      {cat(geo, {"--input-file", dir.file("missing.yuv")}), "", 1, "", "",
       "Error: Cannot open input file: " + dir.file("missing.yuv") + "\n"},
      {cat(geo, {"--fec", "1"}), "", 1, "", "", "Error: Unsupported FEC mode (1), use 0 or 2\n"},
      {{"--width", "14", "--height", "14", "--bit-profile", "5"}, "", 1, "", "",
       "Error: --bit-profile exceeds the 4 superpixels of the frame\n"},
      // Four coded bits fit the four superpixels once; the input lacks a frame.
      {{"--width", "14", "--height", "14", "--fec", "0", "--bit-profile", "3"}, raw.substr(0, 293), 1, "", "",
       "Error: The input holds no complete frame of 14x14 yuv420p\n"},
  };
  for (const Case& c : cases) {
    const RunResult r = run_program(LUMAMARK_DETECT_BIN, c.args, InputPlan{c.in});
    const std::string what = testing::PrintToString(c.args);
    EXPECT_TRUE(r.exited(c.status)) << what << ": " << r.status << " " << r.err;
    EXPECT_EQ(r.out.rfind(c.out, 0), 0u) << what << ": " << r.out;
    EXPECT_NE(r.out.find(c.more), std::string::npos) << what << ": " << r.out;
    EXPECT_EQ(r.err, c.err) << what;
    EXPECT_TRUE(!c.out.empty() || r.out.empty()) << what << ": " << r.out;
  }
}

}  // namespace
}  // namespace lumamark::test

#endif
