// Texture map rows with AVX2, sixteen pixels per step in 16-bit lanes.
//
// The vertical window sum of every column is kept in a row of 16-bit sums
// that moves down one row at a time; the horizontal window sums come from a
// 16-bit prefix sum of the row, whose wrapped differences are exact because
// a window never sums to more than 127 x 255. Both rounded means divide by a
// multiplication (small_divisor16). Columns whose horizontal window is cut
// by the row's ends are done one at a time.
#include <immintrin.h>

#include <cstddef>
#include <cstdlib>

#include "kernels/divide.h"
#include "kernels/texture.h"
#include "kernels/x86/avx2.h"

namespace lumamark {
namespace {

inline uint8_t texture_value(uint32_t mh, uint32_t mv, uint32_t p) {
  const uint32_t dh = mh > p ? mh - p : p - mh;
  const uint32_t dv = mv > p ? mv - p : p - mv;
  const uint32_t k = dh < dv ? dh : dv;
  const uint32_t v = dh + dv + 7 * k;
  return static_cast<uint8_t>(v < 50 ? v : 50);
}

inline __m256i load16_u8(const uint8_t* p) {
  return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

// prefix[x] = row[0] + ... + row[x - 1] (mod 2^16) for x = 0..w.
void row_prefix(const uint8_t* row, int32_t w, uint16_t* prefix) {
  const __m256i last_word = _mm256_setr_epi8(14, 15, 14, 15, 14, 15, 14, 15, 14, 15, 14, 15, 14,
                                             15, 14, 15, 14, 15, 14, 15, 14, 15, 14, 15, 14, 15,
                                             14, 15, 14, 15, 14, 15);
  prefix[0] = 0;
  __m256i carry = _mm256_setzero_si256();
  int32_t x = 0;
  for (; x + 16 <= w; x += 16) {
    __m256i v = load16_u8(row + x);
    v = _mm256_add_epi16(v, _mm256_slli_si256(v, 2));
    v = _mm256_add_epi16(v, _mm256_slli_si256(v, 4));
    v = _mm256_add_epi16(v, _mm256_slli_si256(v, 8));
    // Each 128-bit half now holds its own running sum; carry the low half's
    // total into the high half, then the previous block's total into both.
    const __m256i half_total = _mm256_shuffle_epi8(v, last_word);
    v = _mm256_add_epi16(v, _mm256_permute2x128_si256(half_total, half_total, 0x08));
    v = _mm256_add_epi16(v, carry);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(prefix + x + 1), v);
    carry = _mm256_permute4x64_epi64(_mm256_shuffle_epi8(v, last_word), 0xFF);
  }
  for (; x < w; ++x) prefix[x + 1] = static_cast<uint16_t>(prefix[x] + row[x]);
}

// columns[x] += add[x] - drop[x] for x < w; either row may be null.
void move_columns(uint16_t* columns, const uint8_t* drop, const uint8_t* add, int32_t w) {
  int32_t x = 0;
  for (; x + 16 <= w; x += 16) {
    __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(columns + x));
    if (drop != nullptr) c = _mm256_sub_epi16(c, load16_u8(drop + x));
    if (add != nullptr) c = _mm256_add_epi16(c, load16_u8(add + x));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(columns + x), c);
  }
  for (; x < w; ++x) {
    uint32_t c = columns[x];
    if (drop != nullptr) c -= drop[x];
    if (add != nullptr) c += add[x];
    columns[x] = static_cast<uint16_t>(c);
  }
}

}  // namespace

