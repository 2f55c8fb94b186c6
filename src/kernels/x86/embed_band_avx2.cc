// Embedding of a run of superpixels with AVX2.
//
// Every superpixel first writes its part of two work rows per pixel row of
// the run: the signed amplitude of each pixel after the attenuation table,
// and in perceptual mode the random byte that pixel takes. Then one vector
// pass per pixel row adds the changes to the luma row across the whole run.
// Rows in which no pattern has a non-zero byte are skipped. Patterns
// prepared once per frame (embed_band_prepare_avx2) bring their amplitude
// rows for both signs and their random-byte shuffles ready-made.
//
// The random bytes of a superpixel are the output bytes of its own noise
// generator, consumed in pixel order by the non-zero pattern bytes only. The
// generators of eight superpixels step together in 32-bit lanes; each row of
// eight pattern bytes then picks its bytes with one byte shuffle, driven by
// the row's non-zero bits and the count of bytes already taken.
//
// In border-activity mode the four strips of every superpixel are summed from
// per-column sums and sums of squares of the superpixel row, using
// sum((s - m)^2) = sum(s^2) - 2 m sum(s) + n m^2, which holds exactly in
// wrapping 32-bit arithmetic.
#include <immintrin.h>

#include <cstddef>
#include <cstring>

#include "kernels/divide.h"
#include "kernels/embed.h"
#include "kernels/embed_band.h"
#include "kernels/intmath.h"
#include "kernels/pattern.h"
#include "kernels/x86/avx2.h"
#include "kernels/x86/rows_avx2.h"

