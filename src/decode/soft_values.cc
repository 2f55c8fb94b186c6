// Soft values per superpixel.
//
// The embedder pushes the inner pixels of a superpixel up or down relative to
// its border, so signal_measure, which sums the residuals against a border
// prediction, is large where the mark is. The picture itself adds residuals
// of its own, much larger in textured areas than in flat ones, and the
// embedder marks textured areas harder. Dividing each measure by the activity
// of its neighbourhood gives every superpixel a comparable noise level, and
// clipping keeps a few strong edges from outvoting thousands of superpixels.
#include "decode/soft_values.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "common/parallel.h"
#include "kernels/dispatch.h"
#include "kernels/measure.h"

namespace lumamark {

namespace {

// One worker's share of the measurement: superpixel rows [first_row, end_row).
struct MeasureRows {
  const uint8_t* luma;   // luma plane
  int32_t stride;        // bytes between luma rows
  const SoftGrid* grid;  // superpixel grid
  int32_t* out;          // measures of the whole grid, row-major
  int32_t first_row;     // first superpixel row of this share
  int32_t end_row;       // one past the last superpixel row
};

void measure_rows(void* arg) {
  const MeasureRows* w = static_cast<const MeasureRows*>(arg);
  const SoftGrid& g = *w->grid;
  const ptrdiff_t row_pixels = static_cast<ptrdiff_t>(w->stride) * g.sp_size;
  const int32_t rows = w->end_row - w->first_row;
  kernels().measure_grid(w->luma + row_pixels * w->first_row, g.cols, rows,
                         w->out + static_cast<ptrdiff_t>(w->first_row) * g.cols, w->stride,
                         g.sp_size, g.sp_size, g.sp_border, g.sp_border);
}

}  // namespace

void measure_frame(const uint8_t* luma, int32_t stride, const SoftGrid& grid, int32_t* out,
                   int32_t threads) {
  const int32_t n = std::min(texture_worker_count(threads), std::max(grid.rows, 1));
  run_split<MeasureRows>(measure_rows, n, grid.rows,
                         [&](MeasureRows* w, int32_t first, int32_t end, int32_t) {
                           *w = MeasureRows{luma, stride, &grid, out, first, end};
                         });
}

void soft_values(const int32_t* measures, const SoftGrid& grid, const int8_t* signs, float* out,
                 SoftScratch* scratch) {
  const int32_t cols = grid.cols;
  const int32_t rows = grid.rows;
  const size_t n = static_cast<size_t>(cols) * static_cast<size_t>(rows);
  if (n == 0) return;

  // The median is the frame's neutral level: the predictor leaves a small
  // bias of its own on most pictures, and the median ignores the marked
  // outliers in both directions.
  std::vector<int32_t>& sorted = scratch->sorted;
  sorted.assign(measures, measures + n);
  std::nth_element(sorted.begin(), sorted.begin() + static_cast<ptrdiff_t>(n / 2), sorted.end());
  const float median = static_cast<float>(sorted[n / 2]);

  // Row sums of the squared centred measures over each 3-wide window, then
  // the column sums of those over three rows, with the window cut at the
  // grid's edges.
  std::vector<float>& rowsum = scratch->energy;
  rowsum.resize(n);
  for (int32_t r = 0; r < rows; ++r) {
    const int32_t* m = measures + static_cast<ptrdiff_t>(r) * cols;
    float* rs = rowsum.data() + static_cast<ptrdiff_t>(r) * cols;
    float left = 0;
    float here = static_cast<float>(m[0]) - median;
    here *= here;
    for (int32_t c = 0; c < cols; ++c) {
      float right = 0;
      if (c + 1 < cols) {
        right = static_cast<float>(m[c + 1]) - median;
        right *= right;
      }
      rs[c] = left + here + right;
      left = here;
      here = right;
    }
  }
  for (int32_t r = 0; r < rows; ++r) {
    const int32_t r0 = std::max(r - 1, 0);
    const int32_t r1 = std::min(r + 1, rows - 1);
    const float nr = static_cast<float>(r1 - r0 + 1);
    for (int32_t c = 0; c < cols; ++c) {
      const int32_t c0 = std::max(c - 1, 0);
      const int32_t c1 = std::min(c + 1, cols - 1);
      float e = 0;
      for (int32_t rr = r0; rr <= r1; ++rr) e += rowsum[static_cast<size_t>(rr) * cols + c];
      const float count = nr * static_cast<float>(c1 - c0 + 1);
      const size_t i = static_cast<size_t>(r) * cols + c;
      const float scale = std::sqrt(e / count) + 1.0f;
      const float v = std::clamp((static_cast<float>(measures[i]) - median) / scale, -kSoftClip,
                                 kSoftClip);
      out[i] = signs[i] < 0 ? -v : v;
    }
  }
}

}  // namespace lumamark
