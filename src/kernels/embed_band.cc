// A run of superpixels, one embed_superpixel call each.
#include "kernels/embed_band.h"

#include <cstddef>

#include "kernels/embed.h"

namespace lumamark {

void embed_band(const EmbedBand* b) {
  for (int32_t i = 0; i < b->count; ++i) {
    const EmbedPattern* p = pick_pattern(b, i);
    if (p == nullptr) continue;
    embed_superpixel(b->luma, b->geometry, b->first_x + i * b->geometry->sp_w, b->y, 1, b->picks[i].value,
                     p->pattern, b->texture, b->pm_mode);
  }
}

int64_t embed_band_scratch_bytes(int32_t sp_w, int32_t sp_h, int32_t count) {
  if (sp_w < 1 || sp_h < 1 || count < 1) return 0;
  const int64_t n = static_cast<int64_t>(count) * sp_w + 64;
  const int64_t steps = (static_cast<int64_t>(sp_w) * sp_h + 7) / 8 + 2;
  // Amplitude rows (16-bit) and random-byte rows of every superpixel row,
  // random bytes of every superpixel, per-superpixel state, border sums; each
  // part 64-byte aligned.
  return n * 3 * sp_h + static_cast<int64_t>(count + 8) * steps * 8 +
         static_cast<int64_t>(count) * 64 + 6 * n * 4 + 8 * 64;
}

int64_t embed_band_prepare(const EmbedPattern*, int32_t, int32_t, int32_t, int32_t, uint8_t*) {
  return 0;
}

void describe_pattern(const int8_t* pattern, int32_t w, int32_t h, EmbedPattern* out) {
  int32_t nonzero = 0;
  uint64_t mask = 0;
  for (int32_t r = 0; r < h; ++r) {
    int32_t row = 0;
    for (int32_t c = 0; c < w; ++c) row += pattern[static_cast<ptrdiff_t>(r) * w + c] != 0;
    nonzero += row;
    if (row != 0 || r >= 64) mask |= uint64_t{1} << (r < 64 ? r : 63);
  }
  out->pattern = pattern;
  out->nonzero = nonzero;
  out->row_mask = mask;
}

}  // namespace lumamark