namespace lumamark {
namespace {


// Longest superpixel side of the vector path (the command line allows 64).
constexpr int32_t kMaxSide = 64;

// Prepared patterns (embed_band_prepare_avx2): a header, then per pattern
// one entry per row and block of eight columns.
struct PreparedHeader {
  int32_t sp_w;       // pattern width
  int32_t sp_h;       // pattern height
  int32_t chunks;     // blocks of eight columns per row
  int32_t count;      // patterns
  int32_t kind;       // table: 0 amplitude 1 (modes 1, ...), 1 identity (modes 0, 3),
                      // 2 one set per border-analysis band (mode 2)
  int32_t variants;   // sets of entries: 1, or 6 for kind 2
  int32_t most_amp;   // largest amplitude of any entry, 0..127
  int32_t most_nonzero;  // most non-zero bytes of any pattern
  uint64_t rows_used;    // bit r: some pattern has a non-zero byte in row r
  int32_t reserved[6];
};
static_assert(sizeof(PreparedHeader) == 64, "header keeps the entries aligned");

// One row (and block of eight columns) of a prepared pattern under one sign.
// The shuffle is loaded as sixteen bytes; what its upper eight (the rank)
// pick is never stored. A pattern's rows for one sign lie one after another
// (entry (row, block) at row x blocks + block), so that a superpixel reads
// few cache lines.
struct PreparedHalf {
  int16_t amp[8];      // amplitudes after the table, with the sign
  uint8_t shuffle[8];  // which random byte each pixel takes, from rank on (0x80: none)
  int32_t rank;        // random bytes taken by the rows and blocks before this one
  int32_t reserved;
};
static_assert(sizeof(PreparedHalf) == 32, "two entries per cache line");

// The entries of pattern id under sign (0: +1, 1: -1) in set, for a
// pattern of sp_h rows of blocks blocks, in a set of count patterns.
inline ptrdiff_t prepared_at(ptrdiff_t set, ptrdiff_t count, ptrdiff_t id, ptrdiff_t sign, ptrdiff_t sp_h,
                             ptrdiff_t blocks) {
  return ((set * count + id) * 2 + sign) * sp_h * blocks;
}

// Eight bytes from kKeepBytes + 8 - n keep the low n bytes of eight.
alignas(16) constexpr uint8_t kKeepBytes[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// Prepared data is kept only while it stays small next to the frame.
constexpr int64_t kMaxPrepared = 1024 * 1024;

__m128i make_table(const int32_t small[8]) {
  alignas(16) uint8_t t[16];
  for (int32_t p = 0; p < 16; ++p) t[p] = static_cast<uint8_t>(p < 8 ? imin(p, small[p]) : p);
  return _mm_load_si128(reinterpret_cast<const __m128i*>(t));
}

// The attenuation tables that the border analysis can give, by band of the
// smallest strip deviation: below 1000, 1000..4999 by thousands, 5000 on.
// Built at compile time: this file is compiled for AVX2, and no code of it
// may run before the processor check (a constructor run at start-up would).
struct BorderTables {
  alignas(16) uint8_t bytes[6][16] = {};

  constexpr BorderTables() {
    const int32_t m_of_band[6] = {0, 1000, 2000, 3000, 4000, 5000};
    for (int band = 0; band < 6; ++band) {
      int32_t small[8] = {0, 1, 2, 3, 4, 5, 6, 7};
      border_attenuation(m_of_band[band], small);
      for (int32_t p = 0; p < 16; ++p) bytes[band][p] = static_cast<uint8_t>(p < 8 ? imin(p, small[p]) : p);
    }
  }

  // 0 below 1000, 1..4 for the thousands up to 4999, 5 from 5000 on.
  static int band_of(int32_t m) { return m < 1000 ? 0 : (m >= 5000 ? 5 : m / 1000); }

  __m128i at(int band) const { return _mm_load_si128(reinterpret_cast<const __m128i*>(bytes[band])); }
};

constexpr BorderTables kBorderTables;

// Sum of squared deviations from the truncated mean, from the sum and the
// sum of squares of n samples (sum <= 255 n, so the mean divides exactly by
// multiplication).
inline int32_t strip_ssd(uint32_t sum, uint32_t squares, uint32_t n, FastDivisor by_n) {
  const uint32_t mean = fast_divide(sum, by_n);
  return static_cast<int32_t>(squares - 2 * mean * sum + n * mean * mean);
}

inline uint8_t* align64(uint8_t* p) {
  return reinterpret_cast<uint8_t*>((reinterpret_cast<uintptr_t>(p) + 63) & ~uintptr_t{63});
}

// Border analysis of every embedded superpixel of the run, before any
// change: bands[i] is the band of its smallest strip deviation and tables[i]
// the attenuated amplitude of pattern bytes 0..15 for that band.
// Column sums (and sums of squares) over the top strip's rows, the rows
// above the bottom strip and all rows are summed over each strip's columns.
void border_tables(const EmbedBand* b, __m128i* tables, uint8_t* bands, int32_t bw, int32_t bh,
                   uint32_t* sums) {
  const int32_t sp_w = b->geometry->sp_w;
  const int32_t sp_h = b->geometry->sp_h;
  const int32_t n = b->count * sp_w;
  const ptrdiff_t stride = b->geometry->stride;
  const uint8_t* base = b->luma + static_cast<ptrdiff_t>(b->y) * stride + b->first_x;
  const size_t cells = static_cast<size_t>(n) + 64;
  // Column sums over all rows, the top strip and the rows above the bottom
  // strip; samples and their squares.
  uint32_t* all1 = sums;
  uint32_t* all2 = all1 + cells;
  uint32_t* top1 = all2 + cells;
  uint32_t* top2 = top1 + cells;
  uint32_t* upper1 = top2 + cells;
  uint32_t* upper2 = upper1 + cells;
  const int32_t top_rows = 2 * bh;
  const int32_t upper_rows = sp_h - 2 * bh;

  // Thirty-two columns at a time, down all rows: one 32-byte load per row.
  int32_t x = 0;
  for (; x + 32 <= n; x += 32) {
    __m256i s1[4], s2[4];
    for (int k = 0; k < 4; ++k) s1[k] = s2[k] = _mm256_setzero_si256();
    auto store = [&](uint32_t* sums1, uint32_t* sums2) {
      for (int k = 0; k < 4; ++k) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums1 + x + 8 * k), s1[k]);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums2 + x + 8 * k), s2[k]);
      }
    };
    const uint8_t* p = base + x;
    for (int32_t r = 0; r < sp_h; ++r, p += stride) {
      if (r == top_rows) store(top1, top2);
      if (r == upper_rows) store(upper1, upper2);
      const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
      const __m128i lo = _mm256_castsi256_si128(bytes);
      const __m128i hi = _mm256_extracti128_si256(bytes, 1);
      const __m256i v[4] = {_mm256_cvtepu8_epi32(lo), _mm256_cvtepu8_epi32(_mm_srli_si128(lo, 8)),
                            _mm256_cvtepu8_epi32(hi), _mm256_cvtepu8_epi32(_mm_srli_si128(hi, 8))};
      for (int k = 0; k < 4; ++k) {
        s1[k] = _mm256_add_epi32(s1[k], v[k]);
        // Each 32-bit lane is (sample, 0) as two 16-bit halves: the
        // pairwise product sum is the square.
        s2[k] = _mm256_add_epi32(s2[k], _mm256_madd_epi16(v[k], v[k]));
      }
    }
    if (top_rows == sp_h) store(top1, top2);
    store(all1, all2);
  }
  for (; x + 8 <= n; x += 8) {
    __m256i s1 = _mm256_setzero_si256();
    __m256i s2 = _mm256_setzero_si256();
    const uint8_t* p = base + x;
    for (int32_t r = 0; r < sp_h; ++r, p += stride) {
      if (r == top_rows) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(top1 + x), s1);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(top2 + x), s2);
      }
      if (r == upper_rows) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(upper1 + x), s1);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(upper2 + x), s2);
      }
      const __m256i v = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
      s1 = _mm256_add_epi32(s1, v);
      s2 = _mm256_add_epi32(s2, _mm256_madd_epi16(v, v));
    }
    if (top_rows == sp_h) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(top1 + x), s1);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(top2 + x), s2);
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(all1 + x), s1);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(all2 + x), s2);
  }
  for (; x < n; ++x) {
    uint32_t s1 = 0;
    uint32_t s2 = 0;
    const uint8_t* p = base + x;
    for (int32_t r = 0; r < sp_h; ++r, p += stride) {
      if (r == top_rows) top1[x] = s1, top2[x] = s2;
      if (r == upper_rows) upper1[x] = s1, upper2[x] = s2;
      s1 += *p;
      s2 += static_cast<uint32_t>(*p) * *p;
    }
    if (top_rows == sp_h) top1[x] = s1, top2[x] = s2;
    all1[x] = s1;
    all2[x] = s2;
  }

  const uint32_t wide = static_cast<uint32_t>(sp_w * top_rows);  // samples of the top and bottom strips
  const uint32_t tall = static_cast<uint32_t>(2 * bw * sp_h);     // samples of the left and right strips
  const FastDivisor by_wide = fast_divisor(wide);
  const FastDivisor by_tall = fast_divisor(tall);
  auto table_of = [&](const uint32_t (&strip)[8]) {
    // strip: top, bottom, left, right sums, then the same sums of squares.
    const int32_t top = strip_ssd(strip[0], strip[4], wide, by_wide);
    const int32_t bottom = strip_ssd(strip[1], strip[5], wide, by_wide);
    const int32_t left = strip_ssd(strip[2], strip[6], tall, by_tall);
    const int32_t right = strip_ssd(strip[3], strip[7], tall, by_tall);
    return BorderTables::band_of(imin(imin(top, bottom), imin(left, right)));
  };

  if (sp_w <= 8) {
    // One superpixel's columns fit eight lanes: the strips are masked lane
    // sums, reduced together.
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256i all_cols = _mm256_cmpgt_epi32(_mm256_set1_epi32(sp_w), lane);
    const __m256i left_cols = _mm256_cmpgt_epi32(_mm256_set1_epi32(2 * bw), lane);
    const __m256i right_cols =
        _mm256_andnot_si256(_mm256_cmpgt_epi32(_mm256_set1_epi32(sp_w - 2 * bw), lane), all_cols);
    // Strip sizes of the four sums, as numbers and in single precision: the
    // truncated mean sum / n is exact by division in single precision (the
    // sum is at most 255 n with n below 2^16, so a quotient that is not
    // whole lies at least 1/n from the next whole number, far more than the
    // rounding error).
    const __m128i sizes = _mm_setr_epi32(static_cast<int32_t>(wide), static_cast<int32_t>(wide),
                                         static_cast<int32_t>(tall), static_cast<int32_t>(tall));
    const __m128 sizes_f = _mm_cvtepi32_ps(sizes);
    const bool exact = wide < 65536 && tall < 65536;
    alignas(32) uint32_t strip[8];
    for (int32_t i = 0; i < b->count; ++i) {
      if (pick_pattern(b, i) == nullptr) continue;
      const int32_t x0 = i * sp_w;
      auto at = [x0](const uint32_t* a) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + x0)); };
      const __m256i a1 = at(all1), a2 = at(all2);
      const __m256i t1 = _mm256_and_si256(at(top1), all_cols);
      const __m256i t2 = _mm256_and_si256(at(top2), all_cols);
      const __m256i b1 = _mm256_and_si256(_mm256_sub_epi32(a1, at(upper1)), all_cols);
      const __m256i b2 = _mm256_and_si256(_mm256_sub_epi32(a2, at(upper2)), all_cols);
      const __m256i l1 = _mm256_and_si256(a1, left_cols), l2 = _mm256_and_si256(a2, left_cols);
      const __m256i r1 = _mm256_and_si256(a1, right_cols), r2 = _mm256_and_si256(a2, right_cols);
      // Eight lane sums at once: pairwise additions leave, per 128-bit half,
      // partial sums in the order t1 b1 l1 r1 t2 b2 l2 r2.
      const __m256i p = _mm256_hadd_epi32(_mm256_hadd_epi32(t1, b1), _mm256_hadd_epi32(l1, r1));
      const __m256i q = _mm256_hadd_epi32(_mm256_hadd_epi32(t2, b2), _mm256_hadd_epi32(l2, r2));
      const __m256i sums4 = _mm256_add_epi32(_mm256_permute2x128_si256(p, q, 0x20),
                                             _mm256_permute2x128_si256(p, q, 0x31));
      if (exact) {
        // The four deviations at once: squares - 2 mean sum + n mean^2,
        // wrapping like the scalar sums; then the smallest, as signed numbers.
        const __m128i sum = _mm256_castsi256_si128(sums4);
        const __m128i squares = _mm256_extracti128_si256(sums4, 1);
        const __m128i mean = _mm_cvttps_epi32(_mm_div_ps(_mm_cvtepi32_ps(sum), sizes_f));
        const __m128i ssd = _mm_sub_epi32(_mm_add_epi32(squares, _mm_mullo_epi32(sizes, _mm_mullo_epi32(mean, mean))),
                                          _mm_slli_epi32(_mm_mullo_epi32(mean, sum), 1));
        const __m128i m2 = _mm_min_epi32(ssd, _mm_shuffle_epi32(ssd, 0x4E));
        const __m128i m1 = _mm_min_epi32(m2, _mm_shuffle_epi32(m2, 0xB1));
        bands[i] = static_cast<uint8_t>(BorderTables::band_of(_mm_cvtsi128_si32(m1)));
        tables[i] = kBorderTables.at(bands[i]);
        continue;
      }
      _mm256_store_si256(reinterpret_cast<__m256i*>(strip), sums4);
      bands[i] = static_cast<uint8_t>(table_of(strip));
      tables[i] = kBorderTables.at(bands[i]);
    }
    return;
  }

  for (int32_t i = 0; i < b->count; ++i) {
    if (pick_pattern(b, i) == nullptr) continue;
    const int32_t x0 = i * sp_w;
    uint32_t strip[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    for (int32_t c = x0; c < x0 + sp_w; ++c) {
      strip[0] += top1[c];
      strip[4] += top2[c];
      strip[1] += all1[c] - upper1[c];
      strip[5] += all2[c] - upper2[c];
    }
    for (int32_t c = 0; c < 2 * bw; ++c) {
      strip[2] += all1[x0 + c];
      strip[6] += all2[x0 + c];
      strip[3] += all1[x0 + sp_w - 2 * bw + c];
      strip[7] += all2[x0 + sp_w - 2 * bw + c];
    }
    bands[i] = static_cast<uint8_t>(table_of(strip));
    tables[i] = kBorderTables.at(bands[i]);
  }
}

