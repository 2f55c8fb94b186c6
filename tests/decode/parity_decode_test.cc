#include "decode/parity_decode.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "payload/fec.h"
#include "payload/payload_map.h"
#include "payload/wm_id.h"

namespace lumamark {
namespace {

// Cells as the embedder lays them out: repetition i, position j carries coded
// bit table[(i mod 16) * L + j]; +1 for '0', -1 for '1'.
struct ParityCase {
  std::string bits;
  std::string coded;
  std::vector<uint8_t> table;
  std::vector<float> cells;
  int32_t L = 0;
  int32_t reps = 0;

  ParityCase(const char* id, int32_t nbits, int32_t n_cells) {
    L = nbits + (nbits + 7) / 8;
    reps = n_cells / L;
    char* b = hex_to_bits(id, static_cast<uint32_t>(nbits));
    bits = b;
    std::free(b);
    char* c = fec_encode(id, nbits, L, 0);
    coded = c;
    std::free(c);
    table.resize(static_cast<size_t>(16) * L);
    index_table_build(table.data(), 16, L, 3);
    cells.assign(static_cast<size_t>(n_cells), 0.0f);
    for (int32_t i = 0; i < reps; ++i)
      for (int32_t j = 0; j < L; ++j)
        cells[static_cast<size_t>(i) * L + j] = coded[table[(i % 16) * L + j]] == '1' ? -1.0f : 1.0f;
  }
};

TEST(ParityDecode, RecoversBitsThroughFlippedRepetitions) {
  std::mt19937 rng(2);
  for (int32_t nbits : {1, 8, 9, 13, 32, 64}) {
    // A random ID of nbits bits (the leading digit kept to one bit).
    std::string id;
    for (int32_t i = 0; i < (nbits + 3) / 4; ++i) id.push_back("0123456789abcdef"[rng() % 16]);
    id[0] = static_cast<char>('0' + rng() % 2);
    ParityCase pc(id.c_str(), nbits, 8000);
    // A fifth of all cells flipped: every bit keeps a clear majority.
    for (float& v : pc.cells) {
      if (rng() % 5 == 0) v = -v;
    }
    ParityDecision d;
    ASSERT_TRUE(parity_decode(pc.cells.data(), pc.reps, pc.table.data(), pc.L, nbits, &d));
    EXPECT_EQ(d.bits, pc.bits) << "nbits " << nbits;
    EXPECT_EQ(d.coded, pc.coded);
    for (uint8_t ok : d.parity_ok) EXPECT_EQ(ok, 1);
    EXPECT_GT(d.min_z, 3.0);
  }
}

// One coded bit read wrongly in every repetition breaks the parity of its
// group only.
TEST(ParityDecode, ParityFlagsTheGroupOfAWrongBit) {
  ParityCase pc("1fff", 13, 600);  // groups of 7 and 6 bits
  const int32_t wrong = 9;        // coded position 9: second group
  for (int32_t i = 0; i < pc.reps; ++i)
    for (int32_t j = 0; j < pc.L; ++j)
      if (pc.table[(i % 16) * pc.L + j] == wrong) pc.cells[static_cast<size_t>(i) * pc.L + j] *= -1;
  ParityDecision d;
  ASSERT_TRUE(parity_decode(pc.cells.data(), pc.reps, pc.table.data(), pc.L, 13, &d));
  EXPECT_EQ(d.parity_ok, (std::vector<uint8_t>{1, 0}));
  EXPECT_NE(d.bits, pc.bits);
}

TEST(ParityDecode, BitsWithoutVotesAndBadLengths) {
  ParityCase pc("3", 2, 3);  // L = 3, one repetition
  std::vector<float> none(3, 0.0f);
  ParityDecision d;
  ASSERT_TRUE(parity_decode(none.data(), 1, pc.table.data(), 3, 2, &d));
  EXPECT_EQ(d.min_z, 0.0);
  EXPECT_EQ(d.coded, "000");
  EXPECT_FALSE(parity_decode(none.data(), 1, pc.table.data(), 4, 2, &d));
  EXPECT_FALSE(parity_decode(none.data(), 1, pc.table.data(), 1, 0, &d));
}

}  // namespace
}  // namespace lumamark
