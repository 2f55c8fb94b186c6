// embed_superpixel with AVX2 for superpixels up to 16 pixels wide: one row
// at a time, every pixel in its own 16-bit lane. In perceptual mode the
// random bytes of the superpixel's generator are drawn up front, as many as
// its non-zero pattern bytes take, and handed out row by row in pixel order.
#include <immintrin.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "kernels/embed.h"
#include "kernels/intmath.h"
#include "kernels/pattern.h"
#include "kernels/prng.h"
#include "kernels/x86/avx2.h"
#include "kernels/x86/rows_avx2.h"

namespace lumamark {
namespace {

constexpr int32_t kMaxWidth = 16;
constexpr int32_t kMaxHeight = 64;

// Bits of the non-zero bytes among the first n.
inline uint32_t nonzero_bits(__m128i bytes, int32_t n) {
  const uint32_t zero = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_setzero_si128())));
  return ~zero & ((1u << n) - 1);
}

// The random bytes of the superpixel at (x, y) of a frame_w x frame_h frame:
// one generator output serves eight non-zero pattern bytes.
inline void superpixel_noise(uint8_t* random, int32_t x, int32_t y, int32_t frame_w,
                             int32_t frame_h, int32_t nonzero) {
  // prng64_seed and prng64_next, with the state kept in registers.
  uint32_t s0 = (static_cast<uint32_t>(y) << 16) ^
                (static_cast<uint32_t>(frame_w) ^ static_cast<uint32_t>(frame_h)) ^
                static_cast<uint32_t>(wrap_add(x, 1));
  uint32_t s1 = s0 ^ 0xacbdef01u;
  for (int32_t k = 0; k * 8 < nonzero; ++k) {
    const uint32_t t = s1 ^ s0;
    s0 = rotr32(s0, 6) ^ t ^ (t << 9);
    s1 = rotr32(t, 19);
    const uint64_t bytes = static_cast<uint64_t>(s0) | (static_cast<uint64_t>(s1) << 32);
    __builtin_memcpy(random + k * 8, &bytes, 8);
  }
}

// Bytes of random numbers kept per superpixel of a run whose patterns have at
// most 64 bytes: eight generator outputs, and room for a sixteen-byte read
// from any of them.
constexpr size_t kNoiseSlot = 80;

inline __m256i rotr_lanes(__m256i v, int n) {
  return _mm256_or_si256(_mm256_srli_epi32(v, n), _mm256_slli_epi32(v, 32 - n));
}

// The random bytes of the count superpixels of a run (superpixel i at column
// first_x + i x sp_w, row y), each with as many generator outputs as its
// mask's non-zero bytes take, as superpixel_noise gives them, into
// kNoiseSlot bytes each: eight superpixels at a time, one per 32-bit lane.
// The slots are rounded up to a multiple of eight superpixels.
inline void run_noise(uint8_t* noise, const uint64_t* masks, int32_t count, int32_t first_x, int32_t sp_w,
                      int32_t y, int32_t frame_w, int32_t frame_h) {
  const uint32_t row_seed = (static_cast<uint32_t>(y) << 16) ^
                            (static_cast<uint32_t>(frame_w) ^ static_cast<uint32_t>(frame_h));
  const __m256i spread = _mm256_mullo_epi32(_mm256_set1_epi32(sp_w), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
  for (int32_t g0 = 0; g0 < count; g0 += 8) {
    int32_t steps = 0;
    for (int32_t l = 0; l < 8 && g0 + l < count; ++l) {
      const int32_t need = (__builtin_popcountll(masks[g0 + l]) + 7) / 8;
      steps = need > steps ? need : steps;
    }
    // x + 1 of each lane's superpixel, in wrapping 32-bit arithmetic.
    const uint32_t x1 = static_cast<uint32_t>(first_x) + static_cast<uint32_t>(g0) * static_cast<uint32_t>(sp_w) + 1u;
    __m256i s0 = _mm256_xor_si256(_mm256_set1_epi32(static_cast<int32_t>(row_seed)),
                                  _mm256_add_epi32(_mm256_set1_epi32(static_cast<int32_t>(x1)), spread));
    __m256i s1 = _mm256_xor_si256(s0, _mm256_set1_epi32(static_cast<int32_t>(0xacbdef01u)));
    uint8_t* slot = noise + static_cast<size_t>(g0) * kNoiseSlot;
    for (int32_t k = 0; k < steps; ++k) {
      const __m256i t = _mm256_xor_si256(s1, s0);
      s0 = _mm256_xor_si256(_mm256_xor_si256(rotr_lanes(s0, 6), t), _mm256_slli_epi32(t, 9));
      s1 = rotr_lanes(t, 19);
      // Each lane's output: s0 then s1, little-endian.
      const __m256i lo = _mm256_unpacklo_epi32(s0, s1);  // lanes 0, 1 | 4, 5
      const __m256i hi = _mm256_unpackhi_epi32(s0, s1);  // lanes 2, 3 | 6, 7
      uint8_t* out = slot + k * 8;
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(lo));
      _mm_storeh_pd(reinterpret_cast<double*>(out + kNoiseSlot), _mm_castsi128_pd(_mm256_castsi256_si128(lo)));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 2 * kNoiseSlot), _mm256_castsi256_si128(hi));
      _mm_storeh_pd(reinterpret_cast<double*>(out + 3 * kNoiseSlot), _mm_castsi128_pd(_mm256_castsi256_si128(hi)));
      const __m128i lo_up = _mm256_extracti128_si256(lo, 1);
      const __m128i hi_up = _mm256_extracti128_si256(hi, 1);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 4 * kNoiseSlot), lo_up);
      _mm_storeh_pd(reinterpret_cast<double*>(out + 5 * kNoiseSlot), _mm_castsi128_pd(lo_up));
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 6 * kNoiseSlot), hi_up);
      _mm_storeh_pd(reinterpret_cast<double*>(out + 7 * kNoiseSlot), _mm_castsi128_pd(hi_up));
    }
  }
}


}  // namespace

