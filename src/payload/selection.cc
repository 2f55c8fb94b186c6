// The per-frame selection mask: a seeded random 0/1 pattern whose number of
// ones is then corrected to exactly the requested share.
#include "payload/selection.h"

#include <cstddef>
#include <cstring>

#include "kernels/intmath.h"
#include "kernels/prng.h"
#include "payload/layout.h"

namespace lumamark {

void selection_mask(uint8_t* out, int32_t reps, int32_t length, int32_t density, int32_t seed) {
  if (reps == 1) {
    selection_block(out, length, density, seed);
    return;
  }
  for (int32_t k = 0; k < length; ++k) {
    selection_block(out + static_cast<ptrdiff_t>(k) * reps, reps, density,
                    wrap_add(seed, wrap_mul(67, k)));
  }
}

void selection_block(uint8_t* out, int32_t n, int32_t density, int32_t seed) {
  const int32_t t = wrap_mul(density, 255) / 100;
  Prng64 g;
  prng64_seed(&g, static_cast<uint32_t>(seed), 9u);
  if (n < 1) return;
  // With a threshold of 255 or more every random byte selects, and when the
  // target is every byte no correction follows: the random bytes do not
  // matter (the full density, 100).
  if (t >= 255 && wrap_mul(density, n) / 100 == n) {
    std::memset(out, 1, static_cast<size_t>(n));
    return;
  }

  int32_t count = 0;
  for (int32_t p = 0; p < n; p += 8) {
    const uint8_t* b = prng64_next(&g);
    const int32_t m = n - p < 8 ? n - p : 8;
    for (int32_t j = 0; j < m; ++j) {
      const uint8_t one = static_cast<int32_t>(b[j]) <= t ? 1 : 0;
      out[p + j] = one;
      count += one;
    }
  }
  if (n == 1) return;

  const int32_t target = wrap_mul(density, n) / 100;
  if (count == target) return;
  // A target outside 0..n could never be reached.
  if (target < 0 || target > n) return;

  // Turn ones into zeros when there are too many, zeros into ones otherwise;
  // each step starts at a random position and walks forward to the next
  // byte of the kind to turn.
  const uint8_t turn = count > target ? 1 : 0;
  const int32_t step = count > target ? -1 : 1;
  const uint64_t un = static_cast<uint64_t>(n);
  while (count != target) {
    const uint64_t r = prng64_next_u64(&g);
    uint64_t q = (r + 1) % un;
    while (out[q] != turn) q = (q + 1) % un;
    out[q] = static_cast<uint8_t>(1 - turn);
    count += step;
  }
}

// Spreads the mask over the repetitions of the coded payload: repetition j,
// symbol k goes to superpixel j * L + k. With an index table (parity mode)
// symbol k of repetition j takes the mask byte of the coded symbol that the
// table's row j mod 16 names; otherwise every repetition copies the mask's
// first L bytes. Superpixels past the last whole repetition stay unselected.
void selection_spread(uint8_t* selection, const uint8_t* mask, const uint8_t* indexes, int32_t total,
                 int32_t length, int32_t reps) {
  const int64_t used = static_cast<int64_t>(length) * reps;
  for (int32_t j = 0; j < reps; ++j) {
    uint8_t* dst = selection + static_cast<int64_t>(j) * length;
    if (indexes == nullptr) {
      std::memcpy(dst, mask, static_cast<size_t>(length));
      continue;
    }
    const uint8_t* row = indexes + static_cast<int64_t>(j % kIndexRows) * length;
    for (int32_t k = 0; k < length; ++k) {
      const int64_t at = static_cast<int64_t>(row[k]) * reps + j;
      // A table entry naming no symbol (only possible with a foreign table)
      // reads as unselected.
      dst[k] = at < total ? mask[at] : 0;
    }
  }
  if (total > used) {
    std::memset(selection + used, 0, static_cast<size_t>(total - used));
  }
}

}  // namespace lumamark