void texture_rows_avx2(const TextureRows* rows) {
  if (rows == nullptr) return;
  const int32_t w = rows->width;
  const int32_t h = rows->height;
  const int32_t r = rows->radius;
  // Sums must fit 16 bits and the divisors must suit small_divisor16.
  if (r < 1 || 2 * r + 1 > static_cast<int32_t>(kMaxSmallDivisor16) || h < 2 || w < 1) {
    texture_rows_direct(rows);
    return;
  }
  const int32_t first = rows->first_row < 0 ? 0 : rows->first_row;
  const int32_t end = rows->end_row > h ? h : rows->end_row;
  if (first >= end) return;

  const size_t cells = static_cast<size_t>(w) + 16;
  uint16_t* scratch = static_cast<uint16_t*>(std::malloc(2 * cells * sizeof(uint16_t)));
  if (scratch == nullptr) {
    texture_rows_direct(rows);
    return;
  }
  uint16_t* prefix = scratch;
  uint16_t* columns = scratch + cells;
  const uint8_t* src = rows->src;
  const ptrdiff_t stride = rows->stride;

  int32_t y0 = first - r > 0 ? first - r : 0;
  int32_t y1 = first + r + 1 < h ? first + r + 1 : h;
  for (int32_t x = 0; x < w; ++x) columns[x] = 0;
  for (int32_t y = y0; y < y1; ++y) move_columns(columns, nullptr, src + y * stride, w);

  const uint32_t full = static_cast<uint32_t>(2 * r + 1);
  const SmallDivisor16 hdiv = small_divisor16(full);
  const __m256i h_mul = _mm256_set1_epi16(static_cast<int16_t>(hdiv.mul));
  const __m128i h_shift = _mm_cvtsi32_si128(hdiv.shift);
  const __m256i h_half = _mm256_set1_epi16(static_cast<int16_t>(full / 2));
  const __m256i cap = _mm256_set1_epi16(50);

  for (int32_t y = first; y < end; ++y) {
    if (y > first) {
      const int32_t ny0 = y - r > 0 ? y - r : 0;
      const int32_t ny1 = y + r + 1 < h ? y + r + 1 : h;
      move_columns(columns, ny0 > y0 ? src + y0 * stride : nullptr,
                   ny1 > y1 ? src + y1 * stride : nullptr, w);
      y0 = ny0;
      y1 = ny1;
    }
    if (rows->needed != nullptr && rows->needed[y] == 0) continue;
    const uint32_t nv = static_cast<uint32_t>(y1 - y0);
    const SmallDivisor16 vdiv = small_divisor16(nv);
    const __m256i v_mul = _mm256_set1_epi16(static_cast<int16_t>(vdiv.mul));
    const __m128i v_shift = _mm_cvtsi32_si128(vdiv.shift);
    const __m256i v_half = _mm256_set1_epi16(static_cast<int16_t>(nv / 2));

    const uint8_t* row = src + y * stride;
    uint8_t* out = rows->out + static_cast<ptrdiff_t>(y) * w;
    row_prefix(row, w, prefix);

    // One column at a time, with its own horizontal window.
    auto single = [&](int32_t x) {
      const int32_t s = x - r > 0 ? x - r : 0;
      const int32_t e = x + r < w - 1 ? x + r : w - 1;
      const uint32_t n_h = static_cast<uint32_t>(e - s + 1);
      const uint32_t sum = static_cast<uint16_t>(prefix[e + 1] - prefix[s]);
      const uint32_t mh = (sum + n_h / 2) / n_h;
      const uint32_t mv = small_divide16(columns[x] + nv / 2, vdiv);
      out[x] = texture_value(mh, mv, row[x]);
    };

    // Full windows for r <= x <= w - 1 - r.
    const int32_t inner_end = w - r;
    int32_t x = 0;
    for (; x < r && x < w; ++x) single(x);
    for (; x + 16 <= inner_end; x += 16) {
      const __m256i hi_edge = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(prefix + x + r + 1));
      const __m256i lo_edge = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(prefix + x - r));
      const __m256i hsum = _mm256_sub_epi16(hi_edge, lo_edge);
      const __m256i mh =
          _mm256_srl_epi16(_mm256_mulhi_epu16(_mm256_add_epi16(hsum, h_half), h_mul), h_shift);
      const __m256i vsum = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(columns + x));
      const __m256i mv =
          _mm256_srl_epi16(_mm256_mulhi_epu16(_mm256_add_epi16(vsum, v_half), v_mul), v_shift);
      const __m256i p = load16_u8(row + x);
      const __m256i dh = _mm256_abs_epi16(_mm256_sub_epi16(mh, p));
      const __m256i dv = _mm256_abs_epi16(_mm256_sub_epi16(mv, p));
      const __m256i k = _mm256_min_epi16(dh, dv);
      __m256i v = _mm256_add_epi16(_mm256_add_epi16(dh, dv), _mm256_sub_epi16(_mm256_slli_epi16(k, 3), k));
      v = _mm256_min_epi16(v, cap);
      const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(v, v), 0x08);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm256_castsi256_si128(packed));
    }
    for (; x < w; ++x) single(x);
  }
  std::free(scratch);
}

}  // namespace lumamark
