// The pattern bank: dither patterns by position class, variant and level,
// all drawn from one generator stream keyed by the payload and the seed.
#include "kernels/pattern.h"

#include <cstddef>
#include <cstring>

#include "kernels/intmath.h"
#include "kernels/prng.h"

namespace lumamark {
namespace {

// Writes one hole of the dotted inner edge, skipping any position outside the
// width x height pattern (possible only with borders as large as the side).
inline void clear_at(int8_t* pattern, int32_t width, int32_t height, int32_t row, int32_t col) {
  if (row < 0 || row >= height || col < 0 || col >= width) return;
  pattern[static_cast<ptrdiff_t>(row) * width + col] = 0;
}

// Fills the inner area of one pattern, eight pixels per generator step; the
// unused bytes of a row's last step are discarded.
void fill_inner(int8_t* pattern, int32_t width, int32_t height, int32_t bw, int32_t bh,
                int32_t level, int32_t t, int32_t lo, int32_t hi, Prng64* noise) {
  if (!(bh < height - bh && bw < width - bw)) return;
  const int8_t on = static_cast<int8_t>(level + 1);
  for (int32_t r = bh; r < height - bh; ++r) {
    int8_t* row = pattern + static_cast<ptrdiff_t>(r) * width;
    for (int32_t c0 = bw; c0 < width - bw; c0 += 8) {
      const uint8_t* bytes = prng64_next(noise);
      const int32_t n = imin(8, width - bw - c0);
      for (int32_t k = 0; k < n; ++k) {
        const int32_t x = bytes[k];
        int8_t amp;
        if (level > 0) {
          amp = x <= t ? on : 0;
        } else if (x > t) {
          amp = 0;
        } else {
          amp = x <= lo ? 3 : (x <= hi ? 2 : 1);
        }
        row[c0 + k] = amp;
      }
    }
  }
}

// Holes every third pixel along the inner rim. The horizontal run uses the
// border height both as its row and as its first column, the vertical run the
// border width both as its column and as its first row.
void cut_dotted_edges(int8_t* pattern, int32_t width, int32_t height, int32_t bw, int32_t bh) {
  for (int32_t k = 0; bh + 3 * k < width - 3; ++k) {
    const int32_t col = bh + 3 * k + 2;
    clear_at(pattern, width, height, bh, col);
    clear_at(pattern, width, height, height - bh - 1, col);
  }
  for (int32_t k = 0; bw + 3 * k < height - 3; ++k) {
    const int32_t row = bw + 3 * k + 2;
    clear_at(pattern, width, height, row, bw);
    clear_at(pattern, width, height, row, width - bw - 1);
  }
}

}  // namespace

void pattern_layout(PatternLayout* layout, int32_t classes, int32_t variants, int32_t levels,
                    int32_t width, int32_t height, int32_t border_w, int32_t border_h) {
  layout->classes = classes;
  layout->variants = variants;
  layout->levels = levels;
  layout->width = width;
  layout->height = height;
  layout->border_w = border_w;
  layout->border_h = border_h;
  layout->level_stride = wrap_mul(width, height);
  layout->variant_stride = wrap_mul(levels, layout->level_stride);
  layout->class_stride = wrap_mul(variants, layout->variant_stride);
  layout->total = wrap_mul(classes, layout->class_stride);
}

int32_t border_or_default(int32_t setting, int32_t size) {
  return setting > 0 ? setting : imax(size / 8, 1);
}

int32_t key_hash(const char* text) {
  int32_t h = 0;
  if (text == nullptr) return h;
  for (const char* p = text; *p != '\0'; ++p) {
    const int32_t b = static_cast<signed char>(*p);
    h = (h * 31 + b) % 9001;  // |h| < 9001, so no overflow; the remainder keeps the sign
  }
  return h;
}

void pattern_bank_fill(int8_t* bank, const PatternLayout* layout, int32_t base_density,
                       const int32_t* class_adjust, const char* key, uint32_t seed,
                       bool dotted_edges) {
  if (layout->total > 0) std::memset(bank, 0, static_cast<size_t>(layout->total));

  Prng64 noise{};
  prng64_seed(&noise, seed, static_cast<uint32_t>(key_hash(key)));

  const int32_t width = layout->width;
  const int32_t height = layout->height;
  const int32_t levels = layout->levels;
  const int32_t bw = border_or_default(layout->border_w, width);
  const int32_t bh = border_or_default(layout->border_h, height);

  for (int32_t c = 0; c < layout->classes; ++c) {
    const int32_t adjust = class_adjust != nullptr ? class_adjust[c] : 0;
    const int32_t d = imin(wrap_add(base_density, adjust), 100);  // no lower bound
    const int32_t hi = wrap_mul(d / 2, 256) / 100;
    const int32_t lo = wrap_mul(d / 4, 256) / 100;
    for (int32_t v = 0; v < layout->variants; ++v) {
      for (int32_t level = 0; level < levels; ++level) {
        int8_t* pattern = bank + static_cast<ptrdiff_t>(c) * layout->class_stride +
                          static_cast<ptrdiff_t>(v) * layout->variant_stride +
                          static_cast<ptrdiff_t>(level) * layout->level_stride;
        // The covered share shrinks as 1 / (level + 1) while the amplitude grows.
        const int32_t t = wrap_mul(imin(wrap_mul(d, levels) / (level + 1), 100), 256) / 100;
        fill_inner(pattern, width, height, bw, bh, level, t, lo, hi, &noise);
        if (dotted_edges) cut_dotted_edges(pattern, width, height, bw, bh);
      }
    }
  }
}

const int8_t* pattern_select(const int8_t* bank, const PatternLayout* layout, int32_t cls,
                             int32_t variant, int32_t value) {
  int32_t level = 0;
  if (value != 0) {
    // |value| - 1 computed wide: |INT32_MIN| - 1 is still a 32-bit value.
    const int64_t magnitude = value < 0 ? -static_cast<int64_t>(value) : value;
    level = static_cast<int32_t>(magnitude - 1) % layout->levels;
  }
  return bank + static_cast<ptrdiff_t>(cls) * layout->class_stride +
         static_cast<ptrdiff_t>(variant % layout->variants) * layout->variant_stride +
         static_cast<ptrdiff_t>(level) * layout->level_stride;
}

}  // namespace lumamark