// The random bytes of every embedded superpixel: steps generator outputs of
// eight bytes each (enough for the superpixel with the most non-zero pattern
// bytes; the others take a prefix of theirs), superpixel i at rnd + i * slot.
void random_bytes(const EmbedBand* b, uint8_t* rnd, int32_t slot, int32_t steps) {
  const uint32_t frame = static_cast<uint32_t>(b->geometry->width) ^ static_cast<uint32_t>(b->geometry->height);
  const uint32_t row_bits = static_cast<uint32_t>(b->y) << 16;
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  for (int32_t i0 = 0; i0 < b->count; i0 += 8) {
    const int32_t lanes = imin(8, b->count - i0);
    if (lanes < 8) {
      bool any = false;
      for (int32_t k = 0; k < lanes; ++k) any = any || pick_pattern(b, i0 + k) != nullptr;
      if (!any) continue;
    }
    // x + 1 of the eight superpixels, wrapping like the scalar seed.
    const uint32_t x1 = static_cast<uint32_t>(wrap_add(b->first_x + i0 * b->geometry->sp_w, 1));
    const __m256i xs = _mm256_add_epi32(_mm256_set1_epi32(static_cast<int32_t>(x1)),
                                        _mm256_mullo_epi32(lane, _mm256_set1_epi32(b->geometry->sp_w)));
    __m256i s0 = _mm256_xor_si256(_mm256_set1_epi32(static_cast<int32_t>(row_bits ^ frame)), xs);
    __m256i s1 = _mm256_xor_si256(s0, _mm256_set1_epi32(static_cast<int32_t>(0xacbdef01u)));
    uint8_t* out = rnd + static_cast<ptrdiff_t>(i0) * slot;
    auto next = [&s0, &s1](__m256i* lo, __m256i* hi) {
      const __m256i t = _mm256_xor_si256(s1, s0);
      const __m256i rot0 = _mm256_or_si256(_mm256_srli_epi32(s0, 6), _mm256_slli_epi32(s0, 26));
      s0 = _mm256_xor_si256(_mm256_xor_si256(rot0, t), _mm256_slli_epi32(t, 9));
      s1 = _mm256_or_si256(_mm256_srli_epi32(t, 19), _mm256_slli_epi32(t, 13));
      // 64-bit words s0 | s1 << 32 of lanes 0, 1, 4, 5 and of lanes 2, 3, 6, 7.
      *lo = _mm256_unpacklo_epi32(s0, s1);
      *hi = _mm256_unpackhi_epi32(s0, s1);
    };
    if (lanes == 8 && steps == 4) {
      // Four outputs of eight generators: transposed, each superpixel's 32
      // bytes are one store (a slot holds at least 48 bytes here).
      __m256i lo[4], hi[4];
      for (int k = 0; k < 4; ++k) next(&lo[k], &hi[k]);
      const ptrdiff_t sl = slot;
      auto store_pair = [&](__m256i w0, __m256i w1, __m256i w2, __m256i w3, int first, int second,
                            bool high) {
        // Words of superpixels first (low halves) and second (high halves).
        const __m256i a = high ? _mm256_unpackhi_epi64(w0, w1) : _mm256_unpacklo_epi64(w0, w1);
        const __m256i c = high ? _mm256_unpackhi_epi64(w2, w3) : _mm256_unpacklo_epi64(w2, w3);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + first * sl), _mm256_permute2x128_si256(a, c, 0x20));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + second * sl), _mm256_permute2x128_si256(a, c, 0x31));
      };
      store_pair(lo[0], lo[1], lo[2], lo[3], 0, 4, false);
      store_pair(lo[0], lo[1], lo[2], lo[3], 1, 5, true);
      store_pair(hi[0], hi[1], hi[2], hi[3], 2, 6, false);
      store_pair(hi[0], hi[1], hi[2], hi[3], 3, 7, true);
      continue;
    }
    for (int32_t step = 0; step < steps; ++step, out += 8) {
      __m256i lo, hi;
      next(&lo, &hi);
      if (lanes == 8) {
        const ptrdiff_t sl = slot;
        const __m128i lo_hi = _mm256_extracti128_si256(lo, 1);
        const __m128i hi_hi = _mm256_extracti128_si256(hi, 1);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(lo));
        _mm_storeh_pd(reinterpret_cast<double*>(out + sl), _mm_castsi128_pd(_mm256_castsi256_si128(lo)));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 2 * sl), _mm256_castsi256_si128(hi));
        _mm_storeh_pd(reinterpret_cast<double*>(out + 3 * sl), _mm_castsi128_pd(_mm256_castsi256_si128(hi)));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 4 * sl), lo_hi);
        _mm_storeh_pd(reinterpret_cast<double*>(out + 5 * sl), _mm_castsi128_pd(lo_hi));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 6 * sl), hi_hi);
        _mm_storeh_pd(reinterpret_cast<double*>(out + 7 * sl), _mm_castsi128_pd(hi_hi));
        continue;
      }
      alignas(32) uint64_t words[8];
      _mm256_store_si256(reinterpret_cast<__m256i*>(words), lo);
      _mm256_store_si256(reinterpret_cast<__m256i*>(words + 4), hi);
      static constexpr int kWord[8] = {0, 1, 4, 5, 2, 3, 6, 7};
      for (int32_t k = 0; k < lanes; ++k) std::memcpy(out + static_cast<ptrdiff_t>(k) * slot, &words[kWord[k]], 8);
    }
  }
}

