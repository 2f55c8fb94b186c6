// embed_superpixel with AVX2 for superpixels up to 16 pixels wide: one row
// at a time, every pixel in its own 16-bit lane. In perceptual mode the
// random bytes of the superpixel's generator are drawn up front, as many as
// its non-zero pattern bytes take, and handed out row by row in pixel order.
#include <immintrin.h>

#include <cstddef>

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
  const uint32_t lo = (static_cast<uint32_t>(y) << 16) ^
                      (static_cast<uint32_t>(frame_w) ^ static_cast<uint32_t>(frame_h)) ^
                      static_cast<uint32_t>(wrap_add(x, 1));
  Prng64 noise{};
  prng64_seed(&noise, lo, lo ^ 0xacbdef01u);
  for (int32_t k = 0; k * 8 < nonzero; ++k) {
    const uint64_t bytes = prng64_next_u64(&noise);
    __builtin_memcpy(random + k * 8, &bytes, 8);
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
