// Perceptual texture map: 0 for a flat neighbourhood, at most 50 for a busy one.
#pragma once

#include <cstdint>

namespace lumamark {

// Work record of one range of map rows.
struct TextureRows {
  const uint8_t* src;        // luma plane, read only
  uint8_t* out;              // map, width x height bytes, row length width
  const uint32_t* integral;  // finished integral image, (width + 1) x (height + 1) cells
  int64_t integral_stride;   // integral row length in cells (width + 1)
  int32_t width;             // frame width, >= 1
  int32_t height;            // frame height, >= 1
  int32_t stride;            // source row stride in bytes, >= width
  int32_t radius;            // box radius, >= 1
  int32_t first_row;         // first map row of this range
  int32_t end_row;           // one past the last map row of this range
  const uint8_t* needed = nullptr;  // null: every row; else row y is wanted only when
                                    // needed[y] != 0 (other rows may be left as they are)
};

// Builds the integral image of a width x height plane: (width + 1) x (height + 1)
// cells, row 0 and column 0 zero, sums wrapping at 2^32.
void texture_integral(const uint8_t* src, int32_t width, int32_t height, int32_t stride,
                      uint32_t* integral);

// Computes map rows [first_row, end_row) of one record.
void texture_rows(const TextureRows* rows);

// The signature of the texture kernels that work without an integral image.
using TextureRowsKernel = void(const TextureRows* rows);

// The same rows without an integral image (rows->integral is not read): the
// vertical window sums are kept per column and moved down row by row. Every
// row of the range is computed, whatever rows->needed says, so that this
// kernel is a reference for the ones that skip rows.
TextureRowsKernel texture_rows_direct;

}  // namespace lumamark
