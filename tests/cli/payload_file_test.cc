// Payload file: layout, round trip and every refusal.
#include "cli/payload_file.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "e2e/e2e_util.h"

namespace lumamark {
namespace {

using test::read_file;
using test::TempDir;
using test::write_file;

std::string le32(int32_t v) {
  const uint32_t u = static_cast<uint32_t>(v);
  return {static_cast<char>(u), static_cast<char>(u >> 8), static_cast<char>(u >> 16),
          static_cast<char>(u >> 24)};
}

std::string header(int32_t w, int32_t h, int32_t s, int32_t s2, int32_t count) {
  return le32(w) + le32(h) + le32(s) + le32(s2) + le32(count);
}

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

PayloadData sample(int32_t w, int32_t h, int32_t s, int32_t bits, int32_t fec) {
  PayloadData d;
  d.width = w;
  d.height = h;
  d.sp_size = s;
  d.bits = bits;
  const int32_t n_sp = (w / s) * (h / s);
  d.encoded_bit_count = fec == 0 ? bits + (bits + 7) / 8 : n_sp;
  for (int32_t i = 0; i < n_sp; ++i) d.map.push_back(static_cast<uint8_t>(i * 7 + 1));
  if (fec == 0) {
    for (int32_t i = 0; i < 16 * d.encoded_bit_count; ++i) {
      d.indexes.push_back(static_cast<uint8_t>(i * 13));
    }
  }
  return d;
}

TEST(PayloadFile, WrittenLayoutIsLittleEndianHeaderMapIndexes) {
  TempDir dir;
  const std::string path = dir.file("p.bin");
  const PayloadData d2 = sample(70, 35, 7, 13, 2);
  ASSERT_TRUE(write_payload_file(path, d2, 2));
  EXPECT_EQ(read_file(path), header(70, 35, 7, 7, 13) + std::string(d2.map.begin(), d2.map.end()));

  const PayloadData d0 = sample(300, 20, 10, 13, 0);
  ASSERT_TRUE(write_payload_file(path, d0, 0));  // truncates the earlier content
  EXPECT_EQ(read_file(path), header(300, 20, 10, 10, 15) +
                                 std::string(d0.map.begin(), d0.map.end()) +
                                 std::string(d0.indexes.begin(), d0.indexes.end()));
}

TEST(PayloadFile, RoundTripReproducesGeometryBitsAndBuffers) {
  TempDir dir;
  const std::string path = dir.file("p.bin");
  for (int32_t fec : {0, 2}) {
    const PayloadData d = sample(64, 48, 5, 21, fec);
    ASSERT_TRUE(write_payload_file(path, d, fec));
    const ReadOutcome r = read(path, fec);
    ASSERT_TRUE(r.ok) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.data.width, 64);
    EXPECT_EQ(r.data.height, 48);
    EXPECT_EQ(r.data.sp_size, 5);
    EXPECT_EQ(r.data.bits, 21);
    EXPECT_EQ(r.data.encoded_bit_count, fec == 0 ? 24 : 12 * 9);
    EXPECT_EQ(r.data.map, d.map);
    EXPECT_EQ(r.data.indexes, d.indexes);
  }
}

TEST(PayloadFile, ParityCountConvertsBackToBits) {
  TempDir dir;
  const std::string path = dir.file("p.bin");
  for (int32_t bits = 1; bits <= 2048; bits += bits < 80 ? 1 : 41) {
    const int32_t count = bits + (bits + 7) / 8;
    write_file(path, header(8, 8, 8, 0, count) + "m" + std::string(16 * count, 'i'));
    const ReadOutcome r = read(path, 0, 2);
    ASSERT_TRUE(r.ok) << r.err;
    ASSERT_EQ(r.data.bits, bits);
    ASSERT_EQ(r.data.encoded_bit_count, count);
  }
}

TEST(PayloadFile, HeaderRefusals) {
  TempDir dir;
  const std::string path = dir.file("p.bin");
  const std::string msg = "Failed to read payload header from: " + path + "\n";
  struct Case {
    std::string bytes;
    int32_t fec;
    int32_t spb;
  };
  const std::string tail(4096, '\x01');
  const Case cases[] = {
      {std::string(19, '\0'), 2, 0},                         // short header
      {header(64, 48, 8, 8, 13).substr(0, 16), 2, 0},        // count missing after the skip
      {header(64, 48, 0, 8, 13) + tail, 2, 0},               // zero SP width
      {header(64, 48, -8, 8, 13) + tail, 2, 0},              // negative SP width
      {header(-64, 48, 8, 8, 13) + tail, 2, 0},              // negative width
      {header(64, -48, 8, 8, 13) + tail, 2, 0},              // negative height
      {header(2147483647, 2147483647, 5, 5, 13) + tail, 2, 0},  // map size overflows
      {header(2000000, 2000000, 40, 40, 13) + tail, 2, 0},    // 50000^2 > 2^31-1
      {header(64, 48, 2, 2, 13) + tail, 2, 0},                // automatic border 1 fills S 2
      {header(64, 48, 6, 6, 13) + tail, 2, 3},                // 6 <= 2 * 3
      {header(64, 48, 8, 8, -1) + tail, 0, 0},                // negative count, FEC 0
      {header(64, 48, 8, 8, 1 << 27) + tail, 0, 0},           // 16 * count overflows
  };
  for (const Case& c : cases) {
    write_file(path, c.bytes);
    const ReadOutcome r = read(path, c.fec, c.spb);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.err, msg) << testing::PrintToString(c.bytes.substr(0, 20));
  }
}