// Up to eight bytes of a pattern row, never reading past the pattern's end.
inline __m128i load_pattern8(const int8_t* p, int32_t avail) {
  if (avail >= 8) return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
  uint64_t v = 0;
  std::memcpy(&v, p, static_cast<size_t>(avail));
  return _mm_cvtsi64_si128(static_cast<long long>(v));
}

// luma[x] += change for one row of n pixels; perceptual rows weigh the
// amplitude by the random byte and the texture. The work rows may be read
// past n (they have room); the luma and texture rows may not.
template <bool kPerceptual, bool kShortProduct>
void apply_row(uint8_t* luma, const int16_t* amp, const uint8_t* rnd, const uint8_t* tex, int32_t n) {
  const __m256i k24 = _mm256_set1_epi16(24);
  const __m256i k128 = _mm256_set1_epi16(128);
  // New samples of sixteen pixels from their old samples and, in perceptual
  // rows, texture bytes (16-bit lanes).
  auto change = [&](int32_t at, __m256i old, __m256i t) {
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(amp + at));
    if (!kPerceptual) return _mm256_add_epi16(old, a);
    const __m256i r = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(rnd + at)));
    const __m256i weight = _mm256_add_epi16(_mm256_add_epi16(r, k128), _mm256_mullo_epi16(t, k24));
    const __m256i mag = _mm256_abs_epi16(a);
    const __m256i lo = _mm256_mullo_epi16(mag, weight);
    if (kShortProduct) return _mm256_add_epi16(old, _mm256_sign_epi16(_mm256_srli_epi16(lo, 10), a));
    // (|a| x weight) >> 10 from the two halves of the 32-bit product.
    const __m256i hi = _mm256_mulhi_epu16(mag, weight);
    const __m256i q = _mm256_or_si256(_mm256_srli_epi16(lo, 10), _mm256_slli_epi16(hi, 6));
    return _mm256_add_epi16(old, _mm256_sign_epi16(q, a));
  };
  auto load16 = [](const uint8_t* p) {
    return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  };
  auto whole16 = [&](int32_t at) {
    return change(at, load16(luma + at), kPerceptual ? load16(tex + at) : _mm256_setzero_si256());
  };
  int32_t x = 0;
  for (; x + 32 <= n; x += 32) {
    const __m256i v = _mm256_packus_epi16(whole16(x), whole16(x + 16));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(luma + x), _mm256_permute4x64_epi64(v, 0xD8));
  }
  if (x + 16 <= n) {
    const __m256i v = _mm256_permute4x64_epi64(_mm256_packus_epi16(whole16(x), whole16(x)), 0x08);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(luma + x), _mm256_castsi256_si128(v));
    x += 16;
  }
  if (x < n) {
    // The last pixels: only they are loaded and stored.
    const int32_t rest = n - x;
    const __m256i old = _mm256_cvtepu8_epi16(load_row16(luma + x, rest));
    const __m256i t = kPerceptual ? _mm256_cvtepu8_epi16(load_row16(tex + x, rest)) : _mm256_setzero_si256();
    const __m256i v = _mm256_permute4x64_epi64(_mm256_packus_epi16(change(x, old, t), old), 0x08);
    store_row16(luma + x, _mm256_castsi256_si128(v), rest);
  }
}

