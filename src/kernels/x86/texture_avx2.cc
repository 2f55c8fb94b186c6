// Texture map rows with AVX2, sixteen pixels per step in 16-bit lanes.
//
// The vertical window sum of every column is kept in a row of 16-bit sums
// that moves down one row at a time; the horizontal window sums come from a
// 16-bit prefix sum of the row, whose wrapped differences are exact because
// a window never sums to more than 127 x 255. Both rounded means divide by a
// multiplication (small_divisor16). Columns whose horizontal window is cut
// by the row's ends take the same prefix sums, padded past both ends, and a
// division by their own window size, sixteen at a time; rows narrower than
// sixteen columns are done one column at a time.
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

// Running prefix sums of a row, sixteen samples at a time:
// prefix[x] = row[0] + ... + row[x - 1] (mod 2^16).
class PrefixScan {
 public:
  PrefixScan(const uint8_t* row, uint16_t* prefix) : row_(row), prefix_(prefix) { prefix_[0] = 0; }

  // Fills prefix[x + 1 .. x + 16] for the next block x (a multiple of 16).
  void block(int32_t x) {
    __m256i v = load16_u8(row_ + x);
    v = _mm256_add_epi16(v, _mm256_slli_si256(v, 2));
    v = _mm256_add_epi16(v, _mm256_slli_si256(v, 4));
    v = _mm256_add_epi16(v, _mm256_slli_si256(v, 8));
    // Each 128-bit half now holds its own running sum; carry the low half's
    // total into the high half, then the previous block's total into both.
    const __m256i half_total = _mm256_shuffle_epi8(v, last_word());
    v = _mm256_add_epi16(v, _mm256_permute2x128_si256(half_total, half_total, 0x08));
    // The block total is taken before the carry is added, so that the carry
    // from block to block is one addition long.
    const __m256i total = _mm256_permute4x64_epi64(_mm256_shuffle_epi8(v, last_word()), 0xFF);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(prefix_ + x + 1), _mm256_add_epi16(v, carry_));
    carry_ = _mm256_add_epi16(carry_, total);
  }

  // Fills prefix[x + 1 .. w] one sample at a time.
  void tail(int32_t x, int32_t w) {
    for (; x < w; ++x) prefix_[x + 1] = static_cast<uint16_t>(prefix_[x] + row_[x]);
  }

 private:
  static __m256i last_word() {
    return _mm256_setr_epi8(14, 15, 14, 15, 14, 15, 14, 15, 14, 15, 14, 15, 14, 15, 14, 15, 14, 15,
                            14, 15, 14, 15, 14, 15, 14, 15, 14, 15, 14, 15, 14, 15);
  }

  const uint8_t* row_;
  uint16_t* prefix_;
  __m256i carry_ = _mm256_setzero_si256();
};

