// Superpixel seed 0..31 derived from the luma content of a frame.
#pragma once

#include <cstdint>

namespace lumamark {

int32_t image_seed(const uint8_t* luma, int32_t width, int32_t height, int32_t stride,
                   int32_t cells_x, int32_t cells_y, int32_t cols, int32_t rows);

}  // namespace lumamark