// Largest amplitude a work row can hold, and the largest weight of a
// perceptual change (random byte 255, texture byte 255).
constexpr int32_t kMaxAmplitude = 127;
constexpr int32_t kMaxWeight = 255 + 128 + 24 * 255;

// Adds the work rows of the used rows to the luma rows of the run. When no
// amplitude exceeds most_amp and most_amp x kMaxWeight fits 16 bits, the
// products are taken in 16 bits.
void apply_rows(const EmbedBand* b, const int32_t* used, int32_t used_count, const int16_t* amp_rows,
                const uint8_t* rnd_rows, size_t cells, bool perceptual, int32_t n, int32_t most_amp) {
  const bool short_product = most_amp * kMaxWeight <= 0xFFFF;
  const ptrdiff_t stride = b->geometry->stride;
  for (int32_t u = 0; u < used_count; ++u) {
    const int32_t r = used[u];
    uint8_t* line = b->luma + (static_cast<ptrdiff_t>(b->y) + r) * stride + b->first_x;
    const uint8_t* tex =
        perceptual ? b->texture + (static_cast<ptrdiff_t>(b->y) + r) * b->geometry->width + b->first_x
                   : nullptr;
    const int16_t* amp = amp_rows + static_cast<size_t>(r) * cells;
    const uint8_t* rnd = rnd_rows + static_cast<size_t>(r) * cells;
    if (!perceptual) {
      apply_row<false, false>(line, amp, rnd, tex, n);
    } else if (short_product) {
      apply_row<true, true>(line, amp, rnd, tex, n);
    } else {
      apply_row<true, false>(line, amp, rnd, tex, n);
    }
  }
}

// The amplitudes of one prepared block.
inline __m128i load_amp(const PreparedHalf* half) {
  return _mm_load_si128(reinterpret_cast<const __m128i*>(half->amp));
}

// The random bytes of one prepared block, from a superpixel's random bytes.
inline __m128i pick_random(const uint8_t* bytes, const PreparedHalf* half) {
  return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + half->rank)),
                          _mm_load_si128(reinterpret_cast<const __m128i*>(half->shuffle)));
}

// What the row builder needs: the used rows and where their work rows lie.
struct BuildRows {
  const EmbedBand* band;
  int32_t count;
  int32_t sp_w;
  int32_t area;
  int32_t used_count;
  int32_t row[kMaxSide];             // the used rows
  int32_t pattern_offset[kMaxSide];  // row * sp_w
  int16_t* amp[kMaxSide];            // amplitude row of each used row
  uint8_t* rnd[kMaxSide];            // random-byte row of each used row
  __m128i table;                     // shared attenuation table
  const __m128i* tables;             // per-superpixel tables, or null
  const uint8_t* bands;              // per-superpixel prepared set (border bands), or null
  const uint8_t* bytes;              // random bytes, superpixel i at bytes + i * slot
  int32_t slot;
  const PreparedHalf* prepared;      // entries of the prepared patterns, or null
  int32_t prepared_count;            // patterns there
  int32_t chunks;                    // blocks of eight columns per row
  int32_t sp_h;                      // pattern height
};

// Writes the amplitude (and, in perceptual mode, random-byte) rows of every
// superpixel: kIdentity when the table changes nothing, kNarrow when a
// pattern row fits one load of eight bytes.
template <bool kIdentity, bool kPerceptual, bool kNarrow>
void build_rows(const BuildRows& b) {
  const __m128i high_nibble = _mm_set1_epi8(static_cast<char>(0xF0));
  const __m128i zero = _mm_setzero_si128();
  const __m128i plus = _mm_set1_epi16(1);
  const __m128i minus = _mm_set1_epi16(-1);
  const int32_t sp_w = b.sp_w;
  for (int32_t i = 0; i < b.count; ++i) {
    const EmbedPattern* pattern = pick_pattern(b.band, i);
    const int32_t value = b.band->picks[i].value;
    const size_t x0 = static_cast<size_t>(i) * sp_w;
    if (pattern == nullptr) {
      // Nothing to add; superpixels past this one overwrite what the stores
      // leave beyond its width.
      for (int32_t u = 0; u < b.used_count; ++u) {
        for (int32_t c = 0; c < sp_w; c += 8) {
          _mm_storeu_si128(reinterpret_cast<__m128i*>(b.amp[u] + x0 + c), zero);
          if (kPerceptual) _mm_storel_epi64(reinterpret_cast<__m128i*>(b.rnd[u] + x0 + c), zero);
          if (kNarrow) break;
        }
      }
      continue;
    }
    const uint8_t* bytes = b.bytes + static_cast<ptrdiff_t>(i) * b.slot;
    if (!kNarrow && b.prepared != nullptr) {
      // Everything but the random bytes themselves is known per pattern.
      const int32_t set = b.bands != nullptr ? b.bands[i] : 0;
      const PreparedHalf* entries =
          b.prepared + prepared_at(set, b.prepared_count, b.band->picks[i].pattern, value < 0 ? 1 : 0, b.sp_h, b.chunks);
      for (int32_t u = 0; u < b.used_count; ++u) {
        const PreparedHalf* half = entries + b.row[u] * b.chunks;
        for (int32_t c = 0; c < sp_w; c += 8, ++half) {
          _mm_storeu_si128(reinterpret_cast<__m128i*>(b.amp[u] + x0 + c), load_amp(half));
          if (kPerceptual) _mm_storel_epi64(reinterpret_cast<__m128i*>(b.rnd[u] + x0 + c), pick_random(bytes, half));
        }
      }
      continue;
    }
    const __m128i table = kIdentity ? zero : (b.tables != nullptr ? b.tables[i] : b.table);
    const __m128i sign = value < 0 ? minus : plus;
    int32_t rank = 0;
    for (int32_t u = 0; u < b.used_count; ++u) {
      const int8_t* prow = pattern->pattern + b.pattern_offset[u];
      // Bytes of the pattern from this row on; the last blocks of the last
      // rows are loaded without reading past the pattern.
      const int32_t left = b.area - b.pattern_offset[u];
      for (int32_t c = 0; c < sp_w; c += 8) {
        const __m128i pat = c + 8 <= left ? _mm_loadl_epi64(reinterpret_cast<const __m128i*>(prow + c))
                                          : load_pattern8(prow + c, left - c);
        __m128i a8 = pat;
        if (!kIdentity) {
          // Bytes 0..15 go through the table, all others keep their value.
          const __m128i in_table = _mm_cmpeq_epi8(_mm_and_si128(pat, high_nibble), zero);
          a8 = _mm_blendv_epi8(pat, _mm_shuffle_epi8(table, pat), in_table);
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(b.amp[u] + x0 + c),
                         _mm_sign_epi16(_mm_cvtepi8_epi16(a8), sign));
        if (kPerceptual) {
          // The random bytes of the non-zero pattern bytes, in pixel order.
          const uint32_t valid = kNarrow ? static_cast<uint32_t>(sp_w) : static_cast<uint32_t>(imin(8, sp_w - c));
          const uint32_t nz = ~static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(pat, zero))) &
                              ((1u << valid) - 1);
          const __m128i picked =
              _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + rank)),
                               _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz])));
          _mm_storel_epi64(reinterpret_cast<__m128i*>(b.rnd[u] + x0 + c), picked);
          rank += __builtin_popcount(nz);
        }
        if (kNarrow) break;
      }
    }
  }
}

