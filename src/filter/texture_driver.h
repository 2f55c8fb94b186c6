// The threaded texture map of one frame.
#pragma once

#include <cstdint>

namespace lumamark {

// Whole map: returns -1 on bad arguments (null buffers, width or height below 1,
// width above stride, negative radius); radius 0 zeroes the map. Otherwise builds
// the integral image and splits the rows over texture_worker_count(threads)
// workers. Returns 0 on success.
int32_t texture_map(const uint8_t* src, int32_t width, int32_t height, int32_t stride,
                    int32_t radius, uint8_t* out, uint32_t* integral, int32_t threads);

}  // namespace lumamark
