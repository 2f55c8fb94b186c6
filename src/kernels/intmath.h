// 32-bit integer helpers shared by the kernels.
#pragma once

#include <cstdint>

namespace lumamark {

constexpr int32_t imin(int32_t a, int32_t b) { return a < b ? a : b; }
constexpr int32_t imax(int32_t a, int32_t b) { return a > b ? a : b; }
// The upper bound is applied first, then the lower one.
constexpr int32_t iclamp(int32_t v, int32_t lo, int32_t hi) { return imax(imin(v, hi), lo); }

// Wrapping 32-bit arithmetic without signed overflow: the operands are
// reinterpreted as unsigned, combined, and the low 32 bits read back as signed.
inline int32_t wrap_add(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)); }
inline int32_t wrap_sub(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b)); }
inline int32_t wrap_mul(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b)); }

}  // namespace lumamark
