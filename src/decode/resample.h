// Pixel work of the geometric search: resampling a copy of a marked video
// onto the superpixel grid of a hypothesis.
#pragma once

#include <cstdint>
#include <vector>

namespace lumamark {

// One axis of a resampling: output sample i reads the source at position
// origin + i * step (source pixel units, pixel centres at whole numbers).
struct ResampleAxis {
  double origin = 0;
  double step = 1;
};

// Precomputed source indexes and weights of one axis, reused for every frame.
struct ResampleTaps {
  std::vector<int32_t> index;   // first source sample (clamped into the source)
  std::vector<uint16_t> frac;   // weight of the second sample, 0..256
  int32_t first_inside = 0;     // first output sample whose taps lie inside the source
  int32_t end_inside = 0;       // one past the last such sample
};

// Taps for n output samples of axis a over a source of size samples (>= 1).
ResampleTaps resample_taps(const ResampleAxis& a, int32_t n, int32_t size);

// Bilinear resampling of an 8-bit plane: out (ox.index.size() by
// oy.index.size() samples, rows out_stride bytes apart) reads src (rows
// src_stride bytes apart) through the taps. Positions outside the source
// repeat its edge samples.
void resample_plane(const uint8_t* src, int32_t src_stride, const ResampleTaps& tx,
                    const ResampleTaps& ty, uint8_t* out, int32_t out_stride);

}  // namespace lumamark
