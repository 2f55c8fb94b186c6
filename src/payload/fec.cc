// Forward error correction of the payload bits.
//
// Mode 0 appends an even-parity character to each group of at most eight bits.
// Mode 2 encodes the bits with a first-order Reed-Muller code RM(1, m), shuffles
// the codeword in chunks with a Lehmer generator and reads out as many symbols
// as the output has places, which punctures the codeword at random.
#include "payload/fec.h"

#include <cstdlib>
#include <cstring>

#include "kernels/intmath.h"
#include "payload/wm_id.h"

namespace lumamark {

namespace {

constexpr uint32_t kLehmerModulus = 2147483647u;  // 2^31 - 1
constexpr uint32_t kLehmerMultiplier = 48271u;
// Longest codeword handled: 2^31 positions, enough for any 32-bit output length.
constexpr int32_t kMaxOrder = 31;

// x * a mod (2^31 - 1) for x and a in 1 .. 2^31 - 2, without a 64-bit
// division: the product is below 2^62, and folding the bits above bit 31 onto
// the low 31 bits (2^31 is 1 modulo 2^31 - 1) leaves at most twice the
// modulus, so one conditional subtraction finishes it.
inline uint32_t lehmer_mul(uint32_t x, uint32_t a) {
  const uint64_t p = static_cast<uint64_t>(x) * a;
  uint64_t r = (p & kLehmerModulus) + (p >> 31);
  if (r >= kLehmerModulus) r -= kLehmerModulus;
  return static_cast<uint32_t>(r);
}

// 48271^2 mod (2^31 - 1): two generator steps at once.
constexpr uint32_t kLehmerMultiplier2 =
    static_cast<uint32_t>(uint64_t{kLehmerMultiplier} * kLehmerMultiplier % kLehmerModulus);

// Backward Fisher-Yates over each chunk of kRmChunk positions; the generator
// state runs on from one chunk to the next. The draws x1, x2, x3, ... are
// produced as two interleaved chains (odd and even steps, each advanced by
// 48271^2) so that the two multiply-reduce latencies overlap.
void shuffle_chunks(uint8_t* code, size_t count, uint32_t seed) {
  uint32_t x = seed % kLehmerModulus;
  if (x == 0) x = 1;
  for (size_t start = 0; start < count; start += kRmChunk) {
    const size_t left = count - start;
    const uint32_t n = left < static_cast<size_t>(kRmChunk) ? static_cast<uint32_t>(left) : kRmChunk;
    uint8_t* chunk = code + start;
    auto swap_with = [chunk](uint32_t s, uint32_t draw) {
      const uint32_t t = draw % s;
      const uint8_t tmp = chunk[s - 1];
      chunk[s - 1] = chunk[t];
      chunk[t] = tmp;
    };
    uint32_t s = n;
    if (s >= 3) {
      uint32_t odd = lehmer_mul(x, kLehmerMultiplier);
      uint32_t even = lehmer_mul(odd, kLehmerMultiplier);
      for (;;) {
        swap_with(s, odd);
        swap_with(s - 1, even);
        x = even;
        s -= 2;
        if (s < 3) break;
        odd = lehmer_mul(odd, kLehmerMultiplier2);
        even = lehmer_mul(even, kLehmerMultiplier2);
      }
    }
    if (s == 2) {
      x = lehmer_mul(x, kLehmerMultiplier);
      swap_with(2, x);
    }
  }
}

// rm_block_encode with the output described by indexes: symbols go to
// base[pos], base[pos + stride], ... while the index stays below end. Working
// with indexes keeps every address inside the output, even for a block whose
// first place already lies past the end.
int32_t rm_block_encode_at(char* base, int64_t pos, int64_t end, int32_t stride,
                           const char* bitchars, int32_t k, int32_t r, uint32_t seed) {
  if (base == nullptr || pos >= end || bitchars == nullptr || k == 0) return -1;
  // Arguments no caller passes; refused instead of looping forever or
  // shifting out of range.
  if (k < 0 || r < 0 || stride < 1) return -1;

  const int64_t needed = (end - pos + stride - 1) / stride;
  int64_t m = static_cast<int64_t>(k) + r - 1;
  if (m > kMaxOrder) return -1;
  while ((int64_t{1} << m) < needed) ++m;
  if (m > kMaxOrder) return -1;
  const size_t count = size_t{1} << m;

  // Information word: the k bits (k <= m + 1), then 1, 0, 1, 0, ... up to
  // position m; entries past m are filled the same way and never used.
  uint8_t a[kMaxOrder + 1];
  for (int32_t i = 0; i <= kMaxOrder; ++i) {
    a[i] = i < k ? static_cast<uint8_t>((bitchars[i] - '0') & 1) : static_cast<uint8_t>(((i - k) & 1) ^ 1);
  }

  uint8_t* code = static_cast<uint8_t*>(std::malloc(count));
  if (code == nullptr) return -1;
  // c[j] = a0 XOR parity(j AND mask), mask bit p = a[p + 1]. Built by
  // doubling: the upper half of each prefix of length 2^(p+1) is the lower
  // half XOR a[p + 1], which is a whole-buffer XOR the compiler vectorises.
  code[0] = a[0];
  for (int64_t p = 0; p < m; ++p) {
    const size_t half = size_t{1} << p;
    const uint8_t bit = a[p + 1];
    for (size_t j = 0; j < half; ++j) code[half + j] = code[j] ^ bit;
  }

  if (count > 1) shuffle_chunks(code, count, seed);

  // Read-out column by column across the chunks: column c takes position c of
  // every chunk in turn. With a single chunk this is the codeword in order.
  const size_t chunks = (count + kRmChunk - 1) / kRmChunk;
  int64_t place = pos;
  if (chunks == 1) {
    for (size_t idx = 0; idx < count && place < end; ++idx, place += stride) {
      base[place] = code[idx] == 1 ? '1' : '0';
    }
  } else {
    for (size_t c = 0; c < static_cast<size_t>(kRmChunk) && place < end; ++c) {
      for (size_t q = 0; q < chunks && place < end; ++q) {
        const size_t idx = c + static_cast<size_t>(kRmChunk) * q;
        if (idx >= count) continue;
        base[place] = code[idx] == 1 ? '1' : '0';
        place += stride;
      }
    }
  }
  std::free(code);
  return 0;
}

}  // namespace

char* fec_encode(const char* id, int32_t nbits, int32_t L, int32_t mode) {
  if (mode == 2) {
    // Placeholder; the map generator writes the real symbols once the URN
    // seed is known.
    if (nbits <= 0 || nbits > L || id == nullptr) return nullptr;
    char* out = static_cast<char*>(std::malloc(static_cast<size_t>(L) + 1));
    if (out == nullptr) return nullptr;
    std::memset(out, '0', static_cast<size_t>(L));
    out[L] = '\0';
    return out;
  }
  if (mode != 0) std::exit(1);

  // Without a single bit there is no parity group to size; the filter then
  // sees an encoded length below 1 and refuses the configuration.
  if (nbits < 1) return nullptr;
  const int32_t groups = (nbits + 7) / 8;
  const int32_t total = nbits + groups;
  char* out = static_cast<char*>(std::malloc(static_cast<size_t>(total) + 1));
  char* bits = hex_to_bits(id, static_cast<uint32_t>(nbits));
  if (out == nullptr || bits == nullptr) {
    std::free(out);
    std::free(bits);
    return nullptr;
  }
  out[total] = '\0';
  const int32_t g = (total - 1) / groups;  // ceil(nbits / groups), at most 8
  for (int32_t i = 0; i < groups; ++i) {
    const int32_t start = i * g;
    const int32_t end = imin(start + g, nbits);
    int32_t ones = 0;
    for (int32_t b = start; b < end; ++b) {
      out[b + i] = bits[b];
      ones += bits[b] == '1';
    }
    out[end + i] = (ones & 1) ? '1' : '0';
  }
  std::free(bits);
  return out;
}

int32_t rm_encode_payload(char* out, const char* id, int32_t nbits, int32_t L, uint32_t seed) {
  if (nbits < 0) return -1;
  char* bits = hex_to_bits(id, static_cast<uint32_t>(nbits));
  if (bits == nullptr) return -1;
  int32_t rc = 0;
  if (nbits <= 20) {
    rc = rm_block_encode_at(out, 0, L, 1, bits, nbits, 3, seed);
  } else {
    // Blocks of at most k bits, sizes differing by at most one; block i owns
    // the places i, i + B, i + 2B, ... All blocks share the seed.
    const int32_t k = nbits <= 60 ? 20 : 17;
    const int32_t r = nbits <= 60 ? 2 : 1;
    const int32_t blocks = (nbits + k - 1) / k;
    for (int32_t i = 0; i < blocks && rc >= 0; ++i) {
      const int32_t from = static_cast<int32_t>(static_cast<int64_t>(i) * nbits / blocks);
      const int32_t to = static_cast<int32_t>(static_cast<int64_t>(i + 1) * nbits / blocks);
      rc = rm_block_encode_at(out, i, L, blocks, bits + from, to - from, r, seed);
    }
  }
  std::free(bits);
  return rc < 0 ? rc : 0;
}

int32_t rm_block_encode(char* out, char* end, int32_t stride, const char* bitchars, int32_t k,
                        int32_t r, uint32_t seed) {
  if (out == nullptr || end == nullptr) return -1;
  const auto o = reinterpret_cast<uintptr_t>(out);
  const auto e = reinterpret_cast<uintptr_t>(end);
  if (o >= e) return -1;
  return rm_block_encode_at(out, 0, static_cast<int64_t>(e - o), stride, bitchars, k, r, seed);
}

}  // namespace lumamark