// Entries of no pattern: amplitude 0 in every row.
alignas(64) constexpr uint8_t kNoEntries[kMaxSide * sizeof(PreparedHalf)] = {};

// Where the parts of the scratch space lie (as sized by
// embed_band_scratch_bytes): one amplitude row and one random-byte row per
// superpixel row, the random bytes of every superpixel, per-superpixel
// tables and bands (and, on the prepared path, entry pointers), border sums.
struct Scratch {
  size_t cells;        // length of a work row
  int32_t slot;        // bytes of random bytes per superpixel
  int16_t* amp_rows;
  uint8_t* rnd_rows;
  uint8_t* rnd;
  __m128i* tables;
  uint8_t* bands;
  uint32_t* sums;
};

Scratch carve(const EmbedBand* b) {
  const int32_t sp_w = b->geometry->sp_w;
  const int32_t sp_h = b->geometry->sp_h;
  Scratch s;
  s.cells = static_cast<size_t>(b->count) * sp_w + 64;
  s.slot = ((sp_w * sp_h + 7) / 8 + 2) * 8;
  uint8_t* p = align64(b->scratch);
  s.amp_rows = reinterpret_cast<int16_t*>(p);
  p = align64(p + s.cells * 2 * static_cast<size_t>(sp_h));
  s.rnd_rows = p;
  p = align64(p + s.cells * static_cast<size_t>(sp_h));
  s.rnd = p;
  p = align64(p + static_cast<size_t>(b->count + 8) * s.slot);
  s.tables = reinterpret_cast<__m128i*>(p);
  s.bands = p + static_cast<size_t>(b->count) * sizeof(__m128i);
  p = align64(p + static_cast<size_t>(b->count) * 64);
  s.sums = reinterpret_cast<uint32_t*>(p);
  return s;
}

// The rows numbered in mask, in order, into used; returns their count.
int32_t list_rows(uint64_t mask, int32_t sp_h, int32_t* used) {
  int32_t count = 0;
  for (int32_t r = 0; r < sp_h; ++r) {
    if (((mask >> r) & 1) != 0) used[count++] = r;
  }
  return count;
}

// The work rows of every superpixel of a run, superpixel by superpixel;
// halves[i] is superpixel i's prepared row 0. kRows above 0: the rows
// used[0] .. used[0] + kRows - 1, with the row loop unrolled; 0: the
// used_count rows listed in used. Each superpixel's stores overwrite what
// the one before leaves past its width.
template <bool kPerceptual, int kRows>
void build_prepared(const PreparedHalf* const* halves, int32_t count, int32_t sp_w, const Scratch& s,
                    const int32_t* used, int32_t used_count) {
  const ptrdiff_t cells = static_cast<ptrdiff_t>(s.cells);
  const int32_t rows = kRows > 0 ? kRows : used_count;
  // Row r of superpixel i: first + r of the pattern and work rows, where r
  // counts from 0 (unrolled) or is listed.
  const ptrdiff_t first = kRows > 0 ? used[0] : 0;
  int16_t* amp = s.amp_rows + first * cells;
  uint8_t* rnd = s.rnd_rows + first * cells;
  const uint8_t* bytes = s.rnd;
  for (int32_t i = 0; i < count; ++i, amp += sp_w, rnd += sp_w, bytes += s.slot) {
    const PreparedHalf* half = halves[i] + first;
    for (int32_t u = 0; u < rows; ++u) {
      const ptrdiff_t r = kRows > 0 ? u : used[u];
      _mm_storeu_si128(reinterpret_cast<__m128i*>(amp + r * cells), load_amp(half + r));
      if (kPerceptual) _mm_storel_epi64(reinterpret_cast<__m128i*>(rnd + r * cells), pick_random(bytes, half + r));
    }
  }
}

using BuildPrepared = void (*)(const PreparedHalf* const*, int32_t, int32_t, const Scratch&, const int32_t*,
                               int32_t);

