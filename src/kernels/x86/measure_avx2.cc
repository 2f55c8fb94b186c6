// signal_measure with AVX2 for superpixels up to 16 pixels wide: one inner
// row at a time, every inner pixel in its own 16-bit lane. The predictions
// divide by multiplication (small_divisor16, exact for these numerators),
// and the residual is chosen by the same comparisons as the plain kernel.
#include <immintrin.h>

#include <cstddef>
#include <cstdlib>
#include <type_traits>

#include "kernels/divide.h"
#include "kernels/intmath.h"
#include "kernels/pattern.h"
#include "kernels/measure.h"
#include "kernels/x86/avx2.h"
#include "kernels/x86/rows_avx2.h"

namespace lumamark {
namespace {

// (n + half) / d in every lane.
inline __m256i divide(__m256i n, __m256i half, __m256i mul, __m128i shift) {
  return _mm256_srl_epi16(_mm256_mulhi_epu16(_mm256_add_epi16(n, half), mul), shift);
}

// Rounded division by one divisor n in every lane (small_divisor16).
struct LaneDivisor {
  __m256i mul;
  __m128i shift;
  __m256i half;  // n / 2, for rounding half up

  explicit LaneDivisor(uint32_t n) {
    const SmallDivisor16 d = small_divisor16(n);
    mul = _mm256_set1_epi16(static_cast<int16_t>(d.mul));
    shift = _mm_cvtsi32_si128(d.shift);
    half = _mm256_set1_epi16(static_cast<int16_t>(n / 2));
  }
};

// Per lane: the interpolation (lo x w_lo + hi x w_hi) / n, rounded half up;
// the weighted sum stays below 256 n.
inline __m256i interpolate(__m256i lo, __m256i w_lo, __m256i hi, __m256i w_hi, const LaneDivisor& n) {
  return divide(_mm256_add_epi16(_mm256_mullo_epi16(lo, w_lo), _mm256_mullo_epi16(hi, w_hi)), n.half,
                n.mul, n.shift);
}

// The residual of pixel p against its closest prediction, as the plain
// kernel chooses it: dh < min(dv, dm) takes the horizontal one h, else
// dm <= dv the mean m of both, else the vertical one v.
inline __m256i closest_residual(__m256i p, __m256i h, __m256i v) {
  const __m256i m = _mm256_avg_epu16(h, v);  // (h + v + 1) / 2
  const __m256i rh = _mm256_sub_epi16(p, h);
  const __m256i rv = _mm256_sub_epi16(p, v);
  const __m256i rm = _mm256_sub_epi16(p, m);
  const __m256i ah = _mm256_abs_epi16(rh);
  const __m256i av = _mm256_abs_epi16(rv);
  const __m256i am = _mm256_abs_epi16(rm);
  const __m256i take_h = _mm256_cmpgt_epi16(_mm256_min_epi16(av, am), ah);
  const __m256i take_v = _mm256_cmpgt_epi16(am, av);
  return _mm256_blendv_epi8(_mm256_blendv_epi8(rm, rv, take_v), rh, take_h);
}

// Byte shuffles that move a row left by 0..15 bytes, zeros coming in.
struct ShiftTable {
  alignas(16) uint8_t order[16][16];
};

constexpr ShiftTable make_shift_table() {
  ShiftTable t{};
  for (int from = 0; from < 16; ++from) {
    for (int k = 0; k < 16; ++k) t.order[from][k] = k + from < 16 ? static_cast<uint8_t>(k + from) : 0x80;
  }
  return t;
}

constexpr ShiftTable kShift = make_shift_table();

// Row bytes from column `from` on (from < 16), widened: lane j holds byte
// from + j.
inline __m256i widened_from(__m128i row, __m128i shift) {
  return _mm256_cvtepu8_epi16(_mm_shuffle_epi8(row, shift));
}

}  // namespace

int32_t signal_measure_avx2(const uint8_t* luma, const FrameGeometry* geometry, int32_t x,
                            int32_t y) {
  const int32_t sp_w = geometry->sp_w;
  const int32_t sp_h = geometry->sp_h;
  const int32_t stride = geometry->stride;
  const int32_t bw = border_or_default(geometry->border_w, sp_w);
  const int32_t bh = border_or_default(geometry->border_h, sp_h);
  // Borders of half the side or more leave no inner area (formed in 64
  // bits, as in the plain kernel).
  if (int64_t{2} * bw >= sp_w || int64_t{2} * bh >= sp_h) return 0;
  // Wider superpixels do not fit one register row; taller ones would need
  // divisors beyond small_divisor16.
  if (sp_w > 16 || sp_h > 64) return signal_measure(luma, geometry, x, y);
  const int32_t iw = sp_w - 2 * bw;
  const int32_t ih = sp_h - 2 * bh;
  const uint32_t nW = static_cast<uint32_t>(iw) + 1;
  const uint32_t nH = static_cast<uint32_t>(ih) + 1;

  const ptrdiff_t pitch = stride;
  const uint8_t* base = luma + static_cast<ptrdiff_t>(y) * pitch + x;
  // bw < sp_w / 2 <= 8 here.
  const __m128i shift = _mm_load_si128(reinterpret_cast<const __m128i*>(kShift.order[bw]));
  const __m256i top = widened_from(load_row16(base + (bh - 1) * pitch, sp_w), shift);
  const __m256i bottom = widened_from(load_row16(base + (sp_h - bh) * pitch, sp_w), shift);

  const __m256i j = _mm256_setr_epi16(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
  const __m256i valid = _mm256_cmpgt_epi16(_mm256_set1_epi16(static_cast<int16_t>(iw + 1)), j);
  const __m256i w_right = j;
  const __m256i w_left = _mm256_sub_epi16(_mm256_set1_epi16(static_cast<int16_t>(nW)), j);
  const LaneDivisor by_w(nW);
  const LaneDivisor by_h(nH);
  const __m256i one = _mm256_set1_epi16(1);

  __m256i sum = _mm256_setzero_si256();
  for (int32_t i = 1; i <= ih; ++i) {
    const uint8_t* row = base + (bh - 1 + i) * pitch;
    const __m256i p = widened_from(load_row16(row, sp_w), shift);
    const __m256i left = _mm256_set1_epi16(row[bw - 1]);
    const __m256i right = _mm256_set1_epi16(row[sp_w - bw]);
    const __m256i h = interpolate(left, w_left, right, w_right, by_w);
    const __m256i wi = _mm256_set1_epi16(static_cast<int16_t>(i));
    const __m256i wt = _mm256_set1_epi16(static_cast<int16_t>(nH - i));
    const __m256i v = interpolate(top, wt, bottom, wi, by_h);
    sum = _mm256_add_epi16(sum, _mm256_and_si256(closest_residual(p, h, v), valid));
  }
  // Each lane holds at most 62 residuals of at most 255: no 16-bit overflow.
  __m256i wide = _mm256_madd_epi16(sum, one);
  __m128i s4 = _mm_add_epi32(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
  s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0x4E));
  s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0xB1));
  return _mm_cvtsi128_si32(s4);
}

}  // namespace lumamark

