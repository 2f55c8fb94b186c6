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
// Templated on the element so that the decoder can shuffle codeword indexes
// exactly as the encoder shuffles codeword symbols.
template <typename T>
void shuffle_chunks(T* code, size_t count, uint32_t seed) {
  uint32_t x = seed % kLehmerModulus;
  if (x == 0) x = 1;
  for (size_t start = 0; start < count; start += kRmChunk) {
    const size_t left = count - start;
    const uint32_t n = left < static_cast<size_t>(kRmChunk) ? static_cast<uint32_t>(left) : kRmChunk;
    T* chunk = code + start;
    auto swap_with = [chunk](uint32_t s, uint32_t draw) {
      const uint32_t t = draw % s;
      const T tmp = chunk[s - 1];
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

// Read-out column by column across the chunks: column c takes position c of
// every chunk in turn, and visit(idx) is called for each codeword position in
// that order until it returns false. With a single chunk this is the codeword
// in order.
template <typename Visit>
void for_each_readout(size_t count, Visit visit) {
  const size_t chunks = (count + kRmChunk - 1) / kRmChunk;
  if (chunks == 1) {
    for (size_t idx = 0; idx < count; ++idx) {
      if (!visit(idx)) return;
    }
    return;
  }
  for (size_t c = 0; c < static_cast<size_t>(kRmChunk); ++c) {
    for (size_t q = 0; q < chunks; ++q) {
      const size_t idx = c + static_cast<size_t>(kRmChunk) * q;
      if (idx >= count) continue;
      if (!visit(idx)) return;
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
  const int32_t m = rm_block_order(k, r, needed);
  if (m < 0) return -1;
  const size_t count = size_t{1} << m;

  // Information word: the k bits (k <= m + 1), then 1, 0, 1, 0, ... up to
  // position m; entries past m are filled the same way and never used.
  uint8_t a[kMaxOrder + 1];
  for (int32_t i = 0; i <= kMaxOrder; ++i) {
    a[i] = i < k ? static_cast<uint8_t>((bitchars[i] - '0') & 1) : rm_pad_value(i - k);
  }

  uint8_t* code = static_cast<uint8_t*>(std::malloc(count));
  if (code == nullptr) return -1;
  // c[j] = a0 XOR parity(j AND mask), mask bit p = a[p + 1]. Built by
  // doubling: the upper half of each prefix of length 2^(p+1) is the lower
  // half XOR a[p + 1], which is a whole-buffer XOR the compiler vectorises.
  code[0] = a[0];
  for (int32_t p = 0; p < m; ++p) {
    const size_t half = size_t{1} << p;
    const uint8_t bit = a[p + 1];
    for (size_t j = 0; j < half; ++j) code[half + j] = code[j] ^ bit;
  }

  if (count > 1) shuffle_chunks(code, count, seed);

  int64_t place = pos;
  for_each_readout(count, [&](size_t idx) {
    base[place] = code[idx] == 1 ? '1' : '0';
    place += stride;
    return place < end;
  });
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
  const int32_t g = fec_parity_group_size(nbits);  // ceil(nbits / groups), at most 8
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
    // Blocks of at most 20 or 17 bits, sizes differing by at most one; block
    // i owns the places i, i + B, i + 2B, ... All blocks share the seed.
    const RmBlockSplit split = rm_block_split(nbits);
    for (int32_t i = 0; i < split.blocks && rc >= 0; ++i) {
      const int32_t from = rm_block_first_bit(i, nbits, split.blocks);
      const int32_t to = rm_block_first_bit(i + 1, nbits, split.blocks);
      rc = rm_block_encode_at(out, i, L, split.blocks, bits + from, to - from, split.redundancy,
                              seed);
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

int32_t fec_parity_group_size(int32_t nbits) {
  if (nbits < 1) return 0;
  const int32_t groups = (nbits + 7) / 8;
  return (nbits + groups - 1) / groups;
}

RmBlockSplit rm_block_split(int32_t nbits) {
  if (nbits < 1) return {0, 3};
  if (nbits <= 20) return {1, 3};
  const int32_t k = nbits <= 60 ? 20 : 17;
  return {(nbits + k - 1) / k, nbits <= 60 ? 2 : 1};
}

int32_t rm_block_first_bit(int32_t i, int32_t nbits, int32_t blocks) {
  return static_cast<int32_t>(static_cast<int64_t>(i) * nbits / blocks);
}

int32_t rm_block_order(int32_t k, int32_t r, int64_t needed) {
  if (k < 0 || r < 0) return -1;
  int64_t m = static_cast<int64_t>(k) + r - 1;
  if (m < 0 || m > kMaxOrder) return -1;
  while ((int64_t{1} << m) < needed) ++m;
  if (m > kMaxOrder) return -1;
  return static_cast<int32_t>(m);
}

int32_t rm_readout_indexes(uint32_t* out, int64_t n, int32_t m, uint32_t seed) {
  if (out == nullptr || n < 0 || m < 0 || m > kMaxOrder) return -1;
  const size_t count = size_t{1} << m;
  if (static_cast<uint64_t>(n) > count) return -1;
  uint32_t* perm = static_cast<uint32_t*>(std::malloc(count * sizeof(uint32_t)));
  if (perm == nullptr) return -1;
  for (size_t j = 0; j < count; ++j) perm[j] = static_cast<uint32_t>(j);
  // After the shuffle perm[idx] is the codeword index whose symbol sits at
  // position idx; the read-out then visits the positions in place order.
  if (count > 1) shuffle_chunks(perm, count, seed);
  int64_t t = 0;
  if (n > 0) {
    for_each_readout(count, [&](size_t idx) {
      out[t++] = perm[idx];
      return t < n;
    });
  }
  std::free(perm);
  return 0;
}

}  // namespace lumamark