int32_t embed_superpixel_avx2(uint8_t* luma, const FrameGeometry* geometry, int32_t x, int32_t y,
                              int32_t step, int32_t value, const int8_t* pattern,
                              const uint8_t* texture, int32_t pm_mode) {
  const int32_t stride = geometry->stride;
  const int32_t sp_w = geometry->sp_w;
  const int32_t sp_h = geometry->sp_h;
  const int32_t frame_w = geometry->width;
  const int32_t frame_h = geometry->height;
  if (step != 1 || sp_w < 1 || sp_w > kMaxWidth || sp_h > kMaxHeight) {
    return embed_superpixel(luma, geometry, x, y, step, value, pattern, texture, pm_mode);
  }
  const int32_t bw = border_or_default(geometry->border_w, sp_w);
  const int32_t bh = border_or_default(geometry->border_h, sp_h);

  // The attenuation table, exactly as the plain kernel sets it.
  int32_t small[8];
  attenuation_table(luma, x, y, stride, sp_w, sp_h, bw, bh, pm_mode, small);
  if (sp_h < 1) return 0;

  // Entries 0..7 from the table, 8..15 the identity.
  const __m128i table = _mm_setr_epi8(
      0, static_cast<char>(imin(1, small[1])), static_cast<char>(imin(2, small[2])),
      static_cast<char>(imin(3, small[3])), static_cast<char>(imin(4, small[4])),
      static_cast<char>(imin(5, small[5])), static_cast<char>(imin(6, small[6])),
      static_cast<char>(imin(7, small[7])), 8, 9, 10, 11, 12, 13, 14, 15);
  const __m128i high_nibble = _mm_set1_epi8(static_cast<char>(0xF0));
  const __m128i zero = _mm_setzero_si128();
  const __m128i sign = _mm_set1_epi16(value < 0 ? -1 : 1);
  const bool perceptual = pm_mode == 3 && texture != nullptr;

  // Random bytes: one generator output serves eight non-zero pattern bytes.
  alignas(16) uint8_t random[(kMaxWidth * kMaxHeight / 8 + 2) * 8];
  if (perceptual) {
    int32_t nonzero = 0;
    for (int32_t r = 0; r < sp_h; ++r) {
      const __m128i pat = load_row16(reinterpret_cast<const uint8_t*>(pattern) + r * sp_w, sp_w);
      nonzero += __builtin_popcount(nonzero_bits(pat, sp_w));
    }
    superpixel_noise(random, x, y, frame_w, frame_h, nonzero);
  }

  const __m256i k24 = _mm256_set1_epi16(24);
  const __m256i k128 = _mm256_set1_epi16(128);
  const __m256i k255 = _mm256_set1_epi16(255);
  const __m256i zero16 = _mm256_setzero_si256();
  __m256i total = _mm256_setzero_si256();
  int32_t rank = 0;
  for (int32_t r = 0; r < sp_h; ++r) {
    const __m128i pat = load_row16(reinterpret_cast<const uint8_t*>(pattern) + r * sp_w, sp_w);
    // Bytes 0..15 go through the table, all others keep their value.
    const __m128i in_table = _mm_cmpeq_epi8(_mm_and_si128(pat, high_nibble), zero);
    const __m128i a8 = _mm_blendv_epi8(pat, _mm_shuffle_epi8(table, pat), in_table);
    const __m256i a = _mm256_cvtepi8_epi16(a8);
    const __m256i signed_a = _mm256_sign_epi16(a, _mm256_broadcastsi128_si256(sign));
    uint8_t* line = luma + (static_cast<ptrdiff_t>(y) + r) * stride + x;
    const __m256i old = _mm256_cvtepu8_epi16(load_row16(line, sp_w));
    __m256i change = signed_a;
    if (perceptual) {
      const uint32_t nz = nonzero_bits(pat, sp_w);
      const __m128i lo = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(random + rank)),
                                          _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz & 0xFF])));
      rank += __builtin_popcount(nz & 0xFF);
      const __m128i hi = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(random + rank)),
                                          _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz >> 8])));
      rank += __builtin_popcount(nz >> 8);
      const __m256i rnd = _mm256_cvtepu8_epi16(_mm_unpacklo_epi64(lo, hi));
      const uint8_t* tex_row = texture + (static_cast<ptrdiff_t>(y) + r) * frame_w + x;
      const __m256i tex = _mm256_cvtepu8_epi16(load_row16(tex_row, sp_w));
      const __m256i weight = _mm256_add_epi16(_mm256_add_epi16(rnd, k128), _mm256_mullo_epi16(tex, k24));
      const __m256i mag = _mm256_abs_epi16(signed_a);
      // (|a| x weight) >> 10 from the two halves of the 32-bit product,
      // then the sign of a: the division truncates toward zero.
      const __m256i q = _mm256_or_si256(_mm256_srli_epi16(_mm256_mullo_epi16(mag, weight), 10),
                                        _mm256_slli_epi16(_mm256_mulhi_epu16(mag, weight), 6));
      change = _mm256_sign_epi16(q, signed_a);
    }
    const __m256i now = _mm256_max_epi16(_mm256_min_epi16(_mm256_add_epi16(old, change), k255), zero16);
    total = _mm256_add_epi16(total, _mm256_sub_epi16(now, old));
    const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(now, now), 0x08);
    store_row16(line, _mm256_castsi256_si128(packed), sp_w);
  }
  // At most 64 rows of changes of at most 255 per lane: no 16-bit overflow.
  const __m256i wide = _mm256_madd_epi16(total, _mm256_set1_epi16(1));
  __m128i s4 = _mm_add_epi32(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
  s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0x4E));
  s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0xB1));
  return _mm_cvtsi128_si32(s4);
}

