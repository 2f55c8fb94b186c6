// Per-superpixel embedding.
//
// The amplitude of a pattern byte p is min(p, table[p]) where table is the
// identity except for entries 1..7, which the perceptual mode may lower. Only
// those eight entries (0..7) are kept here; every other non-negative byte maps
// to itself. Negative bytes (which the pattern bank never produces, but the
// repeated-embedding scratch pattern can hold once its magnitude passes 127)
// are treated as the identity as well, so nothing is read outside the table.
#include "kernels/embed.h"

#include <cstddef>

#include "kernels/intmath.h"
#include "kernels/pattern.h"
#include "kernels/prng.h"

namespace lumamark {
namespace {

// Signed 32-bit division truncating toward zero; the one overflowing case
// (INT32_MIN / -1) wraps instead of trapping.
int32_t div_trunc(int32_t a, int32_t b) {
  if (b == -1) return wrap_sub(0, a);
  return a / b;
}

inline int32_t amplitude(int8_t byte, const int32_t small[8]) {
  const int32_t p = byte;
  if (p < 0 || p > 7) return p;
  return imin(p, small[p]);
}

}  // namespace

int32_t block_ssd(const uint8_t* block, int32_t w, int32_t h, int32_t stride) {
  if (h < 1 || w < 1) return 0;
  const int32_t area = wrap_mul(w, h);
  if (area == 0) return 0;  // only reachable through a wrapped product

  uint32_t sum = 0;
  for (int32_t r = 0; r < h; ++r) {
    const uint8_t* row = block + static_cast<ptrdiff_t>(r) * stride;
    for (int32_t c = 0; c < w; ++c) sum += row[c];
  }
  const uint32_t mean = static_cast<uint32_t>(div_trunc(static_cast<int32_t>(sum), area));

  // (sample - mean)^2 in wrapping 32-bit arithmetic, computed unsigned.
  uint32_t ssd = 0;
  for (int32_t r = 0; r < h; ++r) {
    const uint8_t* row = block + static_cast<ptrdiff_t>(r) * stride;
    for (int32_t c = 0; c < w; ++c) {
      const uint32_t d = row[c] - mean;
      ssd += d * d;
    }
  }
  return static_cast<int32_t>(ssd);
}

void attenuation_table(const uint8_t* luma, int32_t x, int32_t y, int32_t stride, int32_t sp_w,
                       int32_t sp_h, int32_t bw, int32_t bh, int32_t pm_mode, int32_t small[8]) {
  for (int32_t i = 0; i < 8; ++i) small[i] = i;
  if (pm_mode == 0 || pm_mode == 3) {
    // plain amplitudes
  } else if (pm_mode == 2 && (int64_t{2} * bw > sp_w || int64_t{2} * bh > sp_h)) {
    // Borders wider than half the side would put the strips outside the
    // superpixel (even before the plane). The bank's patterns are all zero
    // for such a geometry, so nothing is embedded whatever the table; treat
    // the border as flat. (Twice the border is formed in 64 bits so that a
    // border near the 32-bit limit cannot wrap past this test.)
    for (int32_t i = 1; i < 8; ++i) small[i] = 1;
  } else if (pm_mode == 2) {
    // The strips are twice the border thick, measured before any change.
    const ptrdiff_t pitch = stride;
    const uint8_t* origin = luma + static_cast<ptrdiff_t>(y) * pitch + x;
    const int32_t top = block_ssd(origin, sp_w, 2 * bh, stride);
    const int32_t bottom = block_ssd(luma + static_cast<ptrdiff_t>(sp_h + y - 2 * bh) * pitch + x,
                                     sp_w, 2 * bh, stride);
    const int32_t left = block_ssd(origin, 2 * bw, sp_h, stride);
    const int32_t right = block_ssd(origin + (sp_w - 2 * bw), 2 * bw, sp_h, stride);
    border_attenuation(imin(imin(top, bottom), imin(left, right)), small);
  } else {
    // Mode 1 and every unknown mode: amplitude 1 only.
    for (int32_t i = 1; i < 8; ++i) small[i] = 1;
  }
}

int32_t embed_superpixel(uint8_t* luma, const FrameGeometry* geometry, int32_t x, int32_t y,
                         int32_t step, int32_t value, const int8_t* pattern,
                         const uint8_t* texture, int32_t pm_mode) {
  const int32_t stride = geometry->stride;
  const int32_t sp_w = geometry->sp_w;
  const int32_t sp_h = geometry->sp_h;
  const int32_t frame_w = geometry->width;
  const int32_t frame_h = geometry->height;
  const int32_t bw = border_or_default(geometry->border_w, sp_w);
  const int32_t bh = border_or_default(geometry->border_h, sp_h);
  const int32_t sign = value < 0 ? -1 : 1;

  // Attenuation table entries 0..7; 8 and above are the identity.
  int32_t small[8];
  Prng64 noise{};
  attenuation_table(luma, x, y, stride, sp_w, sp_h, bw, bh, pm_mode, small);
  if (pm_mode == 3) {
    const uint32_t lo = (static_cast<uint32_t>(y) << 16) ^
                        (static_cast<uint32_t>(frame_w) ^ static_cast<uint32_t>(frame_h)) ^
                        static_cast<uint32_t>(wrap_add(x, 1));
    prng64_seed(&noise, lo, lo ^ 0xacbdef01u);
  }

  if (sp_h < 1) return 0;

  uint32_t total = 0;
  const ptrdiff_t xstep = step;
  if (pm_mode == 3 && texture != nullptr) {
    int32_t used = 8;  // bytes of the current generator output already taken
    for (int32_t row = 0; row < sp_h; ++row) {
      uint8_t* line = luma + static_cast<ptrdiff_t>(y + row) * stride + x * xstep;
      const int8_t* pat = pattern + static_cast<ptrdiff_t>(row) * sp_w;
      const uint8_t* tex = texture + static_cast<ptrdiff_t>(y + row) * frame_w + x;
      for (int32_t col = 0; col < sp_w; ++col) {
        const int32_t a = amplitude(pat[col], small) * sign;
        if (a == 0) continue;
        int32_t r;
        if (used > 7) {
          r = prng64_next(&noise)[0];
          used = 1;
        } else {
          r = noise.out[used++];
        }
        const int32_t weight = r + 24 * tex[col] + 128;
        const int32_t d = a * weight / 1024;  // truncates toward zero
        if (d == 0) continue;
        uint8_t* px = line + col * xstep;
        const int32_t old = *px;
        const int32_t now = iclamp(old + d, 0, 255);
        *px = static_cast<uint8_t>(now);
        total += static_cast<uint32_t>(now - old);
      }
    }
  } else {
    for (int32_t row = 0; row < sp_h; ++row) {
      uint8_t* line = luma + static_cast<ptrdiff_t>(y + row) * stride + x * xstep;
      const int8_t* pat = pattern + static_cast<ptrdiff_t>(row) * sp_w;
      for (int32_t col = 0; col < sp_w; ++col) {
        const int32_t a = amplitude(pat[col], small) * sign;
        if (a == 0) continue;
        uint8_t* px = line + col * xstep;
        const int32_t old = *px;
        const int32_t now = iclamp(old + a, 0, 255);
        *px = static_cast<uint8_t>(now);
        total += static_cast<uint32_t>(now - old);
      }
    }
  }
  return static_cast<int32_t>(total);
}

int32_t embed_superpixel_repeat_with(EmbedSuperpixelKernel* embed, uint8_t* luma,
                                     const FrameGeometry* geometry, int32_t x, int32_t y,
                                     int32_t value, const int8_t* pattern, const uint8_t* texture,
                                     int32_t pm_mode, int32_t strength, int64_t target,
                                     int8_t* scratch) {
  const int32_t area = geometry->sp_w * geometry->sp_h;
  auto magnitude = [](int32_t v) { return v < 0 ? -static_cast<int64_t>(v) : static_cast<int64_t>(v); };
  int32_t a = value;
  const int8_t* p = pattern;
  int32_t signal = 0;
  for (;;) {
    const int8_t amp = static_cast<int8_t>(static_cast<uint8_t>(magnitude(a) & 0xff));
    for (int32_t j = 0; j < area; ++j) scratch[j] = p[j] != 0 ? amp : 0;
    signal = embed(luma, geometry, x, y, 1, a, scratch, texture, pm_mode);
    a = a < 0 ? a - 1 : a + 1;
    if (magnitude(a) >= strength || target <= magnitude(signal)) break;
    p = scratch;
  }
  return signal;
}

int32_t embed_superpixel_repeat(uint8_t* luma, const FrameGeometry* geometry, int32_t x, int32_t y,
                                int32_t value, const int8_t* pattern, const uint8_t* texture,
                                int32_t pm_mode, int32_t strength, int64_t target,
                                int8_t* scratch) {
  return embed_superpixel_repeat_with(embed_superpixel, luma, geometry, x, y, value, pattern,
                                      texture, pm_mode, strength, target, scratch);
}

void embed_repeat_run(const EmbedRepeatRun* run) {
  const FrameGeometry* g = run->geometry;
  for (int32_t i = 0; i < run->count; ++i) {
    const RepeatItem& item = run->items[i];
    int32_t signal = 0;
    if (item.pattern != nullptr) {
      signal = embed_superpixel_repeat(run->luma, g, run->first_x + i * g->sp_w, run->y, item.value,
                                       item.pattern, run->texture, run->pm_mode, run->strength,
                                       item.target, reinterpret_cast<int8_t*>(run->scratch));
    }
    if (run->signals != nullptr) run->signals[i] = signal;
  }
}

int64_t embed_repeat_run_scratch_bytes(int32_t sp_w, int32_t sp_h, int32_t count) {
  if (sp_w < 1 || sp_h < 1 || count < 0) return 0;
  // The plain kernel needs one pattern; the vector twin keeps, per pixel row
  // of the run, a random byte and a mask byte per pixel and a 16-bit weight,
  // and per pixel column a 16-bit amplitude and a 16-bit sum, each with room
  // for a full vector past the end; and per superpixel (rounded up to a
  // multiple of eight) its amplitude, state, sum, non-zero mask and random
  // bytes.
  const int64_t area = int64_t{sp_w} * sp_h;
  const int64_t lanes = int64_t{count} * sp_w + 64;
  if (lanes > (int64_t{1} << 40) || sp_h > (1 << 20)) return -1;
  const int64_t rows = int64_t{sp_h} * lanes * 4 + lanes * 4 + (int64_t{count} + 8) * 100;
  return area > rows ? area : rows;
}

}  // namespace lumamark