namespace lumamark {
namespace {

// The measures of one superpixel row of superpixels at most 16 pixels wide,
// k = 16 / sp_w whole superpixels per step: sixteen samples from the first
// one's left edge on, each in its own 16-bit lane. Since a step starts on a
// superpixel's edge, every lane's horizontal weights are the same in every
// step, and the left and right border samples of the step's superpixels are
// spread over their lanes by one byte shuffle each. The residuals of the
// inner rows are summed per lane in a register, then per superpixel.
struct NarrowGrid {
  int32_t sp_w, sp_h, bw, bh, iw, ih, cols, n, per_step;
  __m128i take_left, take_right;  // byte shuffles: each lane's left and right border sample
  __m256i w_left, w_right, inner;  // per lane; 0 outside the inner columns
  __m256i which;                   // per lane: which superpixel of the step (16 past the last)
};

void narrow_grid_setup(NarrowGrid* grid, int32_t cols, int32_t sp_w, int32_t sp_h, int32_t bw, int32_t bh) {
  grid->sp_w = sp_w;
  grid->sp_h = sp_h;
  grid->bw = bw;
  grid->bh = bh;
  grid->iw = sp_w - 2 * bw;
  grid->ih = sp_h - 2 * bh;
  grid->cols = cols;
  grid->n = cols * sp_w;
  grid->per_step = 16 / sp_w;
  const int32_t nW = grid->iw + 1;
  alignas(32) uint8_t left[16], right[16];
  alignas(32) int16_t wl[16], wr[16], in[16], which[16];
  for (int32_t lane = 0; lane < 16; ++lane) {
    const int32_t k = lane / sp_w;
    const int32_t j = lane % sp_w - (bw - 1);
    const bool whole = k < grid->per_step;
    const bool inside = whole && j >= 1 && j <= grid->iw;
    left[lane] = whole ? static_cast<uint8_t>(k * sp_w + bw - 1) : 0x80;
    right[lane] = whole ? static_cast<uint8_t>(k * sp_w + sp_w - bw) : 0x80;
    wl[lane] = static_cast<int16_t>(inside ? nW - j : 0);
    wr[lane] = static_cast<int16_t>(inside ? j : 0);
    in[lane] = static_cast<int16_t>(inside ? -1 : 0);
    which[lane] = static_cast<int16_t>(whole ? k : 16);
  }
  grid->take_left = _mm_load_si128(reinterpret_cast<const __m128i*>(left));
  grid->take_right = _mm_load_si128(reinterpret_cast<const __m128i*>(right));
  grid->w_left = _mm256_load_si256(reinterpret_cast<const __m256i*>(wl));
  grid->w_right = _mm256_load_si256(reinterpret_cast<const __m256i*>(wr));
  grid->inner = _mm256_load_si256(reinterpret_cast<const __m256i*>(in));
  grid->which = _mm256_load_si256(reinterpret_cast<const __m256i*>(which));
}

void narrow_grid_row(const NarrowGrid& grid, const uint8_t* base, ptrdiff_t pitch, int32_t* out) {
  const int32_t sp_w = grid.sp_w, bh = grid.bh, ih = grid.ih, n = grid.n;
  const uint32_t nH = static_cast<uint32_t>(ih) + 1;
  const LaneDivisor by_w(static_cast<uint32_t>(grid.iw) + 1);
  const LaneDivisor by_h(nH);
  const __m256i one = _mm256_set1_epi16(1);
  const uint8_t* top = base + (bh - 1) * pitch;
  const uint8_t* bottom = base + (grid.sp_h - bh) * pitch;
  const uint8_t* first_inner = base + bh * pitch;
  const int32_t step = grid.per_step * sp_w;
  const __m256i n_h = _mm256_set1_epi16(static_cast<int16_t>(nH));
  // With two superpixels a step whose inner columns lie in lanes 0..7 and
  // 8..15 (the first one's lanes 0..sp_w - 1, the second one's from bw on
  // past sp_w), each half sums one of them.
  const bool halves = grid.per_step == 2 && sp_w + grid.bw >= 8;
  // Lanes of the step's k-th superpixel hold 1, the others 0.
  __m256i ones_of[16];
  for (int32_t k = 0; k < grid.per_step; ++k) {
    ones_of[k] = _mm256_and_si256(_mm256_cmpeq_epi16(grid.which, _mm256_set1_epi16(static_cast<int16_t>(k))), one);
  }
  // The step from column x on, superpixel c first; only the last steps may
  // have fewer than sixteen columns left in the row.
  auto measure_step = [&](int32_t x, int32_t c, auto whole) {
    // Sixteen bytes of a row from column x on, never reading past column n.
    constexpr bool sixteen = decltype(whole)::value;
    auto bytes_at = [&](const uint8_t* row) {
      if constexpr (sixteen) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x));
      } else {
        return load_row16(row + x, n - x);
      }
    };
    const __m256i t = _mm256_cvtepu8_epi16(bytes_at(top));
    const __m256i b = _mm256_cvtepu8_epi16(bytes_at(bottom));
    // The vertical numerator t x (nH - i) + b x i + nH / 2, for i = 1 and
    // then one row further each time (below 256 nH, so no 16-bit overflow;
    // b - t wraps in the 16-bit lanes and the sum comes out right).
    __m256i vertical = _mm256_add_epi16(_mm256_add_epi16(_mm256_mullo_epi16(t, _mm256_sub_epi16(n_h, one)), b),
                                        by_h.half);
    const __m256i down = _mm256_sub_epi16(b, t);
    __m256i sum = _mm256_setzero_si256();
    const uint8_t* row = first_inner;
    for (int32_t i = 1; i <= ih; ++i, row += pitch) {
      const __m128i bytes = bytes_at(row);
      const __m256i p = _mm256_cvtepu8_epi16(bytes);
      const __m256i l = _mm256_cvtepu8_epi16(_mm_shuffle_epi8(bytes, grid.take_left));
      const __m256i r = _mm256_cvtepu8_epi16(_mm_shuffle_epi8(bytes, grid.take_right));
      const __m256i h = interpolate(l, grid.w_left, r, grid.w_right, by_w);
      const __m256i v = _mm256_srl_epi16(_mm256_mulhi_epu16(vertical, by_h.mul), by_h.shift);
      vertical = _mm256_add_epi16(vertical, down);
      // At most 62 residuals of at most 255 per inner lane: no 16-bit
      // overflow. The other lanes may wrap; they are cleared below.
      sum = _mm256_add_epi16(sum, closest_residual(p, h, v));
    }
    sum = _mm256_and_si256(sum, grid.inner);
    const int32_t here = grid.cols - c < grid.per_step ? grid.cols - c : grid.per_step;
    if (halves) {
      // Two superpixels, each with its inner columns in one half: pairwise
      // sums, then twice the sums of neighbours in each half.
      const __m256i pairs = _mm256_madd_epi16(sum, one);
      __m256i quads = _mm256_hadd_epi32(pairs, pairs);
      quads = _mm256_hadd_epi32(quads, quads);
      out[c] = _mm_cvtsi128_si32(_mm256_castsi256_si128(quads));
      if (here > 1) out[c + 1] = _mm_cvtsi128_si32(_mm256_extracti128_si256(quads, 1));
      return;
    }
    for (int32_t k = 0; k < here; ++k) {
      const __m256i wide = _mm256_madd_epi16(sum, ones_of[k]);
      __m128i s4 = _mm_add_epi32(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
      s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0x4E));
      s4 = _mm_add_epi32(s4, _mm_shuffle_epi32(s4, 0xB1));
      out[c + k] = _mm_cvtsi128_si32(s4);
    }
  };
  int32_t x = 0, c = 0;
  for (; c < grid.cols && x + 16 <= n; x += step, c += grid.per_step) measure_step(x, c, std::true_type{});
  for (; c < grid.cols; x += step, c += grid.per_step) measure_step(x, c, std::false_type{});
}

}  // namespace