// The passes of the repeated embedding, with the superpixel's rows kept in
// 16-bit lanes between passes. Outside border-activity mode the attenuation
// table does not depend on the pixels, every pass changes the same pixels
// (those of the non-zero pattern bytes, all with one amplitude) and every
// pass's generator gives each of them the same random byte: the weights are
// worked out once, and each pass only scales them by its amplitude.
int32_t embed_superpixel_repeat_avx2(uint8_t* luma, const FrameGeometry* geometry, int32_t x,
                                     int32_t y, int32_t value, const int8_t* pattern,
                                     const uint8_t* texture, int32_t pm_mode, int32_t strength,
                                     int64_t target, int8_t* scratch) {
  const int32_t stride = geometry->stride;
  const int32_t sp_w = geometry->sp_w;
  const int32_t sp_h = geometry->sp_h;
  if (sp_w < 1 || sp_w > kMaxWidth || sp_h < 1 || sp_h > kMaxHeight || pm_mode == 2) {
    return embed_superpixel_repeat_with(embed_superpixel_avx2, luma, geometry, x, y, value, pattern,
                                        texture, pm_mode, strength, target, scratch);
  }
  // The attenuation table as attenuation_table sets it outside border-activity
  // mode: the identity for modes 0 and 3, amplitude 1 for all others.
  int32_t small[8] = {0, 1, 2, 3, 4, 5, 6, 7};
  if (pm_mode != 0 && pm_mode != 3) {
    for (int32_t i = 1; i < 8; ++i) small[i] = 1;
  }
  const bool perceptual = pm_mode == 3 && texture != nullptr;

  // The rows with a non-zero pattern byte: their pixels (16-bit lanes), which
  // lanes change, and in perceptual mode each lane's weight.
  __m256i cur[kMaxHeight];
  __m256i live[kMaxHeight];
  __m256i weight[kMaxHeight];
  int32_t row_of[kMaxHeight];
  uint32_t bits[kMaxHeight];
  int32_t rows = 0;
  int32_t nonzero = 0;
  for (int32_t r = 0; r < sp_h; ++r) {
    const __m128i pat = load_row16(reinterpret_cast<const uint8_t*>(pattern) + r * sp_w, sp_w);
    const uint32_t nz = nonzero_bits(pat, sp_w);
    if (nz == 0) continue;
    nonzero += __builtin_popcount(nz);
    const uint8_t* line = luma + (static_cast<ptrdiff_t>(y) + r) * stride + x;
    cur[rows] = _mm256_cvtepu8_epi16(load_row16(line, sp_w));
    live[rows] = _mm256_cvtepi8_epi16(_mm_xor_si128(_mm_cmpeq_epi8(pat, _mm_setzero_si128()),
                                                    _mm_set1_epi8(-1)));
    row_of[rows] = r;
    bits[rows] = nz;
    ++rows;
  }
  if (perceptual && rows > 0) {
    alignas(16) uint8_t random[(kMaxWidth * kMaxHeight / 8 + 2) * 8];
    superpixel_noise(random, x, y, geometry->width, geometry->height, nonzero);
    const __m256i k24 = _mm256_set1_epi16(24);
    const __m256i k128 = _mm256_set1_epi16(128);
    int32_t rank = 0;
    for (int32_t u = 0; u < rows; ++u) {
      const uint32_t nz = bits[u];
      const __m128i lo8 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(random + rank)),
                                           _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz & 0xFF])));
      rank += __builtin_popcount(nz & 0xFF);
      const __m128i hi8 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(random + rank)),
                                           _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz >> 8])));
      rank += __builtin_popcount(nz >> 8);
      const __m256i rnd = _mm256_cvtepu8_epi16(_mm_unpacklo_epi64(lo8, hi8));
      const uint8_t* tex_row = texture + (static_cast<ptrdiff_t>(y) + row_of[u]) * geometry->width + x;
      const __m256i tex = _mm256_cvtepu8_epi16(load_row16(tex_row, sp_w));
      weight[u] = _mm256_add_epi16(_mm256_add_epi16(rnd, k128), _mm256_mullo_epi16(tex, k24));
    }
  }

  const __m256i k255 = _mm256_set1_epi16(255);
  const __m256i zero16 = _mm256_setzero_si256();
  auto magnitude = [](int32_t v) { return v < 0 ? -static_cast<int64_t>(v) : static_cast<int64_t>(v); };
  int32_t a = value;
  bool alive = true;  // a pass with the low byte 0 zeroes the pattern for good
  int32_t signal = 0;
  for (;;) {
    const int8_t amp = static_cast<int8_t>(static_cast<uint8_t>(magnitude(a) & 0xff));
    if (amp == 0) alive = false;
    signal = 0;
    if (alive && rows > 0) {
      // The amplitude of every changed pixel, after the table and the sign.
      int32_t eff = amp;
      if (eff >= 0 && eff <= 7) eff = imin(eff, small[eff]);
      const int32_t sa = a < 0 ? -eff : eff;
      __m256i total = _mm256_setzero_si256();
      if (perceptual) {
        const __m256i mag = _mm256_set1_epi16(static_cast<int16_t>(sa < 0 ? -sa : sa));
        const __m256i sgn = _mm256_set1_epi16(static_cast<int16_t>(sa));
        for (int32_t u = 0; u < rows; ++u) {
          // (|a| x weight) >> 10 from the two halves of the 32-bit product,
          // then the sign of a: the division truncates toward zero.
          const __m256i q = _mm256_or_si256(_mm256_srli_epi16(_mm256_mullo_epi16(mag, weight[u]), 10),
                                            _mm256_slli_epi16(_mm256_mulhi_epu16(mag, weight[u]), 6));
          const __m256i change = _mm256_and_si256(_mm256_sign_epi16(q, sgn), live[u]);
          const __m256i now = _mm256_max_epi16(_mm256_min_epi16(_mm256_add_epi16(cur[u], change), k255), zero16);
          total = _mm256_add_epi16(total, _mm256_sub_epi16(now, cur[u]));
          cur[u] = now;
        }
      } else {
        const __m256i add = _mm256_set1_epi16(static_cast<int16_t>(sa));
        for (int32_t u = 0; u < rows; ++u) {
          const __m256i change = _mm256_and_si256(add, live[u]);
          const __m256i now = _mm256_max_epi16(_mm256_min_epi16(_mm256_add_epi16(cur[u], change), k255), zero16);
          total = _mm256_add_epi16(total, _mm256_sub_epi16(now, cur[u]));
          cur[u] = now;
        }
      }
      // At most 64 rows of changes of at most 255 per lane: no 16-bit overflow.
      const __m256i wide = _mm256_madd_epi16(total, _mm256_set1_epi16(1));
      __m128i s4 = _mm_add_epi32(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
      s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0x4E));
      s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0xB1));
      signal = _mm_cvtsi128_si32(s4);
    }
    a = a < 0 ? a - 1 : a + 1;
    if (magnitude(a) >= strength || target <= magnitude(signal)) break;
  }
  for (int32_t u = 0; u < rows; ++u) {
    uint8_t* line = luma + (static_cast<ptrdiff_t>(y) + row_of[u]) * stride + x;
    const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(cur[u], cur[u]), 0x08);
    store_row16(line, _mm256_castsi256_si128(packed), sp_w);
  }
  return signal;
}

}  // namespace lumamark

