// Resampling for the geometric search.
//
// The resampler works in 8-bit fixed point per axis (weights 0..256), which
// is ample: the detector's measure sums residuals over a superpixel, and the
// rounding of the interpolation is far below the noise of a re-encoded copy.
#include "decode/resample.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

namespace lumamark {

ResampleTaps resample_taps(const ResampleAxis& a, int32_t n, int32_t size) {
  ResampleTaps t;
  t.index.resize(static_cast<size_t>(std::max(n, 0)));
  t.frac.resize(t.index.size());
  t.first_inside = n;
  t.end_inside = 0;
  const double last = static_cast<double>(size - 1);
  for (int32_t i = 0; i < n; ++i) {
    const double p = a.origin + a.step * i;
    const bool inside = p >= 0.0 && p <= last;
    if (inside) {
      t.first_inside = std::min(t.first_inside, i);
      t.end_inside = std::max(t.end_inside, i + 1);
    }
    const double c = std::clamp(p, 0.0, last);
    int32_t i0 = static_cast<int32_t>(std::floor(c));
    int32_t f = static_cast<int32_t>(std::lround((c - i0) * 256.0));
    if (f == 256 && i0 + 1 <= size - 1) {
      ++i0;
      f = 0;
    }
    if (i0 >= size - 1) {  // the last sample: no right neighbour to blend with
      i0 = std::max(size - 2, 0);
      f = size >= 2 ? 256 : 0;
    }
    t.index[static_cast<size_t>(i)] = i0;
    t.frac[static_cast<size_t>(i)] = static_cast<uint16_t>(f);
  }
  if (t.first_inside >= t.end_inside) t.first_inside = t.end_inside = 0;
  return t;
}

void resample_plane(const uint8_t* src, int32_t src_stride, const ResampleTaps& tx,
                    const ResampleTaps& ty, uint8_t* out, int32_t out_stride) {
  const size_t w = tx.index.size();
  const size_t h = ty.index.size();
  // One source row pair blended vertically, then horizontally per sample.
  std::vector<uint16_t> blend;
  int32_t lo = -1, hi = -1;
  for (size_t y = 0; y < h; ++y) {
    const int32_t r = ty.index[y];
    const uint32_t fy = ty.frac[y];
    const uint8_t* a = src + static_cast<ptrdiff_t>(r) * src_stride;
    const uint8_t* b = fy != 0 ? a + src_stride : a;
    // Vertical blend of the source columns that the row needs, 8.8 fixed point.
    const int32_t c0 = tx.index.empty() ? 0 : std::min(tx.index.front(), tx.index.back());
    const int32_t c1 = tx.index.empty() ? 0 : std::max(tx.index.front(), tx.index.back()) + 1;
    if (lo != c0 || hi != c1) {
      lo = c0;
      hi = c1;
      blend.assign(static_cast<size_t>(hi - lo + 1), 0);
    }
    for (int32_t x = lo; x <= hi; ++x) {
      blend[static_cast<size_t>(x - lo)] =
          static_cast<uint16_t>(a[x] * (256u - fy) + b[x] * fy);
    }
    uint8_t* o = out + static_cast<ptrdiff_t>(y) * out_stride;
    for (size_t x = 0; x < w; ++x) {
      const size_t k = static_cast<size_t>(tx.index[x] - lo);
      const uint32_t fx = tx.frac[x];
      const uint32_t v = blend[k] * (256u - fx) + blend[k + 1] * fx;
      o[x] = static_cast<uint8_t>((v + 32768u) >> 16);
    }
  }
}

}  // namespace lumamark
