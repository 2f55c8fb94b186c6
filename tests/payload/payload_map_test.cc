#include "payload/payload_map.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "filter/filter.h"
#include "payload/fec.h"
#include "payload/wm_id.h"

namespace lumamark {
namespace {

const char* kZeroUrn = "00000000000000000000000000000000";

// The generator step in its rotate-left form, eight bytes of new state.
struct ModelGen {
  uint32_t s0, s1;
  std::vector<uint8_t> step() {
    const uint32_t t = s1 ^ s0;
    s0 = ((s0 << 26) | (s0 >> 6)) ^ t ^ (t << 9);
    s1 = (t << 13) | (t >> 19);
    std::vector<uint8_t> b;
    for (uint32_t w : {s0, s1})
      for (int k = 0; k < 4; ++k) b.push_back(uint8_t(w >> (8 * k)));
    return b;
  }
};

std::vector<int8_t> model_pattern(int32_t strength, int32_t n, uint32_t s1) {
  ModelGen g{9, s1};
  const int32_t M = int32_t(uint32_t(strength) * 2u + 1u);
  std::vector<int8_t> out;
  for (int32_t c = 0; c < n; c += 8) {
    const std::vector<uint8_t> b = g.step();
    for (int k = 0; k < 8 && c + k < n; ++k) {
      const int32_t u = b[k] % M;
      out.push_back(int8_t(uint8_t(uint8_t(u) == uint8_t(strength) ? 1 : int64_t(u) - strength)));
    }
  }
  return out;
}

std::vector<uint8_t> model_row(int32_t n, uint32_t s0) {
  ModelGen g{s0, 3};
  std::vector<uint8_t> row(n);
  for (int32_t j = 0; j < n; ++j) row[j] = uint8_t(j);
  for (int32_t b = 0; b < n; b += 8) {
    std::vector<uint8_t> bytes;
    do bytes = g.step();
    while (std::count(bytes.begin(), bytes.end(), 0) > 0);
    for (int k = 0; k < 8 && b + k < n; ++k) std::swap(row[b + k], row[bytes[k] % (b + k + 1)]);
  }
  return row;
}

// A filter as initialisation leaves it, built by hand from its fields.
struct MapRig {
  WatermarkFilter f{};
  std::vector<int8_t> pattern;
  MapRig(int32_t w, int32_t h, int32_t sp, const char* id, int32_t nbits, int32_t strength, int32_t mode) {
    f.width = w, f.height = h, f.sp_size = sp, f.strength = strength, f.fec_mode = mode;
    f.bit_count = f.fec_bit_count = nbits;
    f.encoded_bit_count = mode == 0 ? nbits + (nbits + 7) / 8 : (w / sp) * (h / sp);
    f.wm_id = strdup(id);
    f.coded_bits = fec_encode(id, nbits, f.encoded_bit_count, mode);
    pattern.resize((w / sp) * (h / sp));
    f.pattern_values = pattern.data();
  }
  ~MapRig() {
    std::free(f.wm_id);
    std::free(f.coded_bits);
  }
  int32_t n() const { return int32_t(pattern.size()); }
  std::vector<uint8_t> run(const char* urn, std::vector<uint8_t>* idx = nullptr) {
    std::vector<uint8_t> map(n(), 0xAA);
    if (idx) idx->assign(16 * f.encoded_bit_count, 0xAA);
    wm_generate_payload_map(&f, map.data(), urn, idx ? idx->data() : nullptr);
    return map;
  }
};

TEST(PayloadMap, DefaultsReedMuller) {
  MapRig s(1920, 1080, 7, "1ABC", 13, 3, 2);
  ASSERT_EQ(s.n(), 42196);
  const std::vector<uint8_t> map = s.run(kZeroUrn);
  std::string coded(42196, '#');
  ASSERT_EQ(rm_encode_payload(coded.data(), "1ABC", 13, 42196, 1), 0);
  EXPECT_EQ(std::string(s.f.coded_bits), coded);
  const std::vector<int8_t> pat = model_pattern(3, 42196, 0);
  EXPECT_EQ(s.pattern, pat);
  for (int32_t c = 0; c < 42196; ++c) {
    ASSERT_NE(pat[c], 0);
    ASSERT_EQ(map[c], uint8_t(3 + (coded[c] == '1' ? -pat[c] : pat[c]))) << c;
    ASSERT_TRUE(map[c] <= 6 && map[c] != 3);
  }
}

TEST(PayloadMap, ZeroStrengthGivesUnitMagnitudes) {
  MapRig s(320, 240, 8, "1234", 16, 0, 0);
  std::vector<uint8_t> idx;
  const std::vector<uint8_t> map = s.run(kZeroUrn, &idx);
  const int32_t L = s.f.encoded_bit_count, reps = s.n() / L;
  for (int32_t c = 0; c < s.n(); ++c) {
    const int32_t i = c / L, j = c % L;
    const uint8_t want = c >= reps * L ? 0 : s.f.coded_bits[idx[(i % 16) * L + j]] == '1' ? 255 : 1;
    ASSERT_EQ(map[c], want) << c;
  }
}

TEST(PayloadMap, SignPatternWrapsLikeThirtyTwoBitArithmetic) {
  for (int32_t strength : {0, 1, 3, 100, 127, 128, 200, 255, 256, 1000, -1, -5, 1 << 30, INT32_MAX}) {
    std::vector<int8_t> got(77);
    sign_pattern_generate(got.data(), strength, 7, 11, 9, 0x5eed);
    EXPECT_EQ(got, model_pattern(strength, 77, 0x5eed)) << strength;
  }
}

TEST(PayloadMap, IndexRowsArePermutationsThatNeverMoveSlotZeroLate) {
  for (int32_t n : {1, 7, 8, 9, 15, 255, 256, 257, 1000}) {
    std::vector<uint8_t> row(n);
    for (int32_t j = 0; j < n; ++j) row[j] = uint8_t(j);
    index_row_shuffle(row.data(), n, 33 + 19 * 5, 3);
    EXPECT_EQ(row, model_row(n, 33 + 19 * 5)) << n;
  }
  const std::vector<uint8_t> r255 = model_row(255, 52), r1000 = model_row(1000, 52);
  EXPECT_EQ(r1000[0], r255[0]);  // positions from 255 on never reach slot 0

  std::vector<uint8_t> table(16 * 300), wrapped(300);
  index_table_build(table.data(), 16, 300, 3);
  for (int j = 0; j < 300; ++j) wrapped[j] = uint8_t(j);
  std::sort(wrapped.begin(), wrapped.end());
  for (int t = 0; t < 16; ++t) {
    std::vector<uint8_t> row(table.begin() + t * 300, table.begin() + (t + 1) * 300);
    EXPECT_EQ(row, model_row(300, 33 + 19 * t));
    std::sort(row.begin(), row.end());
    EXPECT_EQ(row, wrapped) << t;
  }
}

TEST(PayloadMap, ParityModeTableAndRepetitions) {
  // 640 x 480 / 8 = 4800 cells, L = 15, 320 repetitions: repetition i uses row i mod 16.
  MapRig s(640, 480, 8, "1ABC", 13, 5, 0);
  std::vector<uint8_t> idx;
  const std::vector<uint8_t> map = s.run("abc", &idx);
  std::vector<uint8_t> table(16 * 15);
  index_table_build(table.data(), 16, 15, 3);
  EXPECT_EQ(idx, table);
  EXPECT_EQ(s.pattern, model_pattern(5, 4800, urn_hash("abc")));
  for (int32_t c = 0; c < 4800; ++c) {
    const int32_t i = c / 15, j = c % 15;
    const int v = s.f.coded_bits[table[(i % 16) * 15 + j]] == '1' ? -s.pattern[c] : s.pattern[c];
    ASSERT_EQ(map[c], uint8_t(5 + v));
  }
  // Without a table each repetition takes the coded bits in order.
  const std::vector<uint8_t> plain = s.run("abc");
  for (int32_t c = 0; c < 4800; ++c)
    ASSERT_EQ(plain[c], uint8_t(5 + (s.f.coded_bits[c % 15] == '1' ? -s.pattern[c] : s.pattern[c])));
}

TEST(PayloadMap, ZeroTail) {
  MapRig s(100, 56, 7, "1", 600, 4, 0);  // 14 x 8 = 112 cells, L = 675: no repetition fits
  std::vector<uint8_t> idx;
  EXPECT_EQ(s.run(kZeroUrn, &idx), std::vector<uint8_t>(112, 0));
  MapRig t(77, 21, 7, "f", 8, 4, 0);  // 33 cells, L = 9: 3 repetitions, 6 cells of tail
  const std::vector<uint8_t> map = t.run(kZeroUrn);
  EXPECT_EQ(std::count(map.begin(), map.begin() + 27, 0xAA), 0);
  EXPECT_EQ(std::vector<uint8_t>(map.begin() + 27, map.end()), std::vector<uint8_t>(6, 0));
}

TEST(PayloadMap, UrnChangesOnlyShuffleAndSigns) {
  // 64 x 64 cells read a 4096-symbol prefix of a 2^15-entry codeword; a full
  // read-out shows that the URN only permutes the same codeword.
  MapRig a(512, 512, 8, "1ABC", 13, 3, 2), b(512, 512, 8, "1ABC", 13, 3, 2);
  const std::vector<uint8_t> ma = a.run(kZeroUrn), ma2 = a.run(kZeroUrn), mb = b.run("0123456789abcdef");
  EXPECT_EQ(ma, ma2);
  EXPECT_NE(std::string(a.f.coded_bits), std::string(b.f.coded_bits));
  EXPECT_NE(a.pattern, b.pattern);
  std::string full_a(1 << 15, '#'), full_b(1 << 15, '#');
  ASSERT_EQ(rm_encode_payload(full_a.data(), "1ABC", 13, 1 << 15, urn_hash(kZeroUrn)), 0);
  ASSERT_EQ(rm_encode_payload(full_b.data(), "1ABC", 13, 1 << 15, urn_hash("0123456789abcdef")), 0);
  EXPECT_NE(full_a, full_b);
  std::sort(full_a.begin(), full_a.end());
  std::sort(full_b.begin(), full_b.end());
  EXPECT_EQ(full_a, full_b);
  // Parity mode: the index table and coded bits do not depend on the URN.
  MapRig c(160, 160, 8, "77", 8, 2, 0);
  std::vector<uint8_t> ia, ib;
  c.run(kZeroUrn, &ia);
  const std::vector<int8_t> pa = c.pattern;
  c.run("ffff", &ib);
  EXPECT_EQ(ia, ib);
  EXPECT_NE(pa, c.pattern);
}

TEST(PayloadMap, EncoderFailureIsReported) {
  MapRig s(70, 70, 7, "1", 200, 3, 2);  // 100 cells < 200 bits: no placeholder
  ASSERT_EQ(s.f.coded_bits, nullptr);
  testing::internal::CaptureStderr();
  const std::vector<uint8_t> map = s.run(kZeroUrn);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to generate payload\n");
  EXPECT_EQ(map, std::vector<uint8_t>(100, 0xAA));
}

}  // namespace
}  // namespace lumamark