// Rounded means of sixteen window sums: (sum + n / 2) / n.
inline __m256i rounded_mean(__m256i sum, __m256i half, __m256i mul, __m128i shift) {
  return _mm256_srl_epi16(_mm256_mulhi_epu16(_mm256_add_epi16(sum, half), mul), shift);
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

  // The prefix sums have r + 16 zeros in front of prefix[0] and, past
  // prefix[w], copies of it: a window cut by either end of the row is then
  // summed like any other, as the difference of two prefix sums.
  const size_t front = static_cast<size_t>(r) + 16;
  const size_t prefix_cells = front + static_cast<size_t>(w) + 1 + static_cast<size_t>(r) + 32;
  const size_t cells = static_cast<size_t>(w) + 16;
  uint16_t* scratch = static_cast<uint16_t*>(std::malloc((prefix_cells + cells) * sizeof(uint16_t)));
  if (scratch == nullptr) {
    texture_rows_direct(rows);
    return;
  }
  for (size_t k = 0; k < front; ++k) scratch[k] = 0;
  uint16_t* prefix = scratch + front;
  uint16_t* columns = scratch + prefix_cells;
  const uint8_t* src = rows->src;
  const ptrdiff_t stride = rows->stride;

  int32_t y0 = first - r > 0 ? first - r : 0;
  int32_t y1 = first + r + 1 < h ? first + r + 1 : h;
  for (int32_t x = 0; x < w; ++x) columns[x] = 0;
  for (int32_t y = y0; y < y1; ++y) move_columns(columns, nullptr, src + y * stride, w);

  // Divisors of every window size that the columns near the ends see.
  SmallDivisor16 window_div[kMaxSmallDivisor16 + 1];
  for (uint32_t n = 2; n <= static_cast<uint32_t>(2 * r + 1); ++n) window_div[n] = small_divisor16(n);
  const uint32_t full = static_cast<uint32_t>(2 * r + 1);
  const SmallDivisor16 hdiv = small_divisor16(full);
  const __m256i h_mul = _mm256_set1_epi16(static_cast<int16_t>(hdiv.mul));
  const __m128i h_shift = _mm_cvtsi32_si128(hdiv.shift);
  const __m256i h_half = _mm256_set1_epi16(static_cast<int16_t>(full / 2));
  const __m256i cap = _mm256_set1_epi16(50);
  const __m256i cap8 = _mm256_set1_epi8(50);
  const __m256i eight = _mm256_set1_epi8(8);

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

    // One column at a time, with its own horizontal window.
    auto single = [&](int32_t x) {
      const int32_t s = x - r > 0 ? x - r : 0;
      const int32_t e = x + r < w - 1 ? x + r : w - 1;
      const uint32_t n_h = static_cast<uint32_t>(e - s + 1);
      const uint32_t sum = static_cast<uint16_t>(prefix[e + 1] - prefix[s]);
      const uint32_t mh = n_h == 1 ? sum : small_divide16(sum + n_h / 2, window_div[n_h]);
      const uint32_t mv = small_divide16(columns[x] + nv / 2, vdiv);
      out[x] = texture_value(mh, mv, row[x]);
    };
    // Both means of sixteen columns with full windows, from x on.
    auto means = [&](int32_t x, __m256i* mh, __m256i* mv) {
      const __m256i hi_edge = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(prefix + x + r + 1));
      const __m256i lo_edge = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(prefix + x - r));
      *mh = rounded_mean(_mm256_sub_epi16(hi_edge, lo_edge), h_half, h_mul, h_shift);
      *mv = rounded_mean(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(columns + x)), v_half,
                         v_mul, v_shift);
    };
    // Thirty-two columns: the means packed to bytes, then
    // min(dh + dv + 7 min(dh, dv), 50) in saturating byte arithmetic, which
    // is exact because every saturation lies above 50 (k is cut at 8 first:
    // 7 x 8 is already above 50).
    auto block32 = [&](int32_t x) {
      __m256i mh0, mv0, mh1, mv1;
      means(x, &mh0, &mv0);
      means(x + 16, &mh1, &mv1);
      const __m256i mh = _mm256_permute4x64_epi64(_mm256_packus_epi16(mh0, mh1), 0xD8);
      const __m256i mv = _mm256_permute4x64_epi64(_mm256_packus_epi16(mv0, mv1), 0xD8);
      const __m256i p = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + x));
      const __m256i dh = _mm256_or_si256(_mm256_subs_epu8(mh, p), _mm256_subs_epu8(p, mh));
      const __m256i dv = _mm256_or_si256(_mm256_subs_epu8(mv, p), _mm256_subs_epu8(p, mv));
      const __m256i k = _mm256_min_epu8(_mm256_min_epu8(dh, dv), eight);
      const __m256i k7 = _mm256_sub_epi8(_mm256_slli_epi16(k, 3), k);
      const __m256i v = _mm256_min_epu8(_mm256_adds_epu8(_mm256_adds_epu8(dh, dv), k7), cap8);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x), v);
    };
    // Sixteen columns from their means in 16-bit lanes.
    auto finish16 = [&](int32_t x, __m256i mh, __m256i mv) {
      const __m256i p = load16_u8(row + x);
      const __m256i dh = _mm256_abs_epi16(_mm256_sub_epi16(mh, p));
      const __m256i dv = _mm256_abs_epi16(_mm256_sub_epi16(mv, p));
      const __m256i k = _mm256_min_epi16(dh, dv);
      __m256i v = _mm256_add_epi16(_mm256_add_epi16(dh, dv), _mm256_sub_epi16(_mm256_slli_epi16(k, 3), k));
      v = _mm256_min_epi16(v, cap);
      const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(v, v), 0x08);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), _mm256_castsi256_si128(packed));
    };
    auto block16 = [&](int32_t x) {
      __m256i mh, mv;
      means(x, &mh, &mv);
      finish16(x, mh, mv);
    };

    // Sixteen columns from x0 (0 <= x0 <= w - 16) whose horizontal windows
    // may be cut by the row's ends: the window sums come from the padded
    // prefix sums, and each column's rounded mean is divided by its own
    // window size in single precision, which is exact here (the sum is at
    // most 127 x 255 + 63 and the divisor at most 127, so a quotient that is
    // not whole lies at least 1/127 from the next whole number, far more
    // than the rounding error).
    auto edge16 = [&](int32_t x0) {
      const __m256i hi_edge = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(prefix + x0 + r + 1));
      const __m256i lo_edge = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(prefix + x0 - r));
      const __m256i sum = _mm256_sub_epi16(hi_edge, lo_edge);
      const __m256i rv = _mm256_set1_epi32(r);
      const __m256i last = _mm256_set1_epi32(w - 1);
      auto half_mean = [&](__m256i sums, int32_t at) {
        const __m256i x = _mm256_add_epi32(_mm256_set1_epi32(at), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        const __m256i s0 = _mm256_max_epi32(_mm256_sub_epi32(x, rv), _mm256_setzero_si256());
        const __m256i e0 = _mm256_min_epi32(_mm256_add_epi32(x, rv), last);
        const __m256i n = _mm256_add_epi32(_mm256_sub_epi32(e0, s0), _mm256_set1_epi32(1));
        const __m256i rounded = _mm256_add_epi32(sums, _mm256_srli_epi32(n, 1));
        return _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(rounded), _mm256_cvtepi32_ps(n)));
      };
      const __m256i mh_lo = half_mean(_mm256_cvtepu16_epi32(_mm256_castsi256_si128(sum)), x0);
      const __m256i mh_hi = half_mean(_mm256_cvtepu16_epi32(_mm256_extracti128_si256(sum, 1)), x0 + 8);
      const __m256i mh = _mm256_permute4x64_epi64(_mm256_packus_epi32(mh_lo, mh_hi), 0xD8);
      const __m256i mv = rounded_mean(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(columns + x0)),
                                      v_half, v_mul, v_shift);
      finish16(x0, mh, mv);
    };

    // The prefix sums run ahead of the columns being finished: columns
    // x .. x + 31 need prefix[x - r .. x + 32 + r]. They are read at least
    // kLag columns after they are stored, so that the loads find them in the
    // cache rather than still in the store buffer (loads that straddle
    // pending stores stall). Full windows lie in r <= x <= w - 1 - r.
    constexpr int32_t kLag = 64;
    const int32_t inner_end = w - r;
    PrefixScan scan(row, prefix);
    int32_t scanned = 0;  // prefix[0 .. scanned] are known
    int32_t x = r;
    for (; scanned + 16 <= w && scanned < 2 * r + 32 + kLag; scanned += 16) scan.block(scanned);
    // Two blocks of the scan, then one block of columns, kLag behind.
    for (; scanned + 32 <= w && x + 32 <= inner_end; scanned += 32, x += 32) {
      scan.block(scanned);
      scan.block(scanned + 16);
      block32(x);
    }
    for (; scanned + 16 <= w; scanned += 16) scan.block(scanned);
    scan.tail(scanned, w);
    for (int32_t k = 1; k <= r + 16; ++k) prefix[w + k] = prefix[w];
    for (; x + 32 <= inner_end; x += 32) block32(x);
    for (; x + 16 <= inner_end; x += 16) block16(x);
    if (w < 16) {
      for (int32_t c = 0; c < w; ++c) single(c);
      continue;
    }
    // Columns [0, r) and [x, w) remain.
    for (int32_t c = 0; c < r && c < w; c += 16) edge16(c < w - 16 ? c : w - 16);
    while (x < w) {
      const int32_t at = x < w - 16 ? x : w - 16;
      edge16(at);
      x = at + 16;
    }
  }
  std::free(scratch);
}

}  // namespace lumamark
