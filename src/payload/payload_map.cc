// The generated payload map: every superpixel gets strength plus a signed
// pseudo-random magnitude whose sign is set by the coded bit it carries. In FEC
// mode 0 a 16-row index table tells which coded bit each repetition places in
// which superpixel.
#include "payload/payload_map.h"

#include <cstdio>
#include <cstring>

#include "kernels/intmath.h"
#include "kernels/prng.h"
#include "payload/layout.h"
#include "payload/fec.h"
#include "payload/wm_id.h"

namespace lumamark {

void sign_pattern_generate(int8_t* out, int32_t strength, int32_t cols, int32_t rows, uint32_t s0,
                           uint32_t s1) {
  const int32_t n = wrap_mul(cols, rows);
  // M is odd for every strength (2s + 1 wraps to an odd value), so never 0.
  const int32_t modulus = wrap_add(wrap_mul(2, strength), 1);
  Prng64 g;
  prng64_seed(&g, s0, s1);
  for (int32_t start = 0; start < n; start += 8) {
    const uint8_t* bytes = prng64_next(&g);
    const int32_t run = imin(8, n - start);
    for (int32_t k = 0; k < run; ++k) {
      const int32_t u = static_cast<int32_t>(bytes[k]) % modulus;
      // The magnitude 0 is not allowed: u == strength (on the low 8 bits)
      // becomes 1, so 1 is twice as likely as any other magnitude.
      const int32_t value = (u & 0xFF) == (strength & 0xFF) ? 1 : wrap_sub(u, strength);
      out[start + k] = static_cast<int8_t>(static_cast<uint8_t>(value));
    }
  }
}

void index_row_shuffle(uint8_t* row, int32_t n, uint32_t s0, uint32_t s1) {
  // The all-zero state is a fixed point of the generator and would never
  // yield a usable step.
  if (s0 == 0 && s1 == 0) return;
  Prng64 g;
  prng64_seed(&g, s0, s1);
  for (int32_t b = 0; b < n; b += 8) {
    const uint8_t* bytes;
    do {
      bytes = prng64_next(&g);
    } while (bytes[0] == 0 || bytes[1] == 0 || bytes[2] == 0 || bytes[3] == 0 || bytes[4] == 0 ||
             bytes[5] == 0 || bytes[6] == 0 || bytes[7] == 0);
    const int32_t run = imin(8, n - b);
    for (int32_t k = 0; k < run; ++k) {
      // The byte is 1..255, so from position 255 on the partner is one of
      // positions 1..255: never 0 and never a later position.
      const int32_t q = b + k;
      const int32_t idx = bytes[k] % (q + 1);
      const uint8_t tmp = row[q];
      row[q] = row[idx];
      row[idx] = tmp;
    }
  }
}

void index_table_build(uint8_t* table, int32_t rows, int32_t L, uint32_t w) {
  for (int32_t t = 0; t < rows; ++t) {
    uint8_t* row = table + static_cast<size_t>(t) * static_cast<size_t>(L > 0 ? L : 0);
    for (int32_t j = 0; j < L; ++j) row[j] = static_cast<uint8_t>(j);
    index_row_shuffle(row, L, 33u + 19u * static_cast<uint32_t>(t), w);
  }
}

void payload_map_generate(const MarkLayout& layout, int32_t strength, int32_t fec_mode,
                          const char* wm_id, int32_t bit_count, char* coded, int8_t* signs,
                          uint8_t* map, uint8_t* indexes) {
  const int32_t n = imax(layout.cells, 0);
  const int32_t L = layout.length;
  const int32_t reps = layout.reps;

  if (fec_mode == 2) {
    if (rm_encode_payload(coded, wm_id, bit_count, L, layout.urn_seed) < 0) {
      std::fputs("Failed to generate payload\n", stderr);
      return;
    }
  }

  int8_t* pattern = signs;
  if (pattern == nullptr && n > 0) return;  // the caller could not size its buffers
  mark_sign_pattern(layout, strength, pattern);

  if (indexes != nullptr) mark_index_table(layout, indexes);

  const uint8_t b = static_cast<uint8_t>(strength);
  if (coded == nullptr && reps > 0) return;  // no coded string to spread
  for (int32_t i = 0; i < reps; ++i) {
    const uint8_t* row = indexes != nullptr ? indexes + static_cast<size_t>(i % kIndexRows) * L : nullptr;
    for (int32_t j = 0; j < L; ++j) {
      const size_t c = static_cast<size_t>(i) * L + j;
      const char bit = row != nullptr ? coded[row[j]] : coded[j];
      const int32_t v = bit == '1' ? -pattern[c] : pattern[c];
      map[c] = static_cast<uint8_t>(v + b);
    }
  }
  const size_t filled = static_cast<size_t>(reps) * L;
  if (static_cast<size_t>(n) > filled) std::memset(map + filled, 0, static_cast<size_t>(n) - filled);
}

}  // namespace lumamark
