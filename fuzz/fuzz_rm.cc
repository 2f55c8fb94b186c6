// Fuzz target: Reed-Muller encoding of the payload (and the parity mode's
// coded string), checked against a plain, unoptimised statement of the code.
//
// The reference builds the whole first-order Reed-Muller codeword bit by bit,
// shuffles it in chunks with the Lehmer generator, and reads it out column by
// column over the chunks; the encoder under test must write exactly the same
// symbols, and nothing outside its output (the output buffer has exactly L
// bytes).
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "payload/fec.h"
#include "payload/wm_id.h"
#include "fuzz_util.h"

namespace {

using lumamark::fuzz::check;

constexpr int64_t kChunk = 131072;
constexpr uint64_t kLehmerModulus = 2147483647;

// One block: k bit characters with redundancy r, written to places
// first, first + stride, ... below L of out.
void reference_block(std::vector<char>& out, int64_t first, int64_t stride, const char* bits,
                     int32_t k, int32_t r, uint32_t seed) {
  const int64_t L = static_cast<int64_t>(out.size());
  const int64_t needed = (L - first + stride - 1) / stride;
  int32_t m = k + r - 1;
  while ((int64_t{1} << m) < needed) ++m;
  const int64_t count = int64_t{1} << m;

  std::vector<int> a(static_cast<size_t>(m) + 1);
  for (int32_t i = 0; i <= m; ++i) a[i] = i < k ? bits[i] - '0' : ((i - k) % 2 == 0 ? 1 : 0);

  // c[j] = a0 XOR (XOR over p of bit p of j AND a[p + 1]): a0 XOR the parity
  // of the bits of j selected by a1..am.
  uint64_t selected = 0;
  for (int32_t p = 0; p < m; ++p) selected |= static_cast<uint64_t>(a[p + 1]) << p;
  std::vector<uint8_t> code(static_cast<size_t>(count));
  for (int64_t j = 0; j < count; ++j) {
    code[j] = static_cast<uint8_t>(a[0] ^ __builtin_parityll(static_cast<uint64_t>(j) & selected));
  }

  if (count > 1) {
    uint64_t x = seed % kLehmerModulus;
    if (x == 0) x = 1;
    for (int64_t start = 0; start < count; start += kChunk) {
      const int64_t n = std::min(kChunk, count - start);
      for (int64_t s = n; s >= 2; --s) {
        x = x * 48271 % kLehmerModulus;
        const int64_t t = static_cast<int64_t>(x % static_cast<uint64_t>(s));
        std::swap(code[start + s - 1], code[start + t]);
      }
    }
  }

  const int64_t chunks = (count + kChunk - 1) / kChunk;
  int64_t place = first;
  for (int64_t c = 0; c < kChunk && place < L; ++c) {
    for (int64_t q = 0; q < chunks && place < L; ++q) {
      const int64_t idx = c + kChunk * q;
      if (idx >= count) continue;
      out[place] = code[idx] != 0 ? '1' : '0';
      place += stride;
    }
  }
}

// The whole payload: one block up to 20 bits (r 3), else blocks of at most
// 20 bits (r 2, up to 60 bits) or 17 bits (r 1), interleaved.
std::vector<char> reference_payload(const std::string& bits, int32_t L, uint32_t seed) {
  std::vector<char> out(static_cast<size_t>(L), '?');
  const int32_t nbits = static_cast<int32_t>(bits.size());
  if (nbits <= 20) {
    reference_block(out, 0, 1, bits.data(), nbits, 3, seed);
    return out;
  }
  const int32_t k = nbits <= 60 ? 20 : 17;
  const int32_t r = nbits <= 60 ? 2 : 1;
  const int32_t blocks = (nbits + k - 1) / k;
  for (int32_t i = 0; i < blocks && i < L; ++i) {
    const int32_t from = static_cast<int32_t>(int64_t{i} * nbits / blocks);
    const int32_t to = static_cast<int32_t>(int64_t{i + 1} * nbits / blocks);
    reference_block(out, i, blocks, bits.data() + from, to - from, r, seed);
  }
  return out;
}

std::string hex_id(FuzzedDataProvider& in, size_t max_digits) {
  static const char kDigits[] = "0123456789abcdefABCDEF";
  const size_t n = in.ConsumeIntegralInRange<size_t>(1, max_digits);
  std::string s;
  for (size_t i = 0; i < n; ++i) s += kDigits[in.ConsumeIntegralInRange<int>(0, 21)];
  return s;
}

// Mode 0: the data bits in order, each group followed by its even parity.
void check_parity_mode(const std::string& id, int32_t nbits) {
  char* coded = lumamark::fec_encode(id.c_str(), nbits, 0, 0);
  char* bits = lumamark::hex_to_bits(id.c_str(), static_cast<uint32_t>(nbits));
  check(coded != nullptr && bits != nullptr);
  const int32_t groups = (nbits + 7) / 8;
  const int32_t total = nbits + groups;
  check(static_cast<int32_t>(std::strlen(coded)) == total);
  const int32_t g = (total - 1) / groups;
  check(g >= 1 && g <= 8);
  for (int32_t i = 0; i < groups; ++i) {
    const int32_t start = i * g;
    const int32_t end = std::min(start + g, nbits);
    int ones = 0;
    for (int32_t b = start; b < end; ++b) {
      check(coded[b + i] == bits[b]);
      ones += bits[b] == '1';
    }
    check(coded[end + i] == (ones % 2 != 0 ? '1' : '0'));
  }
  std::free(bits);
  std::free(coded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  // Mostly short codes: the codeword has at least 2^(bits + 2) symbols for
  // one block, 131072 per block beyond 60 bits, so long payloads and long
  // outputs (several shuffle chunks) are drawn less often.
  int32_t nbits, L;
  switch (in.ConsumeIntegralInRange<int>(0, 7)) {
    case 5:
      nbits = in.ConsumeIntegralInRange<int32_t>(1, 20);
      L = in.ConsumeIntegralInRange<int32_t>(1, 5000);
      break;
    case 6:
      nbits = in.ConsumeIntegralInRange<int32_t>(1, 60);
      L = in.ConsumeIntegralInRange<int32_t>(1, 20000);
      break;
    case 7:
      nbits = in.ConsumeIntegralInRange<int32_t>(1, 400);
      L = in.ConsumeIntegralInRange<int32_t>(1, 300000);
      break;
    default:
      nbits = in.ConsumeIntegralInRange<int32_t>(1, 10);
      L = in.ConsumeIntegralInRange<int32_t>(1, 600);
      break;
  }
  const uint32_t seed = in.ConsumeIntegral<uint32_t>();
  std::string id = hex_id(in, 110);
  // Only an identifier that fits the bit count reaches the encoders.
  if (lumamark::wm_id_validate(id.c_str(), nbits) != 0) id = "0";

  if (in.ConsumeBool()) check_parity_mode(id, nbits);

  // The filter gets a coded string only when the bits fit the superpixels.
  char* placeholder = lumamark::fec_encode(id.c_str(), nbits, L, 2);
  if (nbits > L) {
    check(placeholder == nullptr);
    return 0;
  }
  check(placeholder != nullptr && static_cast<int32_t>(std::strlen(placeholder)) == L);
  std::free(placeholder);

  // Exactly L bytes: writing past them is caught.
  std::vector<char> out(static_cast<size_t>(L), '?');
  check(lumamark::rm_encode_payload(out.data(), id.c_str(), nbits, L, seed) == 0);

  char* bits = lumamark::hex_to_bits(id.c_str(), static_cast<uint32_t>(nbits));
  check(bits != nullptr && static_cast<int32_t>(std::strlen(bits)) == nbits);
  const std::vector<char> expected = reference_payload(bits, L, seed);
  std::free(bits);
  check(out == expected);
  return 0;
}