// A run whose patterns are all prepared and at most eight columns wide. One
// pass over the superpixels finds each one's prepared rows for its sign (and
// border band) and the rows and random bytes the run needs; then the work
// rows are written a row at a time across the run and added to the luma.
template <bool kPerceptual>
void embed_prepared_narrow(const EmbedBand* b, const PreparedHeader* h, const Scratch& s, bool analyse,
                           int32_t bw, int32_t bh) {
  const int32_t count = b->count;
  const int32_t sp_w = b->geometry->sp_w;
  const int32_t sp_h = b->geometry->sp_h;
  const int32_t patterns = h->count;
  const PreparedHalf* const prepared = reinterpret_cast<const PreparedHalf*>(h + 1);
  const EmbedPick* const picks = b->picks;
  // Each superpixel's prepared rows start at halves[i] + row entries; the
  // pointers go after the tables and bands.
  const PreparedHalf** halves =
      reinterpret_cast<const PreparedHalf**>(reinterpret_cast<uint8_t*>(s.tables) + static_cast<size_t>(count) * 32);
  if (analyse) border_tables(b, s.tables, s.bands, bw, bh, s.sums);
  const PreparedHalf* const none = reinterpret_cast<const PreparedHalf*>(kNoEntries);
  bool any = false;
  for (int32_t i = 0; i < count; ++i) {
    const uint32_t id = static_cast<uint32_t>(picks[i].pattern);
    if (id >= static_cast<uint32_t>(patterns)) {
      halves[i] = none;
      continue;
    }
    const ptrdiff_t set = analyse ? s.bands[i] : 0;
    halves[i] = prepared + prepared_at(set, patterns, id, picks[i].value < 0 ? 1 : 0, sp_h, 1);
    any = true;
  }
  if (!any) return;
  // The rows and random bytes of all prepared patterns: a row that is zero
  // in every pattern of this run adds nothing and takes no random byte, and
  // a superpixel takes only a prefix of its random bytes.
  int32_t used[kMaxSide];
  const int32_t used_count = list_rows(h->rows_used, sp_h, used);
  if (used_count == 0) return;
  if (kPerceptual) random_bytes(b, s.rnd, s.slot, (h->most_nonzero + 7) / 8);

  // Most runs use a few rows one after another (those inside the border).
  static constexpr BuildPrepared kBuild[2][9] = {
      {build_prepared<false, 0>, build_prepared<false, 1>, build_prepared<false, 2>, build_prepared<false, 3>,
       build_prepared<false, 4>, build_prepared<false, 5>, build_prepared<false, 6>, build_prepared<false, 7>,
       build_prepared<false, 8>},
      {build_prepared<true, 0>, build_prepared<true, 1>, build_prepared<true, 2>, build_prepared<true, 3>,
       build_prepared<true, 4>, build_prepared<true, 5>, build_prepared<true, 6>, build_prepared<true, 7>,
       build_prepared<true, 8>}};
  const bool contiguous = used[used_count - 1] - used[0] == used_count - 1;
  kBuild[kPerceptual ? 1 : 0][contiguous && used_count <= 8 ? used_count : 0](halves, count, sp_w, s, used,
                                                                                used_count);
  apply_rows(b, used, used_count, s.amp_rows, s.rnd_rows, s.cells, kPerceptual,
             count * sp_w, h->most_amp);
}

}  // namespace

void embed_band_avx2(const EmbedBand* b) {
  const int32_t sp_w = b->geometry->sp_w;
  const int32_t sp_h = b->geometry->sp_h;
  const int32_t count = b->count;
  if (count < 1 || sp_w < 1 || sp_h < 1) return;
  // Rows are listed in a fixed array, and longer pattern rows gain nothing.
  if (b->scratch == nullptr || sp_w > kMaxSide || sp_h > kMaxSide) {
    embed_band(b);
    return;
  }
  const int32_t bw = border_or_default(b->geometry->border_w, sp_w);
  const int32_t bh = border_or_default(b->geometry->border_h, sp_h);
  const int32_t n = count * sp_w;
  const int32_t area = sp_w * sp_h;
  const bool perceptual = b->pm_mode == 3 && b->texture != nullptr;
  const Scratch s = carve(b);

  // Attenuation tables: identity for modes 0 and 3, border analysis for mode
  // 2, amplitude 1 for every other mode. Twice the border is formed in 64
  // bits, so that a border near the 32-bit limit cannot wrap past the test.
  const bool analyse = b->pm_mode == 2 && !(int64_t{2} * bw > sp_w || int64_t{2} * bh > sp_h);
  const bool identity = b->pm_mode == 0 || b->pm_mode == 3;
  const PreparedHeader* header = nullptr;
  if (b->prepared != nullptr) {
    const PreparedHeader* h = reinterpret_cast<const PreparedHeader*>(b->prepared);
    const int32_t kind = analyse ? 2 : (identity ? 1 : 0);
    if (h->sp_w == sp_w && h->sp_h == sp_h && h->kind == kind && h->count == b->pattern_count) header = h;
  }
  if (header != nullptr && sp_w <= 8) {
    perceptual ? embed_prepared_narrow<true>(b, header, s, analyse, bw, bh)
               : embed_prepared_narrow<false>(b, header, s, analyse, bw, bh);
    return;
  }

  // The rows in which some pattern has a non-zero byte; the others stay as
  // they are. Within those rows, a pattern row of zeros adds nothing and
  // takes no random byte, so every pattern is worked on over the same rows.
  uint64_t rows_used = 0;
  int32_t most_nonzero = 0;
  for (int32_t i = 0; i < count; ++i) {
    const EmbedPattern* p = pick_pattern(b, i);
    if (p == nullptr) continue;
    rows_used |= p->row_mask;
    most_nonzero = imax(most_nonzero, p->nonzero);
  }
  int32_t used[kMaxSide];
  const int32_t used_count = list_rows(rows_used, sp_h, used);
  if (used_count == 0) return;

  int32_t small[8] = {0, 1, 2, 3, 4, 5, 6, 7};
  if (!identity && !analyse) {
    for (int32_t i = 1; i < 8; ++i) small[i] = 1;
  }
  const __m128i shared_table = make_table(small);
  if (analyse) border_tables(b, s.tables, s.bands, bw, bh, s.sums);
  if (perceptual) random_bytes(b, s.rnd, s.slot, (most_nonzero + 7) / 8);

  BuildRows rows{};
  rows.band = b;
  rows.count = count;
  rows.sp_w = sp_w;
  rows.area = area;
  rows.used_count = used_count;
  for (int32_t u = 0; u < used_count; ++u) {
    rows.pattern_offset[u] = used[u] * sp_w;
    rows.amp[u] = s.amp_rows + static_cast<size_t>(used[u]) * s.cells;
    rows.rnd[u] = s.rnd_rows + static_cast<size_t>(used[u]) * s.cells;
    rows.row[u] = used[u];
  }
  rows.table = shared_table;
  rows.tables = analyse ? s.tables : nullptr;
  rows.bytes = s.rnd;
  rows.slot = s.slot;
  rows.chunks = (sp_w + 7) / 8;
  rows.sp_h = sp_h;
  rows.prepared = nullptr;
  rows.prepared_count = 0;
  rows.bands = nullptr;
  if (header != nullptr) {
    rows.prepared = reinterpret_cast<const PreparedHalf*>(header + 1);
    rows.prepared_count = header->count;
    if (analyse) rows.bands = s.bands;
  }
  if (identity) {
    if (perceptual) {
      sp_w <= 8 ? build_rows<true, true, true>(rows) : build_rows<true, true, false>(rows);
    } else {
      sp_w <= 8 ? build_rows<true, false, true>(rows) : build_rows<true, false, false>(rows);
    }
  } else {
    sp_w <= 8 ? build_rows<false, false, true>(rows) : build_rows<false, false, false>(rows);
  }
  apply_rows(b, used, used_count, s.amp_rows, s.rnd_rows, s.cells, perceptual, n, kMaxAmplitude);
}