TEST(PayloadFile, AcceptedUnusualHeaders) {
  TempDir dir;
  const std::string path = dir.file("p.bin");
  // Values are used as read: SP width outside 5..64, a different SP height,
  // a negative count in FEC 2, trailing bytes.
  write_file(path, header(9, 3, 3, 99, -5) + "abcdefgh");
  ReadOutcome r = read(path, 2);
  ASSERT_TRUE(r.ok) << r.err;
  EXPECT_EQ(r.data.sp_size, 3);
  EXPECT_EQ(r.data.bits, -5);
  EXPECT_EQ(r.data.encoded_bit_count, 3);
  EXPECT_EQ(r.data.map, std::vector<uint8_t>({'a', 'b', 'c'}));
  EXPECT_TRUE(r.data.indexes.empty());

  write_file(path, header(130, 65, 65, 65, 13) + "xy");
  r = read(path, 2, 32);
  ASSERT_TRUE(r.ok) << r.err;
  EXPECT_EQ(r.data.map.size(), 2u);
}

TEST(PayloadFile, MapAndIndexFailures) {
  TempDir dir;
  const std::string path = dir.file("p.bin");
  const std::string map_msg = "Failed to read payload map from: " + path + "\n";
  const std::string idx_msg = "Failed to read payload indexes from: " + path + "\n";

  // A frame narrower than one superpixel gives an empty map: a failed read.
  write_file(path, header(6, 48, 7, 7, 13) + std::string(100, 'm'));
  EXPECT_EQ(read(path, 2).err, map_msg);
  // One map byte short.
  write_file(path, header(14, 7, 7, 7, 13) + "m");
  EXPECT_EQ(read(path, 2).err, map_msg);

  // Exactly header + map: fine for FEC 2, missing index table for FEC 0.
  write_file(path, header(14, 7, 7, 7, 15) + "mm");
  EXPECT_TRUE(read(path, 2).ok);
  ReadOutcome r = read(path, 0);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.err, idx_msg);
  // A zero count means an empty table, which also fails.
  write_file(path, header(14, 7, 7, 7, 0) + "mm" + std::string(64, 'i'));
  EXPECT_EQ(read(path, 0).err, idx_msg);
  // A large claimed table fails quickly on a short file.
  write_file(path, header(14, 7, 7, 7, (1 << 27) - 1) + "mm" + std::string(64, 'i'));
  EXPECT_EQ(read(path, 0).err, idx_msg);
}

TEST(PayloadFile, OpenFailures) {
  TempDir dir;
  const std::string missing = dir.file("missing/p.bin");
  ReadOutcome r = read(missing, 2);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.err, "Error opening payload file: " + missing + "\n");

  testing::internal::CaptureStderr();
  EXPECT_FALSE(write_payload_file(missing, sample(14, 7, 7, 1, 2), 2));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error opening payload file: " + missing + "\n");
}

}  // namespace
}  // namespace lumamark
