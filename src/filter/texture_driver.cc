// The texture map of one frame: the map rows split over worker threads, each
// range computed straight from the plane by the fastest texture kernel. The
// integral image is not needed for that; the caller's buffer stays as it is.
#include "filter/texture_driver.h"

#include <cstddef>
#include <cstring>

#include "filter/parallel.h"
#include "kernels/dispatch.h"
#include "kernels/texture.h"

namespace lumamark {

namespace {

void texture_rows_entry(void* arg) { kernels().texture_rows(static_cast<const TextureRows*>(arg)); }

}  // namespace

int32_t texture_map(const uint8_t* src, int32_t width, int32_t height, int32_t stride,
                    int32_t radius, uint8_t* out, uint32_t* integral, int32_t threads) {
  if (src == nullptr || out == nullptr || integral == nullptr) return -1;
  if (width < 1 || height < 1 || width > stride || radius < 0) return -1;
  if (radius == 0) {
    std::memset(out, 0, static_cast<size_t>(width) * static_cast<size_t>(height));
    return 0;
  }

  const int32_t n = texture_worker_count(threads);
  TextureRows records[kMaxWorkers];
  for (int32_t k = 0; k < n; ++k) {
    TextureRows& r = records[k];
    r.src = src;
    r.out = out;
    r.integral = nullptr;
    r.integral_stride = 0;
    r.width = width;
    r.height = height;
    r.stride = stride;
    r.radius = radius;
    split_range(height, n, k, &r.first_row, &r.end_row);
  }
  run_workers(texture_rows_entry, records, static_cast<int32_t>(sizeof(TextureRows)), n);
  return 0;
}

}  // namespace lumamark
