// Superpixel seed 0..31 derived from the luma content of a frame.
#pragma once

#include <cstdint>

namespace lumamark {

// The seed from the luma content: the cell sums of seed_grid, computed here.
int32_t image_seed(const uint8_t* luma, int32_t width, int32_t height, int32_t stride,
                   int32_t cells_x, int32_t cells_y, int32_t cols, int32_t rows);

// The hash grid of image_seed: gx x gy cells of cw x ch samples.
struct SeedGrid {
  int32_t gx;     // cells per row
  int32_t gy;     // rows of cells
  int32_t cw;     // cell width; below 1: every cell value is 0
  int32_t ch;     // cell height; below 1: every cell value is 0
  int32_t cells;  // gx x gy; below 1: the seed is 0 without any cell
};

// The hash grid of a width x height frame with a cols x rows superpixel grid.
SeedGrid seed_grid(int32_t width, int32_t height, int32_t cells_x, int32_t cells_y, int32_t cols,
                   int32_t rows);

// True when the cells have samples to sum (otherwise the seed is 0).
bool seed_grid_has_samples(const SeedGrid& grid);

// The seed from the cell values of the whole grid, in row-major order.
int32_t seed_from_cells(const SeedGrid& grid, const int32_t* values);

}  // namespace lumamark
