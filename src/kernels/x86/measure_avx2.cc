// signal_measure with AVX2 for superpixels up to 16 pixels wide: one inner
// row at a time, every inner pixel in its own 16-bit lane. The predictions
// divide by multiplication (small_divisor16, exact for these numerators),
// and the residual is chosen by the same comparisons as the plain kernel.
#include <immintrin.h>

#include <cstddef>

#include "kernels/divide.h"
#include "kernels/intmath.h"
#include "kernels/pattern.h"
#include "kernels/measure.h"
#include "kernels/x86/avx2.h"
#include "kernels/x86/rows_avx2.h"

namespace lumamark {
namespace {

// (n + half) / d in every lane.
inline __m256i divide(__m256i n, __m256i half, __m256i mul, __m128i shift) {
  return _mm256_srl_epi16(_mm256_mulhi_epu16(_mm256_add_epi16(n, half), mul), shift);
}

// Byte shuffles that move a row left by 0..15 bytes, zeros coming in.
struct ShiftTable {
  alignas(16) uint8_t order[16][16];
};

constexpr ShiftTable make_shift_table() {
  ShiftTable t{};
  for (int from = 0; from < 16; ++from) {
    for (int k = 0; k < 16; ++k) t.order[from][k] = k + from < 16 ? static_cast<uint8_t>(k + from) : 0x80;
  }
  return t;
}

constexpr ShiftTable kShift = make_shift_table();

// Row bytes from column `from` on (from < 16), widened: lane j holds byte
// from + j.
inline __m256i widened_from(__m128i row, __m128i shift) {
  return _mm256_cvtepu8_epi16(_mm_shuffle_epi8(row, shift));
}

}  // namespace

int32_t signal_measure_avx2(const uint8_t* luma, const FrameGeometry* geometry, int32_t x,
                            int32_t y) {
  const int32_t sp_w = geometry->sp_w;
  const int32_t sp_h = geometry->sp_h;
  const int32_t stride = geometry->stride;
  const int32_t bw = border_or_default(geometry->border_w, sp_w);
  const int32_t bh = border_or_default(geometry->border_h, sp_h);
  // Borders of half the side or more leave no inner area (formed in 64
  // bits, as in the plain kernel).
  if (int64_t{2} * bw >= sp_w || int64_t{2} * bh >= sp_h) return 0;
  // Wider superpixels do not fit one register row; taller ones would need
  // divisors beyond small_divisor16.
  if (sp_w > 16 || sp_h > 64) return signal_measure(luma, geometry, x, y);
  const int32_t iw = sp_w - 2 * bw;
  const int32_t ih = sp_h - 2 * bh;
  const uint32_t nW = static_cast<uint32_t>(iw) + 1;
  const uint32_t nH = static_cast<uint32_t>(ih) + 1;

  const ptrdiff_t pitch = stride;
  const uint8_t* base = luma + static_cast<ptrdiff_t>(y) * pitch + x;
  // bw < sp_w / 2 <= 8 here.
  const __m128i shift = _mm_load_si128(reinterpret_cast<const __m128i*>(kShift.order[bw]));
  const __m256i top = widened_from(load_row16(base + (bh - 1) * pitch, sp_w), shift);
  const __m256i bottom = widened_from(load_row16(base + (sp_h - bh) * pitch, sp_w), shift);

  const __m256i j = _mm256_setr_epi16(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
  const __m256i valid = _mm256_cmpgt_epi16(_mm256_set1_epi16(static_cast<int16_t>(iw + 1)), j);
  const __m256i w_right = j;
  const __m256i w_left = _mm256_sub_epi16(_mm256_set1_epi16(static_cast<int16_t>(nW)), j);
  const SmallDivisor16 dw = small_divisor16(nW);
  const SmallDivisor16 dh = small_divisor16(nH);
  const __m256i w_mul = _mm256_set1_epi16(static_cast<int16_t>(dw.mul));
  const __m128i w_shift = _mm_cvtsi32_si128(dw.shift);
  const __m256i w_half = _mm256_set1_epi16(static_cast<int16_t>(nW / 2));
  const __m256i h_mul = _mm256_set1_epi16(static_cast<int16_t>(dh.mul));
  const __m128i h_shift = _mm_cvtsi32_si128(dh.shift);
  const __m256i h_half = _mm256_set1_epi16(static_cast<int16_t>(nH / 2));
  const __m256i one = _mm256_set1_epi16(1);

  __m256i sum = _mm256_setzero_si256();
  for (int32_t i = 1; i <= ih; ++i) {
    const uint8_t* row = base + (bh - 1 + i) * pitch;
    const __m256i p = widened_from(load_row16(row, sp_w), shift);
    const __m256i left = _mm256_set1_epi16(row[bw - 1]);
    const __m256i right = _mm256_set1_epi16(row[sp_w - bw]);
    const __m256i h = divide(_mm256_add_epi16(_mm256_mullo_epi16(left, w_left), _mm256_mullo_epi16(right, w_right)),
                             w_half, w_mul, w_shift);
    const __m256i wi = _mm256_set1_epi16(static_cast<int16_t>(i));
    const __m256i wt = _mm256_set1_epi16(static_cast<int16_t>(nH - i));
    const __m256i v = divide(_mm256_add_epi16(_mm256_mullo_epi16(top, wt), _mm256_mullo_epi16(bottom, wi)),
                             h_half, h_mul, h_shift);
    const __m256i m = _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(h, v), one), 1);
    const __m256i rh = _mm256_sub_epi16(p, h);
    const __m256i rv = _mm256_sub_epi16(p, v);
    const __m256i rm = _mm256_sub_epi16(p, m);
    const __m256i ah = _mm256_abs_epi16(rh);
    const __m256i av = _mm256_abs_epi16(rv);
    const __m256i am = _mm256_abs_epi16(rm);
    // dh < min(dv, dm): horizontal; else dm <= dv: mean; else vertical.
    const __m256i take_h = _mm256_cmpgt_epi16(_mm256_min_epi16(av, am), ah);
    const __m256i take_v = _mm256_cmpgt_epi16(am, av);
    const __m256i r = _mm256_blendv_epi8(_mm256_blendv_epi8(rm, rv, take_v), rh, take_h);
    sum = _mm256_add_epi16(sum, _mm256_and_si256(r, valid));
  }
  // Each lane holds at most 62 residuals of at most 255: no 16-bit overflow.
  __m256i wide = _mm256_madd_epi16(sum, one);
  __m128i s4 = _mm_add_epi32(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
  s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0x4E));
  s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0xB1));
  return _mm_cvtsi128_si32(s4);
}

}  // namespace lumamark