namespace lumamark {

// The repeated embedding of a run of superpixels, one pass at a time across
// the whole run: each pixel row of the run is worked on sixteen pixels per
// step, every pixel in its own 16-bit lane, with the amplitude of each
// superpixel's pass spread over its columns (0 for superpixels that are done).
// Outside border-activity mode every pass of a superpixel changes the same
// pixels, with the same random bytes, so each pixel's weight is worked out
// once: the random byte plus 128 plus 24 times the texture in perceptual mode,
// 1024 otherwise (so that (amplitude x weight) >> 10 is the amplitude), and 0
// where the pattern byte is 0. After each pass the changes of every superpixel
// are summed and its next pass decided, as embed_superpixel_repeat does; only
// the superpixels still going (a list kept from pass to pass) are visited.
void embed_repeat_run_avx2(const EmbedRepeatRun* run) {
  const FrameGeometry* g = run->geometry;
  const int32_t sp_w = g->sp_w;
  const int32_t sp_h = g->sp_h;
  const int32_t count = run->count;
  const int32_t pm_mode = run->pm_mode;
  if (count < 1) return;
  if (sp_w < 1 || sp_w > kMaxWidth || sp_h < 1 || sp_h > kMaxHeight || pm_mode == 2) {
    for (int32_t i = 0; i < count; ++i) {
      const RepeatItem& item = run->items[i];
      int32_t signal = 0;
      if (item.pattern != nullptr) {
        signal = embed_superpixel_repeat_avx2(run->luma, g, run->first_x + i * sp_w, run->y, item.value,
                                              item.pattern, run->texture, pm_mode, run->strength,
                                              item.target, reinterpret_cast<int8_t*>(run->scratch));
      }
      if (run->signals != nullptr) run->signals[i] = signal;
    }
    return;
  }
  const bool perceptual = pm_mode == 3 && run->texture != nullptr;
  // The attenuation table outside border-activity mode: the identity for
  // modes 0 and 3, amplitude 1 for all others.
  int32_t small[8] = {0, 1, 2, 3, 4, 5, 6, 7};
  if (pm_mode != 0 && pm_mode != 3) {
    for (int32_t i = 1; i < 8; ++i) small[i] = 1;
  }

  const int32_t n = count * sp_w;  // pixels of the run, at most the frame width
  const size_t lanes = static_cast<size_t>(n) + 64;
  uint8_t* rnd8 = run->scratch;                                             // sp_h rows
  uint8_t* live8 = rnd8 + static_cast<size_t>(sp_h) * lanes;                // sp_h rows
  int16_t* w16 = reinterpret_cast<int16_t*>(live8 + static_cast<size_t>(sp_h) * lanes);  // sp_h rows
  int16_t* amp16 = w16 + static_cast<size_t>(sp_h) * lanes;
  int16_t* sum16 = amp16 + lanes;
  int32_t* level = reinterpret_cast<int32_t*>(sum16 + lanes);  // a of the next pass
  // The superpixels that take another pass, left to right, each with kSpent
  // once a pass's low byte of 0 has zeroed its pattern for good.
  uint32_t* going_list = reinterpret_cast<uint32_t*>(level + count);
  int32_t* sums = reinterpret_cast<int32_t*>(going_list + count);  // sum of the last pass
  constexpr uint32_t kSpent = 0x80000000u;

  const int32_t area = sp_w * sp_h;
  const __m256i zero16 = _mm256_setzero_si256();
  const __m256i own_columns = _mm256_cmpgt_epi16(_mm256_set1_epi16(static_cast<int16_t>(sp_w)),
                                                 _mm256_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
  auto magnitude = [](int32_t v) { return v < 0 ? -static_cast<int64_t>(v) : static_cast<int64_t>(v); };
  // The pass of level a for the superpixel of entry: its signed amplitude
  // times 64 (at most 128 x 64 in magnitude) over its columns. The store
  // covers sixteen columns and writes 0 to those past its own; as the
  // superpixels are set from left to right, those columns are either set
  // again by a later superpixel still going or belong to one that is done
  // (and so hold 0). Returns the entry, marked spent from a low byte of 0 on.
  auto set_amplitude = [&](uint32_t entry, int32_t a) {
    const size_t i = entry & ~kSpent;
    const int8_t amp = static_cast<int8_t>(static_cast<uint8_t>(magnitude(a) & 0xff));
    if (amp == 0) entry |= kSpent;  // a low byte of 0 zeroes the pattern for good
    int32_t sa = 0;
    if ((entry & kSpent) == 0) {
      int32_t eff = amp;
      if (eff >= 0 && eff <= 7) eff = imin(eff, small[eff]);
      sa = a < 0 ? -eff : eff;
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(amp16 + i * sp_w),
                        _mm256_and_si256(_mm256_set1_epi16(static_cast<int16_t>(sa * 64)), own_columns));
    return entry;
  };
  // Every superpixel's amplitude starts at 0, over its columns and the
  // sixteen past the run; then those of the first pass.
  for (int32_t x = 0; x < n + 16; x += 16) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(amp16 + x), zero16);
  }
  uint64_t used_rows = 0;
  int32_t going = 0;
  for (int32_t i = 0; i < count; ++i) {
    sums[i] = 0;
    const int32_t a = run->items[i].value;
    level[i] = a;
    if (run->items[i].pattern != nullptr) going_list[going++] = set_amplitude(static_cast<uint32_t>(i), a);
  }
  if (going == 0) {
    if (run->signals != nullptr) {
      for (int32_t i = 0; i < count; ++i) run->signals[i] = 0;
    }
    return;
  }

