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

// The seed of one frame summed a band of rows at a time as the frame
// arrives: each complete row of cells is summed and hashed as soon as its
// samples are there, while they are still in the cache.
struct SeedScan {
  SeedGrid grid;      // the frame's hash grid
  int32_t* row;       // values of one row of cells (grid.gx), or null: no scan
  int32_t rows_done;  // rows of cells hashed, 0..grid.gy
  int32_t hash;       // hash of their values
};

// A scan over grid; false (and no scan) when the grid has no samples, whose
// seed is 0 anyway, or without memory.
bool seed_scan_init(SeedScan* s, const SeedGrid& grid);

// Starts the scan of a new frame.
void seed_scan_restart(SeedScan* s);

// Hashes the rows of cells that lie within the first rows rows of the frame
// (luma at row pitch stride) and are not hashed yet.
void seed_scan_rows(SeedScan* s, const uint8_t* luma, int32_t stride, int64_t rows);

// True when every row of cells is hashed; the seed is then seed_scan_seed.
bool seed_scan_done(const SeedScan& s);
int32_t seed_scan_seed(const SeedScan& s);

void seed_scan_free(SeedScan* s);

}  // namespace lumamark
