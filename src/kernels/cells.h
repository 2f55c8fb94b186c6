// Cell sums for the image-hash seed.
#pragma once

#include <cstdint>

namespace lumamark {

// values[r * gx + c] = (sum of the cw x ch samples of cell (c, r), wrapped to
// 32 bits, read as signed) >> 8, for cell rows r in [first_row, end_row). Cell
// (c, r) starts at luma + r * ch * stride + c * cw; cw and ch are at least 1.
// The signature of this kernel and its vector twin.
using CellSumsKernel = void(const uint8_t* luma, int32_t stride, int32_t cw, int32_t ch, int32_t gx,
                            int32_t first_row, int32_t end_row, int32_t* values);
CellSumsKernel cell_sums;

}  // namespace lumamark
