// Payload file: layout, round trip and every refusal.
#include "cli/payload_file.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "e2e/e2e_util.h"

namespace lumamark {
namespace {

using test::header;
using test::TempDir;
using test::write_file;

struct ReadOutcome {
  bool ok;
  PayloadData data;
  std::string err;
};

ReadOutcome read(const std::string& path, int32_t fec, int32_t spb = 0) {
  ReadOutcome r;
  testing::internal::CaptureStderr();
  r.ok = read_payload_file(path, fec, spb, &r.data);
  r.err = testing::internal::GetCapturedStderr();
  return r;
}

// In FEC 0 the count field holds the coded length bits + (bits + 7) / 8,
// which converts back to the bit count.
TEST(PayloadFile, ParityCountConvertsBackToBits) {
  TempDir dir;
  const std::string path = dir.file("p.bin");
  for (int32_t bits : {1, 7, 8, 9, 13, 16, 17, 63, 64, 65, 255, 1000, 2047, 2048}) {
    const int32_t count = bits + (bits + 7) / 8;
    write_file(path, header(8, 8, 8, 0, count) + "m" + std::string(16 * count, 'i'));
    const ReadOutcome r = read(path, 0, 2);
    ASSERT_TRUE(r.ok) << r.err;
    EXPECT_EQ(r.data.bits, bits);
    EXPECT_EQ(r.data.encoded_bit_count, count);
  }
}

TEST(PayloadFile, RefusalsAndAcceptedOddities) {
  TempDir dir;
  const std::string path = dir.file("p.bin");
  const std::string bad_header = "Failed to read payload header from: " + path + "\n";
  const std::string bad_map = "Failed to read payload map from: " + path + "\n";
  const std::string bad_indexes = "Failed to read payload indexes from: " + path + "\n";
  const std::string tail(4096, '\x01');
  const int32_t kMax = INT32_MAX;
  struct Case {
    std::string bytes;
    int32_t fec, spb;
    std::string err;  // empty: read
  };
  const Case cases[] = {
      {std::string(19, '\0'), 2, 0, bad_header},
      {header(64, 48, 8, 8, 13).substr(0, 16), 2, 0, bad_header},  // count missing after the skip
      {header(64, 48, 0, 8, 13) + tail, 2, 0, bad_header},
      {header(64, 48, INT32_MIN, 8, 13) + tail, 2, 0, bad_header},
      {header(-64, 48, 8, 8, 13) + tail, 2, 0, bad_header},
      {header(64, -48, 8, 8, 13) + tail, 2, 0, bad_header},
      // Map sizes beyond 32 bits.
      {header(kMax, 65536, 5, 5, 13) + tail, 2, 0, bad_header},
      {header(2000000, 2000000, 40, 40, 13) + tail, 2, 0, bad_header},
      // The side must exceed twice the border, automatic (max(S / 8, 1)) or
      // given, compared without wrapping.
      {header(64, 48, 2, 2, 13) + tail, 2, 0, bad_header},
      {header(64, 48, 6, 6, 13) + tail, 2, 3, bad_header},
      {header(64, 48, 7, 7, 13) + tail, 2, 1 << 30, bad_header},
      {header(64, 48, 7, 7, 13) + tail, 2, kMax, bad_header},
      // FEC 0: a negative count, or an index table beyond 32 bits.
      {header(64, 48, 8, 8, -1) + tail, 0, 0, bad_header},
      {header(64, 48, 8, 8, 1 << 27) + tail, 0, 0, bad_header},
      // A frame narrower than one superpixel gives an empty map: a failed read.
      {header(6, 48, 7, 7, 13) + std::string(100, 'm'), 2, 0, bad_map},
      {header(14, 7, 7, 7, 13) + "m", 2, 0, bad_map},
      // Exactly header and map: no index table for FEC 0; an empty table also
      // fails, and a huge claimed one fails quickly on a short file.
      {header(14, 7, 7, 7, 15) + "mm", 0, 0, bad_indexes},
      {header(14, 7, 7, 7, 0) + "mm" + std::string(64, 'i'), 0, 0, bad_indexes},
      {header(14, 7, 7, 7, (1 << 27) - 1) + "mm" + std::string(64, 'i'), 0, 0, bad_indexes},
      {header(14, 7, 7, 7, 15) + "mm", 2, 0, ""},
      // Values are used as read: sides outside 5..64, another SP height, a
      // negative count in FEC 2, trailing bytes.
      {header(130, 65, 65, 65, 13) + "xy", 2, 32, ""},
      {header(12, 9, 3, 3, 4) + std::string(12, '\x04'), 2, 0, ""},
      {header(64, 48, 7, 7, 13) + std::string(54, '\x04'), 2, 3, ""},
      {header(9, 3, 3, 99, -5) + "abcdefgh", 2, 0, ""},
  };
  for (const Case& c : cases) {
    write_file(path, c.bytes);
    const ReadOutcome r = read(path, c.fec, c.spb);
    EXPECT_EQ(r.ok, c.err.empty()) << testing::PrintToString(c.bytes.substr(0, 20)) << " spb " << c.spb;
    EXPECT_EQ(r.err, c.err) << testing::PrintToString(c.bytes.substr(0, 20)) << " spb " << c.spb;
  }
  const ReadOutcome r = read(path, 2);  // the last case
  EXPECT_EQ(std::vector<int32_t>({r.data.sp_size, r.data.bits, r.data.encoded_bit_count}), std::vector<int32_t>({3, -5, 3}));
  EXPECT_EQ(r.data.map, std::vector<uint8_t>({'a', 'b', 'c'}));
  EXPECT_TRUE(r.data.indexes.empty());
}

}  // namespace
}  // namespace lumamark
