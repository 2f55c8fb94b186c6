// Per-superpixel embedding: adds an amplitude pattern, shaped by the
// perceptual mode, to the pixels of one superpixel in place.
#pragma once

#include <cstdint>

#include "kernels/geometry.h"

namespace lumamark {

// Sum of squared deviations of a w x h block from its integer mean (32-bit,
// wrapping; not divided by the count). Returns 0 when h < 1.
int32_t block_ssd(const uint8_t* block, int32_t w, int32_t h, int32_t stride);

// Entries 1..7 of the attenuation table after the border analysis of mode 2;
// m is the smallest sum of squared deviations of the four border strips.
// Entries are left alone from 5000 upwards. constexpr, so that the vector
// kernels' tables of it are built at compile time, not by start-up code.
constexpr void border_attenuation(int32_t m, int32_t small[8]) {
  if (m < 1000) {
    // A flat border: every non-zero amplitude is cut to 1.
    for (int32_t i = 1; i < 8; ++i) small[i] = 1;
    return;
  }
  if (m >= 5000) return;  // identity from 5000 upwards
  const int32_t c = 5 - m / 1000;  // 4 (1000..1999) down to 1 (4000..4999)
  for (int32_t k = 1; k <= 4; ++k) small[k] = c * k / 5;
  small[5] = c;
  small[6] = 6 * c / 5;
  small[7] = 7 * c / 5;
}

// Entries 0..7 of the attenuation table of the superpixel at (x, y) for
// pm_mode (entries 8 and above are always the identity); bw and bh are the
// resolved borders. Mode 2 measures the border strips before any change.
void attenuation_table(const uint8_t* luma, int32_t x, int32_t y, int32_t stride, int32_t sp_w,
                       int32_t sp_h, int32_t bw, int32_t bh, int32_t pm_mode, int32_t small[8]);

// Embeds one superpixel whose top-left sample is (x, y) of the frame that
// geometry describes. Only the sign of value is used (0 counts as positive).
// pattern holds sp_w x sp_h signed bytes; texture is the width x height
// texture map or null. Returns the sum of the changes actually made after
// clamping to 0..255.
using EmbedSuperpixelKernel = int32_t(uint8_t* luma, const FrameGeometry* geometry, int32_t x,
                                      int32_t y, int32_t step, int32_t value,
                                      const int8_t* pattern, const uint8_t* texture,
                                      int32_t pm_mode);
EmbedSuperpixelKernel embed_superpixel;

// Repeated embedding of one superpixel (deep-fake mode): embeds on the same
// pixels again and again, first value with pattern, then each time with the
// magnitude one larger (sign kept) and every non-zero pattern byte replaced
// by that magnitude's low byte (as a signed byte), until the magnitude
// reaches strength or the returned sum of one pass reaches target in
// magnitude. scratch holds sp_w x sp_h bytes of work space. Returns the sum
// of the last pass. Each pass is one call of embed with these arguments.
int32_t embed_superpixel_repeat_with(EmbedSuperpixelKernel* embed, uint8_t* luma,
                                     const FrameGeometry* geometry, int32_t x, int32_t y,
                                     int32_t value, const int8_t* pattern, const uint8_t* texture,
                                     int32_t pm_mode, int32_t strength, int64_t target,
                                     int8_t* scratch);

// The same with embed_superpixel as the pass.
using EmbedRepeatKernel = int32_t(uint8_t* luma, const FrameGeometry* geometry, int32_t x,
                                  int32_t y, int32_t value, const int8_t* pattern,
                                  const uint8_t* texture, int32_t pm_mode, int32_t strength,
                                  int64_t target, int8_t* scratch);
EmbedRepeatKernel embed_superpixel_repeat;

// One superpixel of a run of repeated embeddings.
struct RepeatItem {
  const int8_t* pattern;  // sp_w x sp_h pattern, or null: leave the superpixel alone
  int32_t value;          // value of the first pass
  int64_t target;         // the passes stop once one pass's sum reaches it in magnitude
};

// A run of superpixels side by side on one superpixel row, each embedded as
// embed_superpixel_repeat does it.
struct EmbedRepeatRun {
  uint8_t* luma;                  // byte 0 of the luma plane, modified in place
  const FrameGeometry* geometry;  // frame size, row pitch, superpixel side and border
  int32_t y;                      // top row of the superpixel row
  int32_t first_x;                // left column of the first superpixel of the run
  int32_t count;                  // superpixels in the run, >= 0
  const RepeatItem* items;        // count items, left to right
  const uint8_t* texture;         // texture map (width x height of the geometry) or null
  int32_t pm_mode;                // perceptual mode
  int32_t strength;               // the magnitude at which the passes stop
  int32_t* signals;               // count sums of the last pass (0 where left alone), or null
  uint8_t* scratch;               // embed_repeat_run_scratch_bytes(sp_w, sp_h, count) bytes,
                                  // aligned for 64-bit values (as malloc gives them)
};

// Same planes and sums as embed_superpixel_repeat(luma, geometry, first_x +
// i * sp_w, y, items[i].value, items[i].pattern, texture, pm_mode, strength,
// items[i].target, scratch) for every item with a pattern, left to right.
using EmbedRepeatRunKernel = void(const EmbedRepeatRun* run);
EmbedRepeatRunKernel embed_repeat_run;

// Work space of every table's run kernel for a run of count superpixels;
// -1 for a run too large to work on in one piece.
int64_t embed_repeat_run_scratch_bytes(int32_t sp_w, int32_t sp_h, int32_t count);

}  // namespace lumamark
