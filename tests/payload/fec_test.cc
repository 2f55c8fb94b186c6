#include "payload/fec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "payload/wm_id.h"

namespace lumamark {
namespace {

// Plain model of one Reed-Muller block: the codeword positions in read-out
// order after the chunked Lehmer shuffle.
std::vector<uint32_t> readout_order(int m, uint32_t seed) {
  const uint32_t count = 1u << m, chunk = 131072, chunks = (count + chunk - 1) / chunk;
  std::vector<uint32_t> pos(count), order;
  for (uint32_t j = 0; j < count; ++j) pos[j] = j;
  uint64_t x = seed % 2147483647u;
  if (x == 0) x = 1;
  for (uint32_t start = 0; start < count; start += chunk)
    for (uint32_t s = std::min(chunk, count - start); s >= 2; --s) {
      x = x * 48271 % 2147483647;
      std::swap(pos[start + s - 1], pos[start + x % s]);
    }
  for (uint32_t c = 0; c < chunk; ++c)
    for (uint32_t q = 0; q < chunks; ++q)
      if (c + chunk * q < count) order.push_back(pos[c + chunk * q]);
  return order;
}

// The first n symbols of a block. Information word: the bits, then 1, 0, 1,
// ... up to m + 1 values; symbol j of the codeword is a0 XOR parity(j AND
// the mask of a1..am).
std::string model_block(const std::string& bits, int m, uint32_t seed, size_t n) {
  uint32_t mask = 0;
  for (int i = 1; i <= m; ++i)
    mask |= uint32_t(i < int(bits.size()) ? bits[i] - '0' : (i - int(bits.size()) + 1) & 1) << (i - 1);
  std::string out;
  for (uint32_t j : readout_order(m, seed))
    if (out.size() < n) out.push_back('0' + ((bits[0] - '0') ^ __builtin_parity(j & mask)));
  return out;
}

// The encoder's block over n places at the given stride.
std::string block(const std::string& bits, int r, uint32_t seed, size_t n, int stride = 1) {
  std::string out(n * stride - (stride - 1), '#'), picked;
  EXPECT_EQ(rm_block_encode(out.data(), out.data() + out.size(), stride, bits.data(), int32_t(bits.size()), r, seed), 0);
  for (size_t i = 0; i < out.size(); i += stride) picked.push_back(out[i]);
  return picked;
}

std::string fec(const char* id, int32_t nbits, int32_t L, int32_t mode) {
  char* s = fec_encode(id, nbits, L, mode);
  const std::string r = s ? s : "<null>";
  std::free(s);
  return r;
}

TEST(Fec, CodedStringsOfBothModes) {
  // Mode 0: groups of (total - 1) / groups bits, each followed by its even parity.
  EXPECT_EQ(fec("A5", 8, 9, 0), "10100101" "0");
  EXPECT_EQ(fec("1FE", 9, 11, 0), "11111" "1" "1110" "1");
  EXPECT_EQ(fec("1ABC", 13, 15, 0), "1101010" "0" "111100" "0");
  EXPECT_EQ(fec("FFFF", 16, 18, 0), "11111111" "0" "11111111" "0");
  EXPECT_EQ(fec("0", 0, 0, 0), "<null>");
  // Mode 2: a placeholder of L zeros, refused for 0 bits or more bits than L.
  EXPECT_EQ(fec("1", 20, 20, 2), std::string(20, '0'));
  EXPECT_EQ(fec("0", 0, 20, 2), "<null>");
  EXPECT_EQ(fec("1", 21, 20, 2), "<null>");
}

TEST(Fec, BlockMatchesPlainModel) {
  // L = 1, one bit: m = 3, a single symbol; m grows with the places to fill:
  // 9 and 16 places need m = 4, 17 need m = 5.
  EXPECT_EQ(block("1", 3, 1, 1), model_block("1", 3, 1, 1));
  EXPECT_EQ(block("0", 3, 77, 1), model_block("0", 3, 77, 1));
  EXPECT_EQ(block("1", 3, 5, 9), model_block("1", 4, 5, 9));
  EXPECT_EQ(block("1", 3, 5, 16), model_block("1", 4, 5, 16));
  EXPECT_EQ(block("1", 3, 5, 17), model_block("1", 5, 5, 17));
  // Defaults: 13 bits over 274 x 154 superpixels, m 15 grows to 16.
  const std::string id13 = "1010011100101";
  EXPECT_EQ(block(id13, 3, 1, 42196), model_block(id13, 16, 1, 42196));
  EXPECT_EQ(block(id13, 2, 0xdeadbeef, 1000, 3), model_block(id13, 14, 0xdeadbeef, 1000));
  // Largest codeword: 32 chunks read out column by column, whole and cut short.
  const std::string id20 = "11010010001101011101";
  const std::string full = model_block(id20, 22, 12345, 1u << 22);
  EXPECT_EQ(block(id20, 3, 12345, 1u << 22), full);
  EXPECT_EQ(block(id20, 3, 12345, 300001), full.substr(0, 300001));
  // Seeds are reduced mod 2^31 - 1 and a zero state becomes 1: without the
  // reduction 2^31 - 1 would leave the generator stuck at 0.
  const std::string s1 = block(id13, 3, 1, 500);
  EXPECT_EQ(block(id13, 3, 0, 500), s1);
  EXPECT_EQ(block(id13, 3, 2147483647u, 500), s1);
  EXPECT_EQ(block(id13, 3, 2147483648u, 500), s1);
  EXPECT_NE(block(id13, 3, 2, 500), s1);
}

// Every information word of RM(1, m), once unshuffled, is recovered exactly by a
// Hadamard transform: one correlation reaches +-2^m, giving the mask and a0.
TEST(Fec, UnshuffledBlocksAreReedMullerCodewords) {
  for (int m = 1; m <= 6; ++m) {
    const uint32_t count = 1u << m;
    const std::vector<uint32_t> order = readout_order(m, 99);
    for (uint32_t word = 0; word < 2 * count; ++word) {
      std::string bits;
      for (int i = 0; i <= m; ++i) bits.push_back('0' + ((word >> i) & 1));
      const std::string out = block(bits, 0, 99, count);
      std::vector<int> code(count);
      for (uint32_t i = 0; i < count; ++i) code[order[i]] = out[i] - '0';
      int best = 0;
      uint32_t best_mask = 0;
      for (uint32_t u = 0; u < count; ++u) {
        int corr = 0;
        for (uint32_t j = 0; j < count; ++j) corr += (code[j] ^ __builtin_parity(j & u)) ? -1 : 1;
        if (std::abs(corr) > std::abs(best)) best = corr, best_mask = u;
      }
      ASSERT_EQ(std::abs(best), int(count)) << m << "/" << word;
      EXPECT_EQ(uint32_t(best < 0), word & 1);
      EXPECT_EQ(best_mask, word >> 1);
    }
  }
}

// Payloads of more than 20 bits are split into blocks of near-equal size,
// block i of B on the places i, i + B, ..., all with the same seed.
TEST(Fec, PayloadBlockSplits) {
  struct Case {
    int32_t nbits;
    std::vector<int> sizes;
    int r;
  } cases[] = {{20, {20}, 3}, {21, {10, 11}, 2}, {60, {20, 20, 20}, 2}, {61, {15, 15, 15, 16}, 1}, {1, {1}, 3}};
  const std::string digits = "d2b6e3f1a9c58470e15b93a6";
  for (const Case& c : cases) {
    const int32_t L = 5003;
    const std::string hex = digits.substr(0, c.nbits / 4);
    char* b = hex_to_bits(hex.c_str(), c.nbits);
    const std::string bits = b;
    std::free(b);
    std::string out(L + 1, '#');
    ASSERT_EQ(rm_encode_payload(out.data(), hex.c_str(), c.nbits, L, 4242), 0);
    EXPECT_EQ(out[L], '#');
    const int B = int(c.sizes.size());
    for (int i = 0, from = 0; i < B; from += c.sizes[i], ++i) {
      std::string got;
      for (int p = i; p < L; p += B) got.push_back(out[p]);
      EXPECT_EQ(got, block(bits.substr(from, c.sizes[i]), c.r, 4242, got.size())) << c.nbits << "/" << i;
    }
  }
  // No bits, no places, no output; 61 bits make four blocks, and with three
  // places the fourth starts past the end.
  std::string out(8, '#');
  EXPECT_EQ(rm_encode_payload(out.data(), "0", 0, 8, 1), -1);
  EXPECT_EQ(rm_encode_payload(out.data(), "1", 13, 0, 1), -1);
  EXPECT_EQ(rm_encode_payload(out.data(), "1", 61, 3, 1), -1);
  EXPECT_EQ(rm_encode_payload(out.data(), "1", 61, 4, 1), 0);
}

}  // namespace
}  // namespace lumamark
