#include "payload/wm_id.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace lumamark {
namespace {

std::string bits(const char* id, uint32_t nbits) {
  char* s = hex_to_bits(id, nbits);
  std::string r(s);
  std::free(s);
  return r;
}

TEST(WmId, ValidationCodesInOrder) {
  struct Case {
    const char* id;
    int32_t nbits, code;
  } cases[] = {
      {"1FFF", 13, 0}, {"2000", 13, -4}, {"0001FFF", 13, 0}, {"0", 0, 0}, {"000", 7, 0}, {"0", 2048, 0},
      {"0", 2049, -3}, {"zz", 2049, -3}, {"", 13, -2}, {"", 2049, -3}, {"1 2", 13, -5}, {"0x1F", 13, -5},
      {"", -1, -2}, {"0", -1, -4}, {"1", -1, -4}, {"1", 0, -4}, {"1F", 5, 0}, {"1F", 4, -4}, {"8", 4, 0},
      {"ff\xc3\xa9", 13, -5}, {"g", 13, -5}, {"fffffffff", 36, 0}, {"fffffffff", 35, -4},
  };
  for (const Case& c : cases) EXPECT_EQ(wm_id_validate(c.id, c.nbits), c.code) << c.id << "/" << c.nbits;
}

TEST(WmId, BitsAreRightAlignedAndZeroPadded) {
  EXPECT_EQ(bits("1FFF", 13), "1111111111111");
  EXPECT_EQ(bits("0001FFF", 13), "1111111111111");
  EXPECT_EQ(bits("1F", 5), "11111");
  EXPECT_EQ(bits("f", 6), "001111");
  EXPECT_EQ(bits("F", 6), "001111");
  EXPECT_EQ(bits("a5", 12), "000010100101");
  EXPECT_EQ(bits("000", 9), "000000000");
  EXPECT_EQ(bits("", 3), "000");
  EXPECT_EQ(bits("0", 0), "");
  EXPECT_EQ(bits("8000000000000000000000000000000000000001", 160), "1" + std::string(155, '0') + "0001");
  EXPECT_EXIT(bits("1g", 8), testing::ExitedWithCode(1), "^$");  // unreachable after validation
}

TEST(WmId, UrnHash) {
  EXPECT_EQ(urn_hash("00000000000000000000000000000000"), 0u);
  // The groups are mixed from the last to the first.
  EXPECT_EQ(urn_hash("0000000000000000000000000000000A"), 0xda1ca288u);
  EXPECT_EQ(urn_hash("A0000000000000000000000000000000"), 0x1e96d000u);
  EXPECT_EQ(urn_hash("0123456789abcdef0123456789ABCDEF"), 0xd3f3d35cu);
  EXPECT_EQ(urn_hash("ffffffffFFFFFFFFffffffffFFFFFFFF"), 0xf7c21986u);
  // strtoul's white space, signs (a '-' negates), 0x prefixes and stops.
  EXPECT_EQ(urn_hash("0x1f0000 -000001 +0000002xyz"), 0xbec56feeu);
  // Short URNs: groups past the end count as 0.
  EXPECT_EQ(urn_hash("-1"), 0xae65a494u);
  EXPECT_EQ(urn_hash("abc"), 0x7b4b739du);
  EXPECT_EQ(urn_hash("12345678"), 0x21f903b9u);
  EXPECT_EQ(urn_hash(""), 0u);
}

}  // namespace
}  // namespace lumamark
