// Cell sums for the image-hash seed, one cell at a time.
#include "kernels/cells.h"

#include <cstddef>

namespace lumamark {

void cell_sums(const uint8_t* luma, int32_t stride, int32_t cw, int32_t ch, int32_t gx,
               int32_t first_row, int32_t end_row, int32_t* values) {
  for (int32_t r = first_row; r < end_row; ++r) {
    for (int32_t c = 0; c < gx; ++c) {
      uint32_t sum = 0;
      for (int32_t y = 0; y < ch; ++y) {
        const uint8_t* p = luma + (static_cast<ptrdiff_t>(r) * ch + y) * stride +
                           static_cast<ptrdiff_t>(c) * cw;
        for (int32_t x = 0; x < cw; ++x) sum += p[x];
      }
      // Arithmetic shift of the wrapped signed sum.
      values[static_cast<ptrdiff_t>(r) * gx + c] = static_cast<int32_t>(sum) >> 8;
    }
  }
}

}  // namespace lumamark
