// Cell sums for the image-hash seed with AVX2: the columns of one row of
// cells are summed down in 16-bit lanes, then each cell adds its columns.
#include <immintrin.h>

#include <cstddef>
#include <cstdlib>

#include "kernels/cells.h"
#include "kernels/x86/avx2.h"

namespace lumamark {

namespace {

// Cells at most eight samples wide: every cell row of a cell is moved into
// its own eight-byte half of a register and summed by a sum of absolute
// differences against zero, four cells per step. The last cells of a row,
// whose loads would reach past the grid, are summed one by one.
void narrow_cells(const uint8_t* luma, int32_t stride, int32_t cw, int32_t ch, int32_t gx,
                  int32_t first_row, int32_t end_row, int32_t* values) {
  alignas(16) uint8_t order[16];
  for (int32_t k = 0; k < 16; ++k) {
    const int32_t half = k / 8, at = k % 8;
    order[k] = at < cw ? static_cast<uint8_t>(half * cw + at) : 0x80;
  }
  const __m256i gather = _mm256_broadcastsi128_si256(_mm_load_si128(reinterpret_cast<const __m128i*>(order)));
  const __m256i zero = _mm256_setzero_si256();
  const int64_t width = static_cast<int64_t>(gx) * cw;
  for (int32_t r = first_row; r < end_row; ++r) {
    const uint8_t* top = luma + static_cast<ptrdiff_t>(r) * ch * stride;
    int32_t* out = values + static_cast<ptrdiff_t>(r) * gx;
    int32_t c = 0;
    // Four cells from cell c on; the second load ends 16 bytes after cell
    // c + 2 begins.
    for (; static_cast<int64_t>(c + 2) * cw + 16 <= width; c += 4) {
      __m256i acc = zero;
      const uint8_t* p = top + static_cast<ptrdiff_t>(c) * cw;
      for (int32_t y = 0; y < ch; ++y, p += stride) {
        const __m256i two_pairs = _mm256_inserti128_si256(
            _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))),
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 2 * cw)), 1);
        acc = _mm256_add_epi64(acc, _mm256_sad_epu8(_mm256_shuffle_epi8(two_pairs, gather), zero));
      }
      // The four sums sit in the low halves of the four 64-bit lanes.
      const __m256i low = _mm256_permute4x64_epi64(_mm256_shuffle_epi32(acc, 0x08), 0x08);
      const __m128i v = _mm_srai_epi32(_mm256_castsi256_si128(low), 8);
      if (c + 4 <= gx) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + c), v);
      } else {
        alignas(16) int32_t four[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(four), v);
        for (int32_t k = 0; c + k < gx; ++k) out[c + k] = four[k];
      }
    }
    for (; c < gx; ++c) {
      uint32_t sum = 0;
      const uint8_t* p = top + static_cast<ptrdiff_t>(c) * cw;
      for (int32_t y = 0; y < ch; ++y, p += stride) {
        for (int32_t x = 0; x < cw; ++x) sum += p[x];
      }
      out[c] = static_cast<int32_t>(sum) >> 8;
    }
  }
}

}  // namespace

void cell_sums_avx2(const uint8_t* luma, int32_t stride, int32_t cw, int32_t ch, int32_t gx,
                    int32_t first_row, int32_t end_row, int32_t* values) {
  // Cell sums stay below 2^31 here, so the shift of the 32-bit sum is that
  // of the exact sum.
  if (cw <= 8 && ch <= 65535) {
    narrow_cells(luma, stride, cw, ch, gx, first_row, end_row, values);
    return;
  }
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
