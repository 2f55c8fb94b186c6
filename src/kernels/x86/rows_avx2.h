// Helpers of the AVX2 kernels: loads and stores of short rows (at most 16
// bytes) that touch no byte outside the row, since the single-superpixel
// kernels work next to superpixels that other threads change at the same
// time; and the shuffles that hand random bytes to non-zero pattern bytes.
// Include only from files built for AVX2.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

namespace lumamark {

inline uint64_t load_bytes_u64(const uint8_t* p, int32_t n) {  // 0 <= n <= 8
  if (n >= 8) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
  }
  if (n == 4) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
  }
  if (n > 4) {
    // Two overlapping four-byte loads.
    uint32_t lo, hi;
    std::memcpy(&lo, p, 4);
    std::memcpy(&hi, p + n - 4, 4);
    return static_cast<uint64_t>(lo) | (static_cast<uint64_t>(hi >> (8 * (8 - n))) << 32);
  }
  uint64_t v = 0;
  for (int32_t k = 0; k < n; ++k) v |= static_cast<uint64_t>(p[k]) << (8 * k);
  return v;
}

// Bytes p[0..n) in the low bytes, zeros above; 0 <= n <= 16.
inline __m128i load_row16(const uint8_t* p, int32_t n) {
  if (n >= 16) return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  if (n > 8) {
    uint64_t lo, hi;
    std::memcpy(&lo, p, 8);
    std::memcpy(&hi, p + n - 8, 8);  // bytes n - 8 .. n - 1
    hi >>= 8 * (16 - n);             // keep bytes 8 .. n - 1
    return _mm_set_epi64x(static_cast<long long>(hi), static_cast<long long>(lo));
  }
  return _mm_cvtsi64_si128(static_cast<long long>(load_bytes_u64(p, n)));
}

// Writes the low n bytes of v to p[0..n); 0 <= n <= 16.
inline void store_row16(uint8_t* p, __m128i v, int32_t n) {
  if (n >= 16) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
    return;
  }
  alignas(16) uint8_t bytes[16];
  _mm_store_si128(reinterpret_cast<__m128i*>(bytes), v);
  if (n >= 8) {
    // Two overlapping eight-byte stores of the same bytes.
    std::memcpy(p, bytes, 8);
    std::memcpy(p + n - 8, bytes + n - 8, 8);
  } else if (n >= 4) {
    std::memcpy(p, bytes, 4);
    std::memcpy(p + n - 4, bytes + n - 4, 4);
  } else {
    for (int32_t k = 0; k < n; ++k) p[k] = bytes[k];
  }
}

// For every 8-bit mask of non-zero pattern bytes: byte k names the random
// byte that pixel k takes (its rank among the set bits), or 0x80 for none.
struct ExpandTable {
  alignas(16) uint8_t rows[256][16];
};

constexpr ExpandTable make_expand_table() {
  ExpandTable t{};
  for (int m = 0; m < 256; ++m) {
    int rank = 0;
    for (int k = 0; k < 16; ++k) {
      if (k < 8 && ((m >> k) & 1) != 0) {
        t.rows[m][k] = static_cast<uint8_t>(rank++);
      } else {
        t.rows[m][k] = 0x80;
      }
    }
  }
  return t;
}

inline constexpr ExpandTable kExpand = make_expand_table();

}  // namespace lumamark
