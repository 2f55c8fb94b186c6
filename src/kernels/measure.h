// Measurement kernels: how much signal a superpixel carries, predicted from
// its untouched border.
#pragma once

#include <cstdint>

#include "kernels/geometry.h"

namespace lumamark {

// Sum of the residuals of every inner pixel of the superpixel whose top-left
// sample is (x, y) against its best border prediction (32-bit, wrapping).
// Reads the stride, superpixel side and border of the geometry only.
using SignalMeasureKernel = int32_t(const uint8_t* luma, const FrameGeometry* geometry, int32_t x,
                                    int32_t y);
SignalMeasureKernel signal_measure;

// out[r * cols + c] = signal_measure of superpixel (c, r). Nothing is done when
// cols or rows is below 1.
using SignalMeasureGridKernel = void(const uint8_t* luma, int32_t cols, int32_t rows, int32_t* out,
                                     int32_t stride, int32_t sp_w, int32_t sp_h, int32_t spb_w,
                                     int32_t spb_h);
SignalMeasureGridKernel signal_measure_grid;

}  // namespace lumamark
