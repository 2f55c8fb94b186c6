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
