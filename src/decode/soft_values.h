// From a marked frame to one soft value per superpixel: measure every
// superpixel against its border prediction, normalise the measures to the
// local level of picture activity, and undo the sign pattern so that a
// positive value votes for the coded symbol '0'.
#pragma once

#include <cstdint>
#include <vector>

namespace lumamark {

// Superpixel grid of a frame, as the embedder lays it out.
struct SoftGrid {
  int32_t cols = 0;       // superpixel columns = width / sp_size, >= 1
  int32_t rows = 0;       // superpixel rows = height / sp_size, >= 1
  int32_t sp_size = 7;    // superpixel side in pixels, 5..64
  int32_t sp_border = 0;  // border setting; below 1 = max(sp_size / 8, 1)
};

// signal_measure of every superpixel (row-major, cols x rows values), with the
// rows of the grid split over threads workers (0 = one per online processor).
void measure_frame(const uint8_t* luma, int32_t stride, const SoftGrid& grid, int32_t* out,
                   int32_t threads);

// Measures are clipped at this many local activity units.
constexpr float kSoftClip = 3.0f;

// Work buffers for soft_values, reused between frames.
struct SoftScratch {
  std::vector<int32_t> sorted;  // copy of the measures for the median
  std::vector<float> energy;    // squared centred measures, then their row sums
};

// Turns measures into soft values: each measure minus the frame's median,
// divided by the root mean square of the centred measures in its 3 x 3
// superpixel neighbourhood (plus one, so that flat areas stay finite),
// clipped to +-kSoftClip and multiplied by the sign of the superpixel's
// sign-pattern value. out receives cols x rows values.
void soft_values(const int32_t* measures, const SoftGrid& grid, const int8_t* signs, float* out,
                 SoftScratch* scratch);

}  // namespace lumamark
