// Texture map rows with AVX2.
//
// Radius 10 (the embedder's) on rows of at least 64 columns has a path of its
// own. The vertical window sums of every column are kept in 16-bit lanes
// with half the window already added, and move down only to the rows that
// are needed (skipped rows are stepped over in one pass). A horizontal window
// of 21 bytes is five sums of four bytes plus one byte, which vpmpsadbw gives
// without any prefix sums. Both rounded means are one multiply-high where
// that is exact, 32 columns at a time; the columns whose windows are cut by
// the row's ends read a zero-padded copy of the row and divide by their own
// window sizes.
//
// Any other radius: the vertical window sum of every column is kept in a row
// of 16-bit sums that moves down one row at a time; the horizontal window
// sums come from a 16-bit prefix sum of the row, whose wrapped differences
// are exact because a window never sums to more than 127 x 255. Both rounded
// means divide by a multiplication (small_divisor16). Columns whose
// horizontal window is cut by the row's ends take the same prefix sums,
// padded past both ends, and a division by their own window size, sixteen at
// a time; rows narrower than sixteen columns are done one column at a time.
#include <immintrin.h>

#include <cstddef>
#include <cstdlib>
#include <initializer_list>

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

namespace {

// Any radius: see the file's description.
void texture_rows_any(const TextureRows* rows) {
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

}  // namespace

namespace {

// The radius the embedder uses, with a path of its own: a window of 21 bytes
// is five sums of four bytes plus one byte, and vpmpsadbw (against zero)
// gives eight sums of four bytes per 128-bit lane, so a row's window sums take
// no prefix sums at all.
constexpr int32_t kR = 10;

inline __m256i load32(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
inline void store32(void* p, __m256i v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }

// Columns come in groups of 32 (group g: columns 32g .. 32g + 31). A group's
// 16-bit sums are kept in the order that unpacking its bytes gives: columns
// 0-7 and 16-23 in the first sixteen slots, 8-15 and 24-31 in the next
// sixteen, so that packing the two halves back to bytes restores the
// columns' order without a permutation.
inline int32_t column_slot(int32_t c) {
  const int32_t o = c & 31;
  return (c - o) + (o < 8 || o >= 24 ? o : o < 16 ? o + 8 : o - 8);
}

// Division of a 16-bit lane by n (2 <= n <= 127) for numerators up to
// 255 n + n / 2: one multiply-high by mul when that is exact, else a second
// one by post = 2^(16 - s) (a right shift by s, lane by lane).
// mul = ceil(2^16 / n) exceeds the exact quotient by t e / (n 2^16) for a
// numerator t (e = mul n - 2^16), so it is exact when t e < 2^16.
struct LaneDivisor {
  uint16_t mul;
  uint16_t post;  // 0: mul alone is exact
};

constexpr LaneDivisor lane_divisor(uint32_t n) {
  const uint32_t mul = (65536 + n - 1) / n;
  const uint32_t e = mul * n - 65536;
  if (mul < 65536 && (255 * n + n / 2) * e < 65536) return LaneDivisor{static_cast<uint16_t>(mul), 0};
  // Not a power of two (those have e = 0), so the shift is at least 1.
  const SmallDivisor16 d = small_divisor16(n);
  return LaneDivisor{d.mul, static_cast<uint16_t>(1u << (16 - d.shift))};
}

// The same division with two multiplications in every case (n >= 3): a
// single exact multiplier mul becomes 2 mul followed by a halving.
inline LaneDivisor lane_divisor_two_step(uint32_t n) {
  const LaneDivisor d = lane_divisor(n);
  if (d.post != 0) return d;
  return LaneDivisor{static_cast<uint16_t>(2 * d.mul), 32768};
}

// Window sums of the 21 bytes around q[i], in slot order: *lo for
// i = 0-7 and 16-23, *hi for i = 8-15 and 24-31; extra is added to both.
// Reads q[-10] .. q[45]. A lane of vpmpsadbw sums four bytes at eight
// offsets from the lane's start (or from four bytes further on), so each
// load serves the two lanes sixteen columns apart.
inline void window_sums(const uint8_t* q, __m256i extra, __m256i* lo, __m256i* hi) {
  const __m256i z = _mm256_setzero_si256();
  const __m256i pick = _mm256_setr_epi8(4, -1, 5, -1, 6, -1, 7, -1, 8, -1, 9, -1, 10, -1, 11, -1,  //
                                        4, -1, 5, -1, 6, -1, 7, -1, 8, -1, 9, -1, 10, -1, 11, -1);
  __m256i a = load32(q - 10);
  __m256i b = load32(q - 2);
  __m256i c = load32(q + 6);
  __m256i d = load32(q + 14);
  // Each load feeds two or three instructions; keep the compiler from loading
  // the same bytes again for each of them (which it does to spare registers).
  asm("" : "+x"(a));
  asm("" : "+x"(b));
  asm("" : "+x"(c));
  asm("" : "+x"(d));
  // q[i - 2 .. i + 9]: shared by both halves.
  const __m256i mid = _mm256_add_epi16(
      _mm256_add_epi16(_mm256_mpsadbw_epu8(b, z, 0x00), _mm256_mpsadbw_epu8(b, z, 0x24)),
      _mm256_add_epi16(_mm256_mpsadbw_epu8(c, z, 0x00), extra));
  *lo = _mm256_add_epi16(_mm256_add_epi16(_mm256_mpsadbw_epu8(a, z, 0x00), _mm256_mpsadbw_epu8(a, z, 0x24)),
                         _mm256_add_epi16(mid, _mm256_shuffle_epi8(c, pick)));
  *hi = _mm256_add_epi16(_mm256_add_epi16(_mm256_mpsadbw_epu8(c, z, 0x24), _mm256_mpsadbw_epu8(d, z, 0x00)),
                         _mm256_add_epi16(mid, _mm256_shuffle_epi8(d, pick)));
}

// min(dh + dv + 7 min(dh, dv), 50) = min(max + 8 min, 50) for 32 bytes. The
// minimum is cut at 7 before it is multiplied (8 x 7 already exceeds 50), so
// the 16-bit shift moves no bit into the next byte, and the saturating sum
// only saturates above 50.
inline __m256i texture_bytes(__m256i mh, __m256i mv, __m256i p) {
  const __m256i dh = _mm256_or_si256(_mm256_subs_epu8(mh, p), _mm256_subs_epu8(p, mh));
  const __m256i dv = _mm256_or_si256(_mm256_subs_epu8(mv, p), _mm256_subs_epu8(p, mv));
  const __m256i small = _mm256_min_epu8(_mm256_min_epu8(dh, dv), _mm256_set1_epi8(7));
  const __m256i v = _mm256_adds_epu8(_mm256_max_epu8(dh, dv), _mm256_slli_epi16(small, 3));
  return _mm256_min_epu8(v, _mm256_set1_epi8(50));
}

// Per-slot divisors of a group some of whose horizontal windows are cut by
// the row's ends.
struct EdgeDivisors {
  uint16_t half[32];
  uint16_t mul[32];
  uint16_t post[32];
};

// The divisors of group g's columns: the full window's, but for the kR
// columns at either end of the row, whose windows hold kR + 1 + c columns
// (c the distance to the end). Columns past the row's end are never
// stored; any divisor will do there.
void edge_divisors(int32_t g, int32_t w, EdgeDivisors* d) {
  const LaneDivisor full = lane_divisor_two_step(2 * kR + 1);
  for (int32_t s = 0; s < 32; s += 16) {
    store32(d->half + s, _mm256_set1_epi16(kR));
    store32(d->mul + s, _mm256_set1_epi16(static_cast<int16_t>(full.mul)));
    store32(d->post + s, _mm256_set1_epi16(static_cast<int16_t>(full.post)));
  }
  for (int32_t k = 0; k < kR; ++k) {
    const uint32_t n = static_cast<uint32_t>(kR + 1 + k);
    const LaneDivisor ld = lane_divisor_two_step(n);
    for (const int32_t c : {k, w - 1 - k}) {
      if (c < 32 * g || c >= 32 * g + 32) continue;
      const int32_t s = column_slot(c) - 32 * g;
      d->half[s] = static_cast<uint16_t>(n / 2);
      d->mul[s] = ld.mul;
      d->post[s] = ld.post;
    }
  }
}

// Everything one call needs, fixed for its rows.
struct FastRows {
  const uint8_t* src;
  ptrdiff_t stride;
  int32_t w;
  int32_t h;
  int32_t groups;      // whole groups, w / 32
  int32_t all_groups;  // groups with at least one column
  int32_t inner_end;   // groups [1, inner_end) read every byte they need from the row
  int32_t right_base;  // first row byte copied to the right buffer
  uint16_t* sums;      // vertical window sums (plus half the window) in slot order
  uint8_t* left[2];    // per row of a pair: 32 zeros, then the row's first 64 bytes
  uint8_t* right[2];   // per row of a pair: the row from right_base on, then zeros
  EdgeDivisors* edges; // group 0, then groups inner_end .. all_groups - 1
};

inline int32_t rows_in_window(int32_t y, int32_t h) {
  return (y + kR + 1 < h ? y + kR + 1 : h) - (y - kR > 0 ? y - kR : 0);
}

// sums = start + the sum of rows top .. top + n - 1, column by column.
void sum_columns(const FastRows& f, const uint8_t* top, int32_t n, uint16_t start) {
  const __m256i ones = _mm256_set1_epi8(1);
  const __m256i z = _mm256_setzero_si256();
  for (int32_t g = 0; g < f.groups; ++g) {
    __m256i lo = _mm256_set1_epi16(static_cast<int16_t>(start));
    __m256i hi = lo;
    const uint8_t* p = top + 32 * g;
    int32_t k = 0;
#pragma GCC unroll 4
    for (; k + 2 <= n; k += 2, p += 2 * f.stride) {
      const __m256i a = load32(p);
      const __m256i b = load32(p + f.stride);
      lo = _mm256_add_epi16(lo, _mm256_maddubs_epi16(_mm256_unpacklo_epi8(a, b), ones));
      hi = _mm256_add_epi16(hi, _mm256_maddubs_epi16(_mm256_unpackhi_epi8(a, b), ones));
    }
    if (k < n) {
      const __m256i a = load32(p);
      lo = _mm256_add_epi16(lo, _mm256_unpacklo_epi8(a, z));
      hi = _mm256_add_epi16(hi, _mm256_unpackhi_epi8(a, z));
    }
    store32(f.sums + 32 * g, lo);
    store32(f.sums + 32 * g + 16, hi);
  }
  for (int32_t c = 32 * f.groups; c < f.w; ++c) {
    uint32_t s = start;
    for (int32_t k = 0; k < n; ++k) s += top[k * f.stride + c];
    f.sums[column_slot(c)] = static_cast<uint16_t>(s);
  }
}

// One step down where the window is cut by the frame's top or bottom: add
// and drop may be null, and bias moves the rounding half to the new window
// size (all modulo 2^16).
void move_columns_edge(const FastRows& f, const uint8_t* add, const uint8_t* drop, uint16_t bias) {
  const __m256i z = _mm256_setzero_si256();
  const __m256i b = _mm256_set1_epi16(static_cast<int16_t>(bias));
  for (int32_t g = 0; g < f.groups; ++g) {
    uint16_t* s = f.sums + 32 * g;
    __m256i lo = _mm256_add_epi16(load32(s), b);
    __m256i hi = _mm256_add_epi16(load32(s + 16), b);
    if (add != nullptr) {
      const __m256i a = load32(add + 32 * g);
      lo = _mm256_add_epi16(lo, _mm256_unpacklo_epi8(a, z));
      hi = _mm256_add_epi16(hi, _mm256_unpackhi_epi8(a, z));
    }
    if (drop != nullptr) {
      const __m256i d = load32(drop + 32 * g);
      lo = _mm256_sub_epi16(lo, _mm256_unpacklo_epi8(d, z));
      hi = _mm256_sub_epi16(hi, _mm256_unpackhi_epi8(d, z));
    }
    store32(s, lo);
    store32(s + 16, hi);
  }
  for (int32_t c = 32 * f.groups; c < f.w; ++c) {
    uint32_t s = f.sums[column_slot(c)] + bias;
    if (add != nullptr) s += add[c];
    if (drop != nullptr) s -= drop[c];
    f.sums[column_slot(c)] = static_cast<uint16_t>(s);
  }
}

// Steps down inside the frame, where the window keeps its 21 rows, made on
// the way through a row: sums += add[j] - drop[j] for the rows
// add + j stride and drop + j stride, j < k. The byte pairs (add, drop) are
// unpacked and multiplied-added with (1, -1): one instruction per sixteen
// differences. kSteps is k when fixed, 0 for none, -1 for k given at run time.
struct Steps {
  const uint8_t* add;
  const uint8_t* drop;
  int32_t k;
};

template <int kSteps>
inline void move_group(Steps st, ptrdiff_t stride, int32_t x, __m256i* lo, __m256i* hi) {
  if (kSteps == 0) return;
  const __m256i weights = _mm256_set1_epi16(static_cast<int16_t>(0xFF01));
  const uint8_t* a = st.add + x;
  const uint8_t* d = st.drop + x;
  const int32_t k = kSteps > 0 ? kSteps : st.k;
#pragma GCC unroll 4
  for (int32_t j = 0; j < k; ++j, a += stride, d += stride) {
    const __m256i va = load32(a);
    const __m256i vd = load32(d);
    *lo = _mm256_add_epi16(*lo, _mm256_maddubs_epi16(_mm256_unpacklo_epi8(va, vd), weights));
    *hi = _mm256_add_epi16(*hi, _mm256_maddubs_epi16(_mm256_unpackhi_epi8(va, vd), weights));
  }
}

// The columns of a last group cut short, one by one.
void move_tail(const FastRows& f, const Steps& st) {
  for (int32_t c = 32 * f.groups; c < f.w; ++c) {
    uint32_t s = f.sums[column_slot(c)];
    for (int32_t j = 0; j < st.k; ++j) {
      s += static_cast<uint32_t>(st.add[j * f.stride + c]) - st.drop[j * f.stride + c];
    }
    f.sums[column_slot(c)] = static_cast<uint16_t>(s);
  }
}

// Vertical means of one group's sums (which already hold the rounding half).
template <bool kTwoStep>
inline __m256i vertical_means(__m256i lo, __m256i hi, __m256i mul, __m256i post) {
  lo = _mm256_mulhi_epu16(lo, mul);
  hi = _mm256_mulhi_epu16(hi, mul);
  if (kTwoStep) {
    lo = _mm256_mulhi_epu16(lo, post);
    hi = _mm256_mulhi_epu16(hi, post);
  }
  return _mm256_packus_epi16(lo, hi);
}

// Horizontal means of the 32 columns from q on; with kEdge, q points into a
// padded copy of the row and every column has its own divisor.
constexpr uint16_t kFullWindowMul = lane_divisor(2 * kR + 1).mul;
static_assert(lane_divisor(2 * kR + 1).post == 0, "the full window's mean takes one multiplication");

template <bool kEdge>
inline __m256i horizontal_means(const uint8_t* q, const EdgeDivisors* d) {
  __m256i lo, hi;
  if (kEdge) {
    window_sums(q, _mm256_setzero_si256(), &lo, &hi);
    lo = _mm256_mulhi_epu16(_mm256_add_epi16(lo, load32(d->half)), load32(d->mul));
    hi = _mm256_mulhi_epu16(_mm256_add_epi16(hi, load32(d->half + 16)), load32(d->mul + 16));
    lo = _mm256_mulhi_epu16(lo, load32(d->post));
    hi = _mm256_mulhi_epu16(hi, load32(d->post + 16));
  } else {
    window_sums(q, _mm256_set1_epi16(kR), &lo, &hi);
    lo = _mm256_mulhi_epu16(lo, _mm256_set1_epi16(static_cast<int16_t>(kFullWindowMul)));
    hi = _mm256_mulhi_epu16(hi, _mm256_set1_epi16(static_cast<int16_t>(kFullWindowMul)));
  }
  return _mm256_packus_epi16(lo, hi);
}

// One whole group, columns x .. x + 31, of row y (bytes around q, map bytes
// at out) and, unless kSteps2 is 0, of a second row y2 further down (q2,
// out2). The sums move by st before row y and by st2 (kSteps2 as kSteps)
// before row y2.
// Everything comes by value: the map's byte stores could alias any field
// read through a pointer, which would then be read again for every group.
template <bool kTwoStep, int kSteps, int kSteps2, bool kEdge>
inline void whole_group(uint16_t* sums, ptrdiff_t stride, int32_t x, const uint8_t* q, const uint8_t* q2,
                        const EdgeDivisors* d, Steps st, Steps st2, uint8_t* out, uint8_t* out2, __m256i v_mul,
                        __m256i v_post) {
  uint16_t* s = sums + x;
  __m256i lo = load32(s);
  __m256i hi = load32(s + 16);
  move_group<kSteps>(st, stride, x, &lo, &hi);
  {
    const __m256i mh = horizontal_means<kEdge>(q, d);
    const __m256i mv = vertical_means<kTwoStep>(lo, hi, v_mul, v_post);
    store32(out + x, texture_bytes(mh, mv, load32(q)));
  }
  if (kSteps2 != 0) {
    move_group<kSteps2>(st2, stride, x, &lo, &hi);
    const __m256i mh = horizontal_means<kEdge>(q2, d);
    const __m256i mv = vertical_means<kTwoStep>(lo, hi, v_mul, v_post);
    store32(out2 + x, texture_bytes(mh, mv, load32(q2)));
  }
  if (kSteps != 0 || kSteps2 != 0) {
    store32(s, lo);
    store32(s + 16, hi);
  }
}

// A last group cut short (its sums already moved), from the right copy q.
template <bool kTwoStep>
void tail_group(const FastRows& f, const uint8_t* q, uint8_t* out, __m256i v_mul, __m256i v_post) {
  const int32_t g = f.groups;
  const __m256i mh = horizontal_means<true>(q, &f.edges[1 + g - f.inner_end]);
  const __m256i mv = vertical_means<kTwoStep>(load32(f.sums + 32 * g), load32(f.sums + 32 * g + 16), v_mul, v_post);
  alignas(32) uint8_t v[32];
  store32(v, texture_bytes(mh, mv, load32(q)));
  for (int32_t c = 32 * g; c < f.w; ++c) out[c] = v[c - 32 * g];
}

// The row's first 64 bytes after 32 zeros (the row has at least 64), and its
// bytes from right_base on (46 to 77 of them) before zeros, in 32-byte
// pieces, the last one ending at the row's end.
inline void copy_ends(const FastRows& f, const uint8_t* row, uint8_t* left, uint8_t* right) {
  store32(left + 32, load32(row));
  store32(left + 64, load32(row + 32));
  const int32_t len = f.w - f.right_base;
  store32(right, load32(row + f.right_base));
  if (len > 64) store32(right + 32, load32(row + f.right_base + 32));
  store32(right + len - 32, load32(row + f.w - 32));
}

// Row y (row, out), after the steps st; unless kSteps2 is 0 also row
// y2 = y + st2.k (row2, out2), after the steps st2.
template <bool kTwoStep, int kSteps, int kSteps2>
void fast_rows(const FastRows& f, const uint8_t* row, uint8_t* out, const Steps& st, const uint8_t* row2,
               uint8_t* out2, const Steps& st2, __m256i v_mul, __m256i v_post) {
  constexpr bool kPair = kSteps2 != 0;
  copy_ends(f, row, f.left[0], f.right[0]);
  if (kPair) copy_ends(f, row2, f.left[1], f.right[1]);

  uint16_t* const sums = f.sums;
  const ptrdiff_t stride = f.stride;
  const int32_t inner_end = f.inner_end;
  const int32_t groups = f.groups;
  const Steps s1 = st;
  const Steps s2 = st2;
  whole_group<kTwoStep, kSteps, kSteps2, true>(sums, stride, 0, f.left[0] + 32, f.left[1] + 32, &f.edges[0], s1, s2,
                                             out, out2, v_mul, v_post);
  for (int32_t g = 1; g < inner_end; ++g) {
    whole_group<kTwoStep, kSteps, kSteps2, false>(sums, stride, 32 * g, row + 32 * g, row2 + 32 * g, nullptr, s1, s2,
                                                out, out2, v_mul, v_post);
  }
  for (int32_t g = inner_end; g < groups; ++g) {
    whole_group<kTwoStep, kSteps, kSteps2, true>(sums, stride, 32 * g, f.right[0] + 32 * g - f.right_base,
                                               f.right[1] + 32 * g - f.right_base, &f.edges[1 + g - inner_end], s1,
                                               s2, out, out2, v_mul, v_post);
  }
  if (f.groups < f.all_groups) {
    const int32_t at = 32 * f.groups - f.right_base;
    if (kSteps != 0) move_tail(f, st);
    tail_group<kTwoStep>(f, f.right[0] + at, out, v_mul, v_post);
    if (kPair) {
      move_tail(f, st2);
      tail_group<kTwoStep>(f, f.right[1] + at, out2, v_mul, v_post);
    }
  }
}

template <bool kTwoStep, int kSteps2>
void fast_rows_steps(const FastRows& f, const uint8_t* row, uint8_t* out, const Steps& st, const uint8_t* row2,
                     uint8_t* out2, const Steps& st2, __m256i v_mul, __m256i v_post) {
  if (st.k == 0) {
    fast_rows<kTwoStep, 0, kSteps2>(f, row, out, st, row2, out2, st2, v_mul, v_post);
  } else if (st.k == 1) {
    fast_rows<kTwoStep, 1, kSteps2>(f, row, out, st, row2, out2, st2, v_mul, v_post);
  } else if (st.k == 3) {  // over the two rows between superpixels
    fast_rows<kTwoStep, 3, kSteps2>(f, row, out, st, row2, out2, st2, v_mul, v_post);
  } else {
    fast_rows<kTwoStep, -1, kSteps2>(f, row, out, st, row2, out2, st2, v_mul, v_post);
  }
}

// Radius kR, w >= 64, h >= 2.
void texture_rows_fast(const TextureRows* rows, int32_t first, int32_t end) {
  const uint8_t* needed = rows->needed;
  while (first < end && needed != nullptr && needed[first] == 0) ++first;
  if (first >= end) return;

  FastRows f{};
  f.src = rows->src;
  f.stride = rows->stride;
  f.w = rows->width;
  f.h = rows->height;
  f.groups = f.w / 32;
  f.all_groups = (f.w + 31) / 32;
  // Group g reads row bytes 32 g - 10 .. 32 g + 45.
  f.inner_end = (f.w - 46) / 32 + 1;
  f.right_base = 32 * f.inner_end - 32;

  constexpr size_t kLeftBytes = 128;
  constexpr size_t kRightBytes = 192;
  constexpr size_t kCopyBytes = 2 * (kLeftBytes + kRightBytes);
  const size_t sum_bytes = static_cast<size_t>(f.all_groups) * 32 * sizeof(uint16_t);
  const size_t bytes = sum_bytes + kCopyBytes + 3 * sizeof(EdgeDivisors);
  uint8_t* scratch = static_cast<uint8_t*>(std::malloc(bytes));
  if (scratch == nullptr) {
    texture_rows_any(rows);
    return;
  }
  f.sums = reinterpret_cast<uint16_t*>(scratch);
  f.left[0] = scratch + sum_bytes;
  f.left[1] = f.left[0] + kLeftBytes;
  f.right[0] = f.left[1] + kLeftBytes;
  f.right[1] = f.right[0] + kRightBytes;
  f.edges = reinterpret_cast<EdgeDivisors*>(f.right[1] + kRightBytes);
  // The bytes around the row's copies stay zero; the copies are rewritten for
  // every row.
  for (size_t i = 0; i < kCopyBytes; i += 32) store32(f.left[0] + i, _mm256_setzero_si256());
  edge_divisors(0, f.w, &f.edges[0]);
  for (int32_t g = f.inner_end; g < f.all_groups; ++g) {
    edge_divisors(g, f.w, &f.edges[1 + g - f.inner_end]);
  }

  // The sums hold row `at`'s vertical windows.
  int32_t at = first;
  {
    const int32_t y0 = at - kR > 0 ? at - kR : 0;
    sum_columns(f, f.src + y0 * f.stride, rows_in_window(at, f.h),
                static_cast<uint16_t>(rows_in_window(at, f.h) / 2));
  }
  for (int32_t y = first; y < end; ++y) {
    if (needed != nullptr && needed[y] == 0) continue;
    // Steps near the frame's top or bottom go one at a time; the others
    // (at most one run, ending at y) are made on the way through the row.
    Steps st{nullptr, nullptr, 0};
    while (at < y) {
      if (at >= kR && y < f.h - kR) {
        st = Steps{f.src + (at + kR + 1) * f.stride, f.src + (at - kR) * f.stride, y - at};
        at = y;
      } else {
        const uint8_t* add = at + kR + 1 < f.h ? f.src + (at + kR + 1) * f.stride : nullptr;
        const uint8_t* drop = at - kR >= 0 ? f.src + (at - kR) * f.stride : nullptr;
        const uint32_t bias = static_cast<uint32_t>(rows_in_window(at + 1, f.h) / 2) -
                              static_cast<uint32_t>(rows_in_window(at, f.h) / 2);
        move_columns_edge(f, add, drop, static_cast<uint16_t>(bias));
        ++at;
      }
    }
    const LaneDivisor vd = lane_divisor(static_cast<uint32_t>(rows_in_window(y, f.h)));
    const __m256i v_mul = _mm256_set1_epi16(static_cast<int16_t>(vd.mul));
    const __m256i v_post = _mm256_set1_epi16(static_cast<int16_t>(vd.post));
    const uint8_t* row = f.src + y * f.stride;
    uint8_t* out = rows->out + static_cast<ptrdiff_t>(y) * f.w;
    // The next wanted row too, when every step to it is inside the frame
    // (the window then keeps its size, and the divisor too).
    int32_t y2 = y + 1;
    while (y2 < end && needed != nullptr && needed[y2] == 0) ++y2;
    if (y2 < end && y >= kR && y2 < f.h - kR) {
      const Steps st2{f.src + (y + kR + 1) * f.stride, f.src + (y - kR) * f.stride, y2 - y};
      const uint8_t* row2 = f.src + y2 * f.stride;
      uint8_t* out2 = rows->out + static_cast<ptrdiff_t>(y2) * f.w;
      if (st2.k == 1) {
        fast_rows_steps<false, 1>(f, row, out, st, row2, out2, st2, v_mul, v_post);
      } else if (st2.k == 3) {
        fast_rows_steps<false, 3>(f, row, out, st, row2, out2, st2, v_mul, v_post);
      } else {
        fast_rows_steps<false, -1>(f, row, out, st, row2, out2, st2, v_mul, v_post);
      }
      at = y = y2;
    } else if (vd.post == 0) {
      fast_rows_steps<false, 0>(f, row, out, st, row, out, st, v_mul, v_post);
    } else {
      fast_rows_steps<true, 0>(f, row, out, st, row, out, st, v_mul, v_post);
    }
  }
  std::free(scratch);
}

}  // namespace

void texture_rows_avx2(const TextureRows* rows) {
  if (rows == nullptr) return;
  const int32_t first = rows->first_row < 0 ? 0 : rows->first_row;
  const int32_t end = rows->end_row > rows->height ? rows->height : rows->end_row;
  if (rows->radius == kR && rows->width >= 64 && rows->height >= 2 && rows->stride >= rows->width) {
    if (first < end) texture_rows_fast(rows, first, end);
    return;
  }
  texture_rows_any(rows);
}
}  // namespace lumamark
