// Texture kernels: an integral image of the plane, and per row the deviation
// of every pixel from its horizontal and vertical box means.
#include "kernels/texture.h"

#include <cstddef>
#include <cstdlib>

#include "kernels/divide.h"

namespace lumamark {
namespace {

inline uint32_t absdiff(uint32_t a, uint32_t b) { return a > b ? a - b : b - a; }

// min(dh + dv + 7 * min(dh, dv), 50), evaluated wide so that no sum wraps.
inline uint8_t texture_value(uint32_t mh, uint32_t mv, uint32_t p) {
  const uint64_t dh = absdiff(mh, p);
  const uint64_t dv = absdiff(mv, p);
  const uint64_t k = dh < dv ? dh : dv;
  const uint64_t v = dh + dv + 7 * k;
  return static_cast<uint8_t>(v < 50 ? v : 50);
}

// Rounded-half-up unsigned mean sum / n, through a multiplication when n is
// small enough for it to be exact.
struct RoundedMean {
  uint32_t n;
  bool fast;
  FastDivisor f;

  explicit RoundedMean(uint32_t count)
      : n(count), fast(count <= kMaxFastDivisor), f(fast_divisor(fast ? count : 1)) {}
  uint32_t operator()(uint32_t sum) const {
    const uint32_t num = sum + n / 2;
    return fast ? fast_divide(num, f) : num / n;
  }
};

// One map row: the horizontal box mean runs along the row (one addition and
// one subtraction per pixel), the vertical one comes from column(x), the
// sum of column x over the row's vertical window.
template <typename ColumnSum>
void texture_row(const uint8_t* row, uint8_t* out, int32_t w, int64_t r,
                 const RoundedMean& mid_mean, const RoundedMean& v_mean, ColumnSum column) {
  int64_t s = 0;
  int64_t e = r < w - 1 ? r : w - 1;
  uint32_t sum = 0;
  for (int64_t c = 0; c <= e; ++c) sum += row[c];
  for (int32_t x = 0; x < w; ++x) {
    if (x > 0) {
      const int64_t ne = x + r < w - 1 ? x + r : w - 1;
      const int64_t ns = x - r > 0 ? x - r : 0;
      if (ne > e) sum += row[ne];
      if (ns > s) sum -= row[s];
      e = ne;
      s = ns;
    }
    const uint32_t n_h = static_cast<uint32_t>(e - s + 1);
    const uint32_t mh = n_h == mid_mean.n ? mid_mean(sum) : (sum + n_h / 2) / n_h;
    out[x] = texture_value(mh, v_mean(column(x)), row[x]);
  }
}

}  // namespace

void texture_integral(const uint8_t* src, int32_t width, int32_t height, int32_t stride,
                      uint32_t* integral) {
  if (src == nullptr || integral == nullptr || width < 1 || height < 1) return;
  const ptrdiff_t cells = static_cast<ptrdiff_t>(width) + 1;
  for (ptrdiff_t j = 0; j < cells; ++j) integral[j] = 0;
  for (int32_t i = 1; i <= height; ++i) {
    const uint8_t* row = src + static_cast<ptrdiff_t>(i - 1) * stride;
    const uint32_t* above = integral + static_cast<ptrdiff_t>(i - 1) * cells;
    uint32_t* cur = integral + static_cast<ptrdiff_t>(i) * cells;
    cur[0] = 0;
    uint32_t s = 0;
    for (int32_t j = 1; j <= width; ++j) {
      s += row[j - 1];
      cur[j] = above[j] + s;
    }
  }
}

void texture_rows(const TextureRows* rows) {
  if (rows == nullptr || rows->radius < 0) return;
  const int32_t w = rows->width;
  const int32_t h = rows->height;
  const int64_t r = rows->radius;
  const ptrdiff_t istride = static_cast<ptrdiff_t>(rows->integral_stride);
  const int32_t first = rows->first_row < 0 ? 0 : rows->first_row;
  const int32_t end = rows->end_row > h ? h : rows->end_row;
  if (w < 1) return;

  // Away from the left and right edges the horizontal window spans 2r + 1
  // samples (or the whole row, when that is shorter).
  const int64_t full = 2 * r + 1;
  const RoundedMean mid_mean(static_cast<uint32_t>(full < w ? full : w));

  for (int32_t y = first; y < end; ++y) {
    const uint8_t* row = rows->src + static_cast<ptrdiff_t>(y) * rows->stride;
    uint8_t* out = rows->out + static_cast<ptrdiff_t>(y) * w;

    const int64_t y0 = y - r > 0 ? y - r : 0;
    const int64_t y1 = y + r + 1 < h ? y + r + 1 : h;
    const RoundedMean v_mean(static_cast<uint32_t>(y1 - y0));
    const uint32_t* b0 = rows->integral + y0 * istride;
    const uint32_t* b1 = rows->integral + y1 * istride;

    texture_row(row, out, w, r, mid_mean, v_mean, [b0, b1](int32_t x) -> uint32_t {
      return b1[x + 1] - b1[x] - b0[x + 1] + b0[x];
    });
  }
}

namespace {

// Sum of column x over rows [y0, y1).
uint32_t column_sum(const uint8_t* src, int32_t stride, int32_t x, int64_t y0, int64_t y1) {
  uint32_t sum = 0;
  for (int64_t y = y0; y < y1; ++y) sum += src[y * stride + x];
  return sum;
}

}  // namespace

void texture_rows_direct(const TextureRows* rows) {
  if (rows == nullptr || rows->radius < 0) return;
  const int32_t w = rows->width;
  const int32_t h = rows->height;
  const int64_t r = rows->radius;
  const int32_t first = rows->first_row < 0 ? 0 : rows->first_row;
  const int32_t end = rows->end_row > h ? h : rows->end_row;
  if (w < 1 || first >= end) return;
  const uint8_t* src = rows->src;
  const ptrdiff_t stride = rows->stride;

  // Vertical window sums of every column for the current row; without room
  // for them each sum is taken afresh.
  uint32_t* columns = static_cast<uint32_t*>(std::malloc(static_cast<size_t>(w) * sizeof(uint32_t)));
  int64_t y0 = first - r > 0 ? first - r : 0;
  int64_t y1 = first + r + 1 < h ? first + r + 1 : h;
  if (columns != nullptr) {
    for (int32_t x = 0; x < w; ++x) columns[x] = column_sum(src, rows->stride, x, y0, y1);
  }

  const int64_t full = 2 * r + 1;
  const RoundedMean mid_mean(static_cast<uint32_t>(full < w ? full : w));
  for (int32_t y = first; y < end; ++y) {
    const int64_t ny0 = y - r > 0 ? y - r : 0;
    const int64_t ny1 = y + r + 1 < h ? y + r + 1 : h;
    if (columns != nullptr && y > first) {
      // The window moves down by one row at most at each end.
      const uint8_t* leaving = src + y0 * stride;
      const uint8_t* entering = src + y1 * stride;
      const bool drop = ny0 > y0;
      const bool add = ny1 > y1;
      for (int32_t x = 0; x < w; ++x) {
        uint32_t c = columns[x];
        if (drop) c -= leaving[x];
        if (add) c += entering[x];
        columns[x] = c;
      }
    }
    y0 = ny0;
    y1 = ny1;
    const RoundedMean v_mean(static_cast<uint32_t>(y1 - y0));
    const uint8_t* row = src + static_cast<ptrdiff_t>(y) * stride;
    uint8_t* out = rows->out + static_cast<ptrdiff_t>(y) * w;

    texture_row(row, out, w, r, mid_mean, v_mean, [&](int32_t x) -> uint32_t {
      return columns != nullptr ? columns[x] : column_sum(src, rows->stride, x, y0, y1);
    });
  }
  std::free(columns);
}

}  // namespace lumamark
