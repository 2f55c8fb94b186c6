#include "cli/y4m.h"

#include <gtest/gtest.h>

#include <string>

namespace lumamark {
namespace {

// Header lines as ffmpeg and other writers produce them, and broken ones.
TEST(Y4m, HeaderGivesSizeAndLayoutOrAReason) {
  struct Row {
    const char* line;
    int32_t w, h;
    const char* pix_fmt;  // expected layout, or null when refused
    const char* reason;   // part of the refusal
  };
  const Row rows[] = {
      {"YUV4MPEG2 W320 H240 F25:1 Ip A1:1 C420jpeg XYSCSS=420JPEG\n", 320, 240, "yuv420p", ""},
      {"YUV4MPEG2 W321 H241 F30000:1001 It A0:0 C420mpeg2 XYSCSS=420MPEG2\n", 321, 241, "yuv420p", ""},
      {"YUV4MPEG2 C420paldv W16 H8\n", 16, 8, "yuv420p", ""},
      {"YUV4MPEG2 W16 H8 C420\n", 16, 8, "yuv420p", ""},
      {"YUV4MPEG2 W16 H8", 16, 8, "yuv420p", ""},  // no C: 4:2:0
      {"YUV4MPEG2 W16 H8 C422 XYSCSS=422\n", 16, 8, "yuv422p", ""},
      {"YUV4MPEG2 W16 H8 C444\n", 16, 8, "yuv444p", ""},
      {"YUV4MPEG2 W16  H8 C444\n", 16, 8, "yuv444p", ""},  // an empty parameter is skipped
      {"YUV4MPEG2 W16 H8 C420p10 XYSCSS=420P10\n", 16, 8, nullptr, "C420p10 is not supported"},
      {"YUV4MPEG2 W16 H8 C444p12\n", 16, 8, nullptr, "C444p12 is not supported"},
      {"YUV4MPEG2 W16 H8 Cmono\n", 16, 8, nullptr, "Cmono is not supported"},
      {"YUV4MPEG2 W16 H8 C444alpha\n", 16, 8, nullptr, "C444alpha is not supported"},
      {"YUV4MPEG2 W16 H8 C411\n", 16, 8, nullptr, "C411 is not supported"},
      {"YUV4MPEG2 H8 C420\n", 0, 0, nullptr, "no valid frame size"},
      {"YUV4MPEG2 W0 H8\n", 0, 0, nullptr, "no valid frame size"},
      {"YUV4MPEG2 W-4 H8\n", 0, 0, nullptr, "no valid frame size"},
      {"YUV4MPEG2 W16x H8\n", 0, 0, nullptr, "no valid frame size"},
      {"YUV4MPEG2 W1234567890 H8\n", 0, 0, nullptr, "no valid frame size"},
      {"YUV4MPEG2 W65536 H32768 C444\n", 65536, 32768, nullptr, "is too large"},
      {"YUV4MPEG W16 H8\n", 0, 0, nullptr, "not a y4m stream"},
  };
  for (const Row& row : rows) {
    Y4mHeader h;
    const std::string reason = y4m_parse_header(row.line, &h);
    EXPECT_EQ(h.line, row.line);
    if (row.pix_fmt != nullptr) {
      EXPECT_EQ(reason, "") << row.line;
      EXPECT_EQ(h.pix_fmt, row.pix_fmt) << row.line;
    } else {
      EXPECT_NE(reason.find(row.reason), std::string::npos) << row.line << " -> " << reason;
      EXPECT_EQ(reason.rfind("Error: ", 0), 0u) << reason;
    }
    if (row.w != 0) {
      EXPECT_EQ(h.width, row.w) << row.line;
      EXPECT_EQ(h.height, row.h) << row.line;
    }
  }
}

// Chroma planes of odd sizes round up, as y4m writers lay them out.
TEST(Y4m, FrameBytesRoundChromaUp) {
  struct Row {
    int32_t w, h;
    const char* pix_fmt;
    int64_t bytes;
  };
  const Row rows[] = {
      {320, 240, "yuv420p", 115200}, {321, 241, "yuv420p", 321 * 241 + 2 * 161 * 121},
      {5, 5, "yuv420p", 25 + 2 * 9}, {321, 241, "yuv422p", 321 * 241 + 2 * 161 * 241},
      {321, 241, "yuv444p", 3 * 321 * 241},
  };
  for (const Row& row : rows) {
    Y4mHeader h;
    h.width = row.w;
    h.height = row.h;
    h.pix_fmt = row.pix_fmt;
    EXPECT_EQ(y4m_frame_bytes(h), row.bytes) << row.w << "x" << row.h << " " << row.pix_fmt;
  }
}

TEST(Y4m, FrameLines) {
  for (const char* ok : {"FRAME\n", "FRAME Ixyz\n", "FRAME XA=1 Ib\n"}) EXPECT_TRUE(y4m_is_frame_line(ok)) << ok;
  for (const char* bad : {"FRAME", "FRAMES\n", "frame\n", "\n", "", "FRAM\n", "XFRAME\n"}) {
    EXPECT_FALSE(y4m_is_frame_line(bad)) << bad;
  }
}

TEST(Y4m, ExplicitOptionsMustAgreeWithTheHeader) {
  Y4mHeader h;
  ASSERT_EQ(y4m_parse_header("YUV4MPEG2 W320 H240 C422\n", &h), "");
  EXPECT_EQ(y4m_option_conflict(h, false, 1920, false, 1080, false, "yuv420p"), "") << "defaults give way";
  EXPECT_EQ(y4m_option_conflict(h, true, 320, true, 240, true, "yuv422p"), "");
  EXPECT_EQ(y4m_option_conflict(h, true, 640, false, 0, false, ""),
            "Error: --width 640 disagrees with the y4m header (W320)");
  EXPECT_EQ(y4m_option_conflict(h, false, 0, true, 480, false, ""),
            "Error: --height 480 disagrees with the y4m header (H240)");
  EXPECT_EQ(y4m_option_conflict(h, false, 0, false, 0, true, "yuv420p"),
            "Error: --pix-fmt yuv420p disagrees with the y4m header (yuv422p)");
}

}  // namespace
}  // namespace lumamark