  // Per superpixel and pixel row: which pixels change and their random bytes.
  const __m128i minus1 = _mm_set1_epi8(-1);
  bool weighed = false;  // the weights of the rows that change are in place
  if (area >= 16 && area <= 64 && sp_w <= 8) {
    // One mask for each whole pattern, from its first and last 32 bytes (or
    // 16 for a smaller one), which may overlap; only the rows where some
    // pattern of the run has a non-zero byte are worked on.
    const size_t after_sums = static_cast<size_t>(reinterpret_cast<uint8_t*>(sums + count) - run->scratch);
    uint64_t* masks = reinterpret_cast<uint64_t*>(run->scratch + ((after_sums + 7) & ~size_t{7}));
    uint8_t* noise = reinterpret_cast<uint8_t*>(masks + count);  // kNoiseSlot bytes per superpixel
    uint64_t any_mask = 0;
    for (int32_t i = 0; i < count; ++i) {
      const uint8_t* pattern = reinterpret_cast<const uint8_t*>(run->items[i].pattern);
      uint64_t mask = 0;
      if (pattern != nullptr) {
        if (area >= 32) {
          // The first 32 bytes and the last 32 (which may overlap them).
          auto bits32 = [](const uint8_t* p) {
            const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
            return uint64_t{~static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(bytes, _mm256_setzero_si256())))};
          };
          mask = bits32(pattern) | bits32(pattern + area - 32) << (area - 32);
        } else {
          mask = uint64_t{nonzero_bits(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pattern)), 16)} |
                 uint64_t{nonzero_bits(_mm_loadu_si128(reinterpret_cast<const __m128i*>(pattern + area - 16)), 16)}
                     << (area - 16);
        }
      }
      masks[i] = mask;
      any_mask |= mask;
    }
    const uint64_t row_bits = (uint64_t{1} << sp_w) - 1;
    for (int32_t r = 0; r < sp_h; ++r) {
      used_rows |= uint64_t{((any_mask >> (r * sp_w)) & row_bits) != 0} << r;
    }
    if (used_rows != 0) {
      if (perceptual) run_noise(noise, masks, count, run->first_x, sp_w, run->y, g->width, g->height);
      // Rows before the first one with a non-zero byte take no random bytes.
      const int32_t skip = __builtin_ctzll(used_rows);  // skip x sp_w < area <= 64
      const int32_t stop = 64 - __builtin_clzll(used_rows);
      // The weights superpixel by superpixel, eight lanes from its first
      // column on: the lanes past its own columns weigh 0 (their mask bits
      // are clear) and are written again by the next superpixel, or after the
      // last one by the zeros past the run.
      const __m128i k24 = _mm_set1_epi16(24);
      const __m128i k128 = _mm_set1_epi16(128);
      const __m128i k1024 = _mm_set1_epi16(1024);
      const __m256i k24x2 = _mm256_set1_epi16(24);
      const __m256i k128x2 = _mm256_set1_epi16(128);
      const ptrdiff_t tex_pitch = g->width;
      const uint8_t* tex_first =
          perceptual ? run->texture + (static_cast<ptrdiff_t>(run->y) + skip) * tex_pitch + run->first_x : nullptr;
      // Superpixel i; eight texture bytes at once unless they would pass
      // the run (short_row).
      auto weigh_superpixel = [&](int32_t i, auto with_noise, auto short_row) {
        uint64_t mask = masks[i] >> (skip * sp_w);
        const size_t x = static_cast<size_t>(i) * sp_w;
        int16_t* w_row = w16 + static_cast<size_t>(skip) * lanes + x;
        if constexpr (decltype(with_noise)::value) {
          const uint8_t* random = noise + static_cast<size_t>(i) * kNoiseSlot;
          const uint8_t* tex_row = tex_first + static_cast<ptrdiff_t>(x);
          auto texture8 = [&](const uint8_t* p) {
            if constexpr (decltype(short_row)::value) {
              return load_row16(p, sp_w);
            } else {
              return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
            }
          };
          int32_t r = skip;
          // Two rows at a time, one in each half of the register.
          for (; r + 2 <= stop; r += 2, w_row += 2 * lanes, tex_row += 2 * tex_pitch) {
            const uint32_t nz0 = static_cast<uint32_t>(mask & row_bits);
            const uint32_t nz1 = static_cast<uint32_t>((mask >> sp_w) & row_bits);
            mask >>= 2 * sp_w;
            const __m128i e0 = _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz0]));
            const __m128i e1 = _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz1]));
            const __m128i rnd0 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(random)), e0);
            random += __builtin_popcount(nz0);
            const __m128i rnd1 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(random)), e1);
            random += __builtin_popcount(nz1);
            const __m256i rnd = _mm256_cvtepu8_epi16(_mm_unpacklo_epi64(rnd0, rnd1));
            const __m256i tex = _mm256_cvtepu8_epi16(_mm_unpacklo_epi64(texture8(tex_row), texture8(tex_row + tex_pitch)));
            const __m256i w = _mm256_add_epi16(_mm256_add_epi16(rnd, k128x2), _mm256_mullo_epi16(tex, k24x2));
            const __m256i live = _mm256_cvtepi8_epi16(_mm_cmpgt_epi8(_mm_unpacklo_epi64(e0, e1), minus1));
            const __m256i both = _mm256_and_si256(w, live);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(w_row), _mm256_castsi256_si128(both));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(w_row + lanes), _mm256_extracti128_si256(both, 1));
          }
          if (r < stop) {
            const uint32_t nz = static_cast<uint32_t>(mask & row_bits);
            const __m128i e = _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz]));
            const __m128i rnd = _mm_cvtepu8_epi16(
                _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(random)), e));
            const __m128i w = _mm_add_epi16(_mm_add_epi16(rnd, k128),
                                            _mm_mullo_epi16(_mm_cvtepu8_epi16(texture8(tex_row)), k24));
            const __m128i live = _mm_cvtepi8_epi16(_mm_cmpgt_epi8(e, minus1));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(w_row), _mm_and_si128(w, live));
          }
        } else {
          for (int32_t r = skip; r < stop; ++r, w_row += lanes) {
            const uint32_t nz = static_cast<uint32_t>(mask & row_bits);
            mask >>= sp_w;
            const __m128i e = _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz]));
            const __m128i live = _mm_cvtepi8_epi16(_mm_cmpgt_epi8(e, minus1));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(w_row), _mm_and_si128(k1024, live));
          }
        }
      };
      // The superpixels whose eight bytes from their first column on lie in the run.
      const int32_t whole = n >= 8 ? (n - 8) / sp_w + 1 : 0;
      if (perceptual) {
        for (int32_t i = 0; i < whole; ++i) weigh_superpixel(i, std::true_type{}, std::false_type{});
        for (int32_t i = whole; i < count; ++i) weigh_superpixel(i, std::true_type{}, std::true_type{});
      } else {
        for (int32_t i = 0; i < count; ++i) weigh_superpixel(i, std::false_type{}, std::false_type{});
      }
      for (int32_t r = skip; r < stop; ++r) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(w16 + r * lanes + n), zero16);
      }
      weighed = true;
    }
  } else {
    alignas(16) uint8_t random[(kMaxWidth * kMaxHeight / 8 + 2) * 8] = {};
    for (int32_t i = 0; i < count; ++i) {
      const uint8_t* pattern = reinterpret_cast<const uint8_t*>(run->items[i].pattern);
      const size_t x = static_cast<size_t>(i) * sp_w;
      uint32_t bits[kMaxHeight];
      int32_t nonzero = 0;
      for (int32_t r = 0; r < sp_h; ++r) {
        const int32_t at = r * sp_w;
        __m128i pat = _mm_setzero_si128();
        if (pattern != nullptr) {
          pat = at + 16 <= area ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(pattern + at))
                                : load_row16(pattern + at, sp_w);
        }
        bits[r] = nonzero_bits(pat, sp_w);
        nonzero += __builtin_popcount(bits[r]);
        used_rows |= uint64_t{bits[r] != 0} << r;
      }
      if (perceptual && nonzero > 0) {
        superpixel_noise(random, run->first_x + static_cast<int32_t>(x), run->y, g->width, g->height, nonzero);
      }
      int32_t rank = 0;
      for (int32_t r = 0; r < sp_h; ++r) {
        const uint32_t nz = bits[r];
        const __m128i e_lo = _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz & 0xFF]));
        __m128i live = _mm_cmpgt_epi8(e_lo, minus1);
        __m128i rnd = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(random + rank)), e_lo);
        rank += __builtin_popcount(nz & 0xFF);
        if (sp_w > 8) {
          const __m128i e_hi = _mm_load_si128(reinterpret_cast<const __m128i*>(kExpand.rows[nz >> 8]));
          live = _mm_unpacklo_epi64(live, _mm_cmpgt_epi8(e_hi, minus1));
          rnd = _mm_unpacklo_epi64(
              rnd, _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(random + rank)), e_hi));
          rank += __builtin_popcount(nz >> 8);
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(rnd8 + r * lanes + x), rnd);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(live8 + r * lanes + x), live);
      }
    }
  }
  if (used_rows == 0) {
    // No pattern changes a pixel: every pass sums to 0.
    if (run->signals != nullptr) {
      for (int32_t i = 0; i < count; ++i) run->signals[i] = 0;
    }
    return;
  }
  // The rows from the first to the last that some pattern changes (those in
  // between that none changes weigh 0 throughout).
  const int32_t first_row = __builtin_ctzll(used_rows);
  const int32_t end_row = 64 - __builtin_clzll(used_rows);

  // The weight of every pixel of the rows that change. Lanes past the run
  // weigh 0.
  const __m256i k24 = _mm256_set1_epi16(24);
  const __m256i k128 = _mm256_set1_epi16(128);
  const __m256i k1024 = _mm256_set1_epi16(1024);
  for (int32_t r = first_row; r < end_row && !weighed; ++r) {
    uint8_t* rnd_row = rnd8 + r * lanes;
    uint8_t* live_row = live8 + r * lanes;
    std::memset(rnd_row + n, 0, 32);
    std::memset(live_row + n, 0, 32);
    const uint8_t* tex_row = perceptual ? run->texture + (static_cast<ptrdiff_t>(run->y) + r) * g->width + run->first_x
                                        : nullptr;
    int16_t* w_row = w16 + r * lanes;
    auto weigh = [&](int32_t x, auto whole) {
      const __m256i live = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(live_row + x)));
      __m256i w = k1024;
      if (perceptual) {
        const __m256i rnd = _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(rnd_row + x)));
        __m128i t8;
        if constexpr (whole) {
          t8 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(tex_row + x));
        } else {
          t8 = load_row16(tex_row + x, n - x);
        }
        w = _mm256_add_epi16(_mm256_add_epi16(rnd, k128), _mm256_mullo_epi16(_mm256_cvtepu8_epi16(t8), k24));
      }
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(w_row + x), _mm256_and_si256(w, live));
    };
    int32_t x = 0;
    for (; x + 16 <= n; x += 16) weigh(x, std::true_type{});
    if (x < n) weigh(x, std::false_type{});
  }
  // The column sums past the run stay 0 (they are read, and masked off,
  // with the last columns).
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(sum16 + n), zero16);

  const __m256i k255 = _mm256_set1_epi16(255);
  const __m256i ones16 = _mm256_set1_epi16(1);
  const ptrdiff_t pitch = g->stride;
  uint8_t* first_line = run->luma + (static_cast<ptrdiff_t>(run->y) + first_row) * g->stride + run->first_x;
  const int16_t* first_weights = w16 + static_cast<size_t>(first_row) * lanes;
  while (going > 0) {
    // Sixteen columns at a time, down the rows that change, with their sums
    // in a register.
    // The sixteen columns from x on; the last step of the run may hold fewer.
    auto step = [&](int32_t x, auto whole) {
      const __m256i sa = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(amp16 + x));
      if (_mm256_testz_si256(sa, sa)) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(sum16 + x), zero16);
        return;
      }
      const __m256i mag = _mm256_abs_epi16(sa);
      uint8_t* line = first_line + x;
      const int16_t* w_row = first_weights + x;
      __m256i sum = zero16;
      for (int32_t r = first_row; r < end_row; ++r, line += pitch, w_row += lanes) {
        __m128i bytes;
        if constexpr (whole) {
          bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line));
        } else {
          bytes = load_row16(line, n - x);
        }
        const __m256i old = _mm256_cvtepu8_epi16(bytes);
        const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(w_row));
        // (|a| x weight) >> 10 as the high half of (64 |a|) x weight, then
        // the sign of a: the division truncates toward zero.
        const __m256i q = _mm256_mulhi_epu16(mag, w);
        const __m256i now =
            _mm256_max_epi16(_mm256_min_epi16(_mm256_add_epi16(old, _mm256_sign_epi16(q, sa)), k255), zero16);
        // At most 64 rows of changes of at most 255 per lane: no 16-bit overflow.
        sum = _mm256_add_epi16(sum, _mm256_sub_epi16(now, old));
        const __m128i packed = _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packus_epi16(now, now), 0x08));
        if constexpr (whole) {
          _mm_storeu_si128(reinterpret_cast<__m128i*>(line), packed);
        } else {
          store_row16(line, packed, n - x);
        }
      }
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(sum16 + x), sum);
    };
    int32_t x = 0;
    for (; x + 16 <= n; x += 16) step(x, std::true_type{});
    if (x < n) step(x, std::false_type{});
    // Each superpixel's sum, and whether it takes another pass: if so its
    // next amplitude, else its columns back to 0.
    int32_t kept = 0;
    for (int32_t k = 0; k < going; ++k) {
      const uint32_t entry = going_list[k];
      const size_t i = entry & ~kSpent;
      // The superpixel's sp_w columns of the sixteen from its first on.
      const __m256i columns = _mm256_and_si256(
          _mm256_loadu_si256(reinterpret_cast<const __m256i*>(sum16 + i * sp_w)), own_columns);
      const __m256i wide = _mm256_madd_epi16(columns, ones16);
      __m128i s4 = _mm_add_epi32(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
      s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0x4E));
      s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0xB1));
      sums[i] = _mm_cvtsi128_si32(s4);
      const int32_t a = level[i];
      const int32_t next = a < 0 ? wrap_sub(a, 1) : wrap_add(a, 1);
      level[i] = next;
      if (magnitude(next) >= run->strength || run->items[i].target <= magnitude(sums[i])) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(amp16 + i * sp_w), zero16);
      } else {
        going_list[kept++] = set_amplitude(entry, next);
      }
    }
    going = kept;
  }
  if (run->signals != nullptr) {
    for (int32_t i = 0; i < count; ++i) run->signals[i] = sums[i];
  }
}

}  // namespace lumamark