// The measures of a grid, one superpixel row at a time: every inner row of
// the band is worked on across the whole band, sixteen columns per step,
// each column in its own 16-bit lane. Per column the lane knows its
// horizontal weights (zero, and masked out, for border columns); the left
// and right border samples of each superpixel are spread over its columns
// first. The residuals are summed per column down the band, then per
// superpixel over its inner columns. Superpixels of more than 64 pixels a
// side go to the plain kernel.
void signal_measure_grid_avx2(const uint8_t* luma, int32_t cols, int32_t rows, int32_t* out,
                              int32_t stride, int32_t sp_w, int32_t sp_h, int32_t spb_w,
                              int32_t spb_h) {
  if (rows < 1 || cols < 1) return;
  const int32_t bw = border_or_default(spb_w, sp_w);
  const int32_t bh = border_or_default(spb_h, sp_h);
  if (sp_w > 64 || sp_h > 64 || int64_t{2} * bw >= sp_w || int64_t{2} * bh >= sp_h ||
      int64_t{cols} * sp_w > stride) {
    signal_measure_grid(luma, cols, rows, out, stride, sp_w, sp_h, spb_w, spb_h);
    return;
  }
  if (sp_w <= 16) {
    NarrowGrid grid;
    narrow_grid_setup(&grid, cols, sp_w, sp_h, bw, bh);
    for (int32_t r = 0; r < rows; ++r) {
      narrow_grid_row(grid, luma + static_cast<ptrdiff_t>(r) * sp_h * stride, stride,
                      out + static_cast<ptrdiff_t>(r) * cols);
    }
    return;
  }
  const int32_t iw = sp_w - 2 * bw;
  const int32_t ih = sp_h - 2 * bh;
  const uint32_t nW = static_cast<uint32_t>(iw) + 1;
  const uint32_t nH = static_cast<uint32_t>(ih) + 1;
  const int32_t n = cols * sp_w;
  const size_t lanes = static_cast<size_t>(n) + 64;
  // Per column: left weight, right weight, inner mask; per row: left and
  // right border samples; per band: residual sums.
  int16_t* work = static_cast<int16_t*>(std::malloc(6 * lanes * sizeof(int16_t)));
  if (work == nullptr) {
    signal_measure_grid(luma, cols, rows, out, stride, sp_w, sp_h, spb_w, spb_h);
    return;
  }
  int16_t* w_left = work;
  int16_t* w_right = w_left + lanes;
  int16_t* inner = w_right + lanes;
  int16_t* left = inner + lanes;
  int16_t* right = left + lanes;
  int16_t* acc = right + lanes;
  for (size_t x = 0; x < lanes; ++x) {
    const int32_t j = static_cast<int32_t>(x % static_cast<size_t>(sp_w)) - (bw - 1);
    const bool in = x < static_cast<size_t>(n) && j >= 1 && j <= iw;
    w_left[x] = static_cast<int16_t>(in ? static_cast<int32_t>(nW) - j : 0);
    w_right[x] = static_cast<int16_t>(in ? j : 0);
    inner[x] = static_cast<int16_t>(in ? -1 : 0);
    left[x] = right[x] = 0;  // lanes past the last superpixel stay defined
  }

  const LaneDivisor by_w(nW);
  const LaneDivisor by_h(nH);
  auto lanes_at = [](const int16_t* a, int32_t x) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + x));
  };
  // Sixteen samples of a row from column x on, never reading past column n.
  auto samples = [n](const uint8_t* row, int32_t x) {
    const __m128i bytes = x + 16 <= n ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x))
                                      : load_row16(row + x, n - x);
    return _mm256_cvtepu8_epi16(bytes);
  };

  const ptrdiff_t pitch = stride;
  for (int32_t r = 0; r < rows; ++r) {
    const uint8_t* base = luma + static_cast<ptrdiff_t>(r) * sp_h * pitch;
    const uint8_t* top = base + (bh - 1) * pitch;
    const uint8_t* bottom = base + (sp_h - bh) * pitch;
    for (int32_t x = 0; x < n; x += 16) {
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(acc + x), _mm256_setzero_si256());
    }
    for (int32_t i = 1; i <= ih; ++i) {
      const uint8_t* row = base + (bh - 1 + i) * pitch;
      for (int32_t c = 0; c < cols; ++c) {
        const uint8_t* sp = row + static_cast<ptrdiff_t>(c) * sp_w;
        const __m256i l = _mm256_set1_epi16(sp[bw - 1]);
        const __m256i rt = _mm256_set1_epi16(sp[sp_w - bw]);
        for (int32_t k = 0; k < sp_w; k += 16) {
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(left + c * sp_w + k), l);
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(right + c * sp_w + k), rt);
        }
      }
      const __m256i wi = _mm256_set1_epi16(static_cast<int16_t>(i));
      const __m256i wt = _mm256_set1_epi16(static_cast<int16_t>(nH - static_cast<uint32_t>(i)));
      for (int32_t x = 0; x < n; x += 16) {
        const __m256i p = samples(row, x);
        const __m256i h =
            interpolate(lanes_at(left, x), lanes_at(w_left, x), lanes_at(right, x), lanes_at(w_right, x), by_w);
        const __m256i v = interpolate(samples(top, x), wt, samples(bottom, x), wi, by_h);
        const __m256i res = closest_residual(p, h, v);
        // At most 62 residuals of at most 255 per column: no 16-bit overflow.
        const __m256i sum = _mm256_add_epi16(lanes_at(acc, x), _mm256_and_si256(res, lanes_at(inner, x)));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(acc + x), sum);
      }
    }
    int32_t* dst = out + static_cast<ptrdiff_t>(r) * cols;
    for (int32_t c = 0; c < cols; ++c) {
      const int16_t* a = acc + c * sp_w + bw;
      int32_t s = 0;
      for (int32_t j = 0; j < iw; ++j) s += a[j];
      dst[c] = s;
    }
  }
  std::free(work);
}

}  // namespace lumamark
