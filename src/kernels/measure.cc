// Measurement kernels: every inner pixel of a superpixel is predicted from the
// border samples of its row (horizontal), of its column (vertical) and from
// the mean of both; the residual against the closest prediction is summed.
#include "kernels/measure.h"

#include <cstddef>

#include "kernels/divide.h"
#include "kernels/intmath.h"
#include "kernels/pattern.h"

namespace lumamark {
namespace {

struct PlainDivide {
  uint32_t d;
  uint32_t operator()(uint32_t n) const { return n / d; }
};

struct MultiplyDivide {
  FastDivisor f;
  uint32_t operator()(uint32_t n) const { return fast_divide(n, f); }
};

inline int32_t iabs(int32_t v) { return v < 0 ? -v : v; }

// The interpolation weights run 1..iw across a row and 1..ih down a column;
// the numerators are at most 255 * n + n / 2 for their divisor n.
template <typename DivW, typename DivH>
int32_t measure_inner(const uint8_t* base, ptrdiff_t pitch, int32_t sp_w, int32_t sp_h,
                      int32_t bw, int32_t bh, int32_t iw, int32_t ih, DivW div_w, DivH div_h) {
  const uint32_t nW = static_cast<uint32_t>(iw) + 1;
  const uint32_t nH = static_cast<uint32_t>(ih) + 1;
  const uint8_t* top = base + (bh - 1) * pitch + (bw - 1);     // top[j], j = 1..iw
  const uint8_t* bottom = base + (sp_h - bh) * pitch + (bw - 1);
  uint32_t sum = 0;
  for (int32_t i = 1; i <= ih; ++i) {
    const uint8_t* row = base + (bh - 1 + i) * pitch + (bw - 1);  // row[0] is L
    const uint32_t L = row[0];
    const uint32_t R = base[(bh - 1 + i) * pitch + (sp_w - bw)];
    const uint32_t wi = static_cast<uint32_t>(i);
    for (int32_t j = 1; j <= iw; ++j) {
      const uint32_t wj = static_cast<uint32_t>(j);
      const int32_t h = static_cast<int32_t>(div_w(L * (nW - wj) + R * wj + nW / 2));
      const int32_t v = static_cast<int32_t>(div_h(top[j] * (nH - wi) + bottom[j] * wi + nH / 2));
      const int32_t m = (h + v + 1) / 2;
      const int32_t p = row[j];
      const int32_t dh = iabs(p - h);
      const int32_t dv = iabs(p - v);
      const int32_t dm = iabs(p - m);
      int32_t residual;
      if (dh < imin(dv, dm)) {
        residual = p - h;
      } else if (dm <= dv) {
        residual = p - m;
      } else {
        residual = p - v;
      }
      sum += static_cast<uint32_t>(residual);
    }
  }
  return static_cast<int32_t>(sum);
}

}  // namespace

int32_t signal_measure(const uint8_t* luma, const FrameGeometry* geometry, int32_t x, int32_t y) {
  const int32_t sp_w = geometry->sp_w;
  const int32_t sp_h = geometry->sp_h;
  const int32_t stride = geometry->stride;
  const int32_t bw = border_or_default(geometry->border_w, sp_w);
  const int32_t bh = border_or_default(geometry->border_h, sp_h);
  // Borders of half the side or more leave no inner area. Twice the border is
  // formed in 64 bits: for a border near the 32-bit limit it would wrap into
  // a small inner size and send the reads far outside the superpixel.
  if (int64_t{2} * bw >= sp_w || int64_t{2} * bh >= sp_h) return 0;
  const int32_t iw = sp_w - 2 * bw;
  const int32_t ih = sp_h - 2 * bh;
  if (ih < 1 || iw < 1) return 0;

  const ptrdiff_t pitch = stride;
  const uint8_t* base = luma + static_cast<ptrdiff_t>(y) * pitch + x;
  const uint32_t nW = static_cast<uint32_t>(iw) + 1;
  const uint32_t nH = static_cast<uint32_t>(ih) + 1;
  if (nW <= kMaxFastDivisor && nH <= kMaxFastDivisor) {
    return measure_inner(base, pitch, sp_w, sp_h, bw, bh, iw, ih,
                         MultiplyDivide{fast_divisor(nW)}, MultiplyDivide{fast_divisor(nH)});
  }
  return measure_inner(base, pitch, sp_w, sp_h, bw, bh, iw, ih, PlainDivide{nW}, PlainDivide{nH});
}

void signal_measure_grid(const uint8_t* luma, int32_t cols, int32_t rows, int32_t* out,
                         int32_t stride, int32_t sp_w, int32_t sp_h, int32_t spb_w, int32_t spb_h) {
  if (rows < 1 || cols < 1) return;
  const FrameGeometry geometry{cols * sp_w, rows * sp_h, stride, sp_w, sp_h, spb_w, spb_h};
  for (int32_t r = 0; r < rows; ++r) {
    for (int32_t c = 0; c < cols; ++c) {
      out[static_cast<ptrdiff_t>(r) * cols + c] = signal_measure(luma, &geometry, c * sp_w, r * sp_h);
    }
  }
}

}  // namespace lumamark
