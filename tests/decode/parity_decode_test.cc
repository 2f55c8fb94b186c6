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
// bit table[(i mod 16) L + j]; +1 for '0', -1 for '1'.
struct ParityCase {
  std::string bits, coded;
  std::vector<uint8_t> table;
  std::vector<float> cells;
  int32_t L, reps;
  ParityCase(const char* id, int32_t nbits, int32_t n_cells) : L(nbits + (nbits + 7) / 8), reps(n_cells / L) {
    char* b = hex_to_bits(id, nbits);
    char* c = fec_encode(id, nbits, L, 0);
    bits = b, coded = c;
    std::free(b), std::free(c);
    table.resize(16 * L);
    index_table_build(table.data(), 16, L, 3);
    cells.assign(n_cells, 0.0f);
    for (int32_t i = 0; i < reps * L; ++i) cells[i] = coded[table[(i / L % 16) * L + i % L]] == '1' ? -1.0f : 1.0f;
  }
  // Flips every cell that carries the given coded position.
  void flip(int32_t position) {
    for (int32_t i = 0; i < reps * L; ++i) cells[i] *= table[(i / L % 16) * L + i % L] == position ? -1 : 1;
  }
};

// A fifth of all cells flipped: every bit keeps a clear majority.
TEST(ParityDecode, RecoversBitsThroughFlippedRepetitions) {
  std::mt19937 rng(2);
  for (int32_t nbits : {1, 8, 9, 13, 32, 64}) {
    std::string id;  // nbits random bits, the leading digit kept to one bit
    for (int32_t i = 0; i < (nbits + 3) / 4; ++i) id.push_back("0123456789abcdef"[rng() % 16]);
    id[0] = char('0' + rng() % 2);
    ParityCase pc(id.c_str(), nbits, 8000);
    for (float& v : pc.cells) v *= rng() % 5 == 0 ? -1 : 1;
    ParityDecision d;
    ASSERT_TRUE(parity_decode(pc.cells.data(), pc.reps, pc.table.data(), pc.L, nbits, &d));
    EXPECT_EQ(d.bits, pc.bits) << "nbits " << nbits;
    EXPECT_EQ(d.coded, pc.coded);
    EXPECT_EQ(d.parity_ok, std::vector<uint8_t>((nbits + 7) / 8, 1));
    EXPECT_GT(d.min_z, 3.0);
  }
}

// One coded bit read wrongly in every repetition breaks the parity of its
// group only; cells without votes decode to zeros with no confidence.
TEST(ParityDecode, WrongBitsAndMissingVotes) {
  ParityCase pc("1fff", 13, 600);  // groups of 7 and 6 bits
  pc.flip(9);                      // coded position 9: second group
  ParityDecision d;
  ASSERT_TRUE(parity_decode(pc.cells.data(), pc.reps, pc.table.data(), pc.L, 13, &d));
  EXPECT_EQ(d.parity_ok, (std::vector<uint8_t>{1, 0}));
  EXPECT_NE(d.bits, pc.bits);
  const std::vector<float> none(3, 0.0f);
  ASSERT_TRUE(parity_decode(none.data(), 1, pc.table.data(), 3, 2, &d));
  EXPECT_EQ(d.min_z, 0.0);
  EXPECT_EQ(d.coded, "000");
  EXPECT_FALSE(parity_decode(none.data(), 1, pc.table.data(), 4, 2, &d));  // 4 is not the length of 2 bits
}

}  // namespace
}  // namespace lumamark
