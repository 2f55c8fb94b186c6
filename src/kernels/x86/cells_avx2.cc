// Cell sums for the image-hash seed with AVX2: the columns of one row of
// cells are summed down in 16-bit lanes, then each cell adds its columns.
#include <immintrin.h>

#include <cstddef>
#include <cstdlib>

#include "kernels/cells.h"
#include "kernels/x86/avx2.h"

namespace lumamark {

void cell_sums_avx2(const uint8_t* luma, int32_t stride, int32_t cw, int32_t ch, int32_t gx,
                    int32_t first_row, int32_t end_row, int32_t* values) {
  const int64_t width = static_cast<int64_t>(gx) * cw;
  // A column of more than 257 samples no longer fits 16 bits.
  if (ch > 257 || width < 32 || first_row >= end_row) {
    cell_sums(luma, stride, cw, ch, gx, first_row, end_row, values);
    return;
  }
  uint16_t* columns = static_cast<uint16_t*>(std::malloc(static_cast<size_t>(width) * 2));
  if (columns == nullptr) {
    cell_sums(luma, stride, cw, ch, gx, first_row, end_row, values);
    return;
  }
  for (int32_t r = first_row; r < end_row; ++r) {
    const uint8_t* top = luma + static_cast<ptrdiff_t>(r) * ch * stride;
    int64_t x = 0;
    for (; x + 32 <= width; x += 32) {
      __m256i lo = _mm256_setzero_si256();
      __m256i hi = _mm256_setzero_si256();
      const uint8_t* p = top + x;
      for (int32_t y = 0; y < ch; ++y, p += stride) {
        lo = _mm256_add_epi16(lo, _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))));
        hi = _mm256_add_epi16(hi, _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16))));
      }
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(columns + x), lo);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(columns + x + 16), hi);
    }
    for (; x < width; ++x) {
      uint32_t s = 0;
      const uint8_t* p = top + x;
      for (int32_t y = 0; y < ch; ++y, p += stride) s += *p;
      columns[x] = static_cast<uint16_t>(s);
    }
    int32_t* out = values + static_cast<ptrdiff_t>(r) * gx;
    const uint16_t* col = columns;
    for (int32_t c = 0; c < gx; ++c, col += cw) {
      uint32_t sum = 0;
      for (int32_t k = 0; k < cw; ++k) sum += col[k];
      out[c] = static_cast<int32_t>(sum) >> 8;
    }
  }
  std::free(columns);
}

}  // namespace lumamark
