// Exact division of bounded numerators by a divisor that stays fixed across a
// loop, through one 64-bit multiplication instead of a hardware division.
//
// With mul = ceil(2^40 / d) and e = mul * d - 2^40 (0 <= e < d), the quotient
// (n * mul) >> 40 equals n / d whenever n * e < 2^40. For every divisor
// 1 <= d <= kMaxFastDivisor and every numerator 0 <= n <= 256 * d this holds,
// since 256 * d * (d - 1) < 2^40 there. The rounded means of the kernels
// (at most 255 * d + d / 2) always fall in that range.
#pragma once

#include <cstdint>

namespace lumamark {

inline constexpr uint32_t kMaxFastDivisor = 65535;

struct FastDivisor {
  uint64_t mul;  // ceil(2^40 / divisor); divisor in 1..kMaxFastDivisor
};

inline FastDivisor fast_divisor(uint32_t d) {
  return FastDivisor{((uint64_t{1} << 40) + d - 1) / d};
}

// n / d for 0 <= n <= 256 * d.
inline uint32_t fast_divide(uint32_t n, FastDivisor f) {
  return static_cast<uint32_t>((static_cast<uint64_t>(n) * f.mul) >> 40);
}

}  // namespace lumamark

namespace lumamark {

// Exact division for 16-bit vector lanes: for 2 <= d <= 127 and 0 <= n < 256 * d,
// n / d == ((n * mul) >> 16) >> shift. For a power of two mul is 2^(16 - log2 d)
// and shift 0; otherwise shift = floor(log2 d) and mul = ceil(2^(16 + shift) / d),
// whose error mul * d - 2^(16 + shift) is below d, small enough for every n < 256 * d
// as long as d < 128.
struct SmallDivisor16 {
  uint16_t mul;   // multiplier for the high half of the 16 x 16 product
  int32_t shift;  // right shift after the high half
};

inline constexpr uint32_t kMaxSmallDivisor16 = 127;

inline SmallDivisor16 small_divisor16(uint32_t d) {
  int32_t s = 0;
  while ((2u << s) <= d) ++s;  // floor(log2 d)
  if ((d & (d - 1)) == 0) return SmallDivisor16{static_cast<uint16_t>(1u << (16 - s)), 0};
  return SmallDivisor16{static_cast<uint16_t>(((1u << (16 + s)) + d - 1) / d), s};
}

inline uint32_t small_divide16(uint32_t n, SmallDivisor16 f) {
  return ((n * f.mul) >> 16) >> f.shift;
}

}  // namespace lumamark