int64_t embed_band_prepare_avx2(const EmbedPattern* patterns, int32_t count, int32_t sp_w,
                                int32_t sp_h, int32_t pm_mode, uint8_t* out) {
  if (count < 1 || sp_w < 1 || sp_h < 1 || sp_w > kMaxSide || sp_h > kMaxSide) return 0;
  // Border analysis gives every superpixel one of six tables: one set of
  // entries per table.
  const int32_t kind = pm_mode == 2 ? 2 : (pm_mode == 0 || pm_mode == 3 ? 1 : 0);
  const int32_t variants = kind == 2 ? 6 : 1;
  const int32_t chunks = (sp_w + 7) / 8;
  const int64_t bytes = static_cast<int64_t>(sizeof(PreparedHeader)) +
                        static_cast<int64_t>(variants) * count * chunks * sp_h *
                            2 * static_cast<int64_t>(sizeof(PreparedHalf));
  if (bytes > kMaxPrepared) return 0;
  if (out == nullptr) return bytes;

  PreparedHeader* h = reinterpret_cast<PreparedHeader*>(out);
  *h = PreparedHeader{};
  h->sp_w = sp_w;
  h->sp_h = sp_h;
  h->chunks = chunks;
  h->count = count;
  h->kind = kind;
  h->variants = variants;
  PreparedHalf* entries = reinterpret_cast<PreparedHalf*>(out + sizeof(PreparedHeader));
  const __m128i high_nibble = _mm_set1_epi8(static_cast<char>(0xF0));
  const __m128i zero = _mm_setzero_si128();
  __m128i most = zero;  // largest amplitude so far, per lane
  for (int32_t set = 0; set < variants; ++set) {
    // The amplitude of pattern bytes 0..15 under this set's table (all
    // others keep their value), as build_rows looks it up.
    int32_t small[8] = {0, 1, 2, 3, 4, 5, 6, 7};
    if (kind == 0) {
      for (int32_t p = 1; p < 8; ++p) small[p] = 1;
    }
    const __m128i table = kind == 2 ? kBorderTables.at(set) : make_table(small);
    for (int32_t i = 0; i < count; ++i) {
      const int8_t* pattern = patterns[i].pattern;
      const int32_t area = sp_w * sp_h;
      PreparedHalf* plus = entries + prepared_at(set, count, i, 0, sp_h, chunks);
      PreparedHalf* minus = entries + prepared_at(set, count, i, 1, sp_h, chunks);
      int32_t rank = 0;
      for (int32_t r = 0; r < sp_h; ++r) {
        for (int32_t c = 0, k = 0; c < sp_w; c += 8, ++k) {
          const int32_t inside = imin(8, sp_w - c);
          const int32_t at = r * sp_w + c;
          // Bytes past the block's columns (or of no pattern) count as 0.
          __m128i pat = pattern != nullptr ? load_pattern8(pattern + at, area - at) : zero;
          pat = _mm_and_si128(pat, _mm_loadl_epi64(reinterpret_cast<const __m128i*>(kKeepBytes + 8 - inside)));
          const __m128i in_table = _mm_cmpeq_epi8(_mm_and_si128(pat, high_nibble), zero);
          const __m128i a8 = _mm_blendv_epi8(pat, _mm_shuffle_epi8(table, pat), in_table);
          const __m128i amp = _mm_cvtepi8_epi16(a8);
          most = _mm_max_epi16(most, _mm_abs_epi16(amp));
          const uint32_t nz = ~static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(pat, zero))) & 0xFFu;
          PreparedHalf& p = plus[r * chunks + k];
          PreparedHalf& m = minus[r * chunks + k];
          p = PreparedHalf{};
          m = PreparedHalf{};
          _mm_store_si128(reinterpret_cast<__m128i*>(p.amp), amp);
          _mm_store_si128(reinterpret_cast<__m128i*>(m.amp), _mm_sub_epi16(zero, amp));
          std::memcpy(p.shuffle, kExpand.rows[nz], 8);
          std::memcpy(m.shuffle, kExpand.rows[nz], 8);
          p.rank = rank;
          m.rank = rank;
          rank += __builtin_popcount(nz);
          if (nz != 0) h->rows_used |= uint64_t{1} << r;
        }
      }
      h->most_nonzero = imax(h->most_nonzero, rank);
    }
  }
  alignas(16) int16_t lanes[8];
  _mm_store_si128(reinterpret_cast<__m128i*>(lanes), most);
  int32_t most_amp = 0;
  for (int16_t v : lanes) most_amp = imax(most_amp, v);
  h->most_amp = most_amp;
  return bytes;
}

}  // namespace lumamark
