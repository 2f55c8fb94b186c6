// Superpixel seed from the luma content: a hash over coarse cell sums.
#include "filter/seed.h"

#include <cstddef>

#include "kernels/intmath.h"

namespace lumamark {

int32_t image_seed(const uint8_t* luma, int32_t width, int32_t height, int32_t stride,
                   int32_t cells_x, int32_t cells_y, int32_t cols, int32_t rows) {
  const int32_t gx = wrap_mul(cols, cells_x);
  const int32_t gy = wrap_mul(rows, cells_y);
  const int32_t n = wrap_mul(gx, gy);
  // No cell at all (including a cell count that wraps to a non-positive one).
  if (n < 1 || gx < 1 || gy < 1) return 0;
  const int32_t cw = width / gx;
  const int32_t ch = height / gy;

  int32_t h = 0;
  for (int32_t r = 0; r < gy; ++r) {
    for (int32_t c = 0; c < gx; ++c) {
      int32_t v = 0;
      if (cw >= 1 && ch >= 1) {
        uint32_t sum = 0;
        for (int32_t y = 0; y < ch; ++y) {
          const ptrdiff_t row_off = (static_cast<ptrdiff_t>(r) * ch + y) * stride +
                                    static_cast<ptrdiff_t>(c) * cw;
          const uint8_t* p = luma + row_off;
          for (int32_t x = 0; x < cw; ++x) sum += p[x];
        }
        // Arithmetic shift of the wrapped signed sum.
        v = static_cast<int32_t>(sum) >> 8;
      }
      h = wrap_add(wrap_mul(h, 31), v) % 9001;
    }
  }
  return h % 32;
}

}  // namespace lumamark
