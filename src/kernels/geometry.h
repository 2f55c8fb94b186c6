// Where the superpixels of one luma plane lie. The embedding driver fills one
// record per frame and hands it down to the kernels by pointer.
#pragma once

#include <cstdint>

namespace lumamark {

struct FrameGeometry {
  int32_t width;     // frame (luma) width in pixels: texture-map row length, part of the noise seed
  int32_t height;    // frame (luma) height in pixels: part of the noise seed
  int32_t stride;    // bytes between luma rows
  int32_t sp_w;      // superpixel width in pixels
  int32_t sp_h;      // superpixel height in pixels
  int32_t border_w;  // border width setting; below 1 = max(sp_w / 8, 1)
  int32_t border_h;  // border height setting; below 1 = max(sp_h / 8, 1)
};

}  // namespace lumamark
