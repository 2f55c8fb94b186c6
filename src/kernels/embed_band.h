// Embedding of a run of superpixels that sit side by side on one superpixel
// row: the same changes as one embed_superpixel call per superpixel, done
// row by row across the whole run so that vector kernels see long rows.
#pragma once

#include <cstdint>

#include "kernels/geometry.h"

namespace lumamark {

// What the run kernels know of one pattern of the frame's bank.
struct EmbedPattern {
  const int8_t* pattern;  // sp_w x sp_h pattern of the bank
  int32_t nonzero;        // non-zero bytes of the pattern, 0..sp_w x sp_h
  uint64_t row_mask;      // bit r: pattern row r has a non-zero byte (rows 64 and up: always)
};

// One superpixel of a run: the pattern it takes and the value it carries.
struct EmbedPick {
  int32_t pattern;  // index into EmbedBand::patterns; outside 0..pattern_count-1: leave it alone
  int32_t value;    // embedded value; only its sign is used
};

struct EmbedBand {
  uint8_t* luma;                   // byte 0 of the luma plane, modified in place
  const FrameGeometry* geometry;   // frame size, row pitch, superpixel side and border
  int32_t y;                       // top row of the superpixel row
  int32_t first_x;                 // left column of the first superpixel of the run
  int32_t count;                   // superpixels in the run, >= 0
  const EmbedPick* picks;          // count picks, left to right
  const EmbedPattern* patterns;    // the patterns the picks name
  int32_t pattern_count;           // entries in patterns
  const uint8_t* texture;          // texture map (width x height of the geometry) or null
  int32_t pm_mode;                 // perceptual mode
  uint8_t* scratch;                // embed_band_scratch_bytes(sp_w, sp_h, count) bytes, or null
  const uint8_t* prepared;         // what the table's prepare made of patterns, or null
};

// The pattern of pick i, or null when the superpixel is left alone.
inline const EmbedPattern* pick_pattern(const EmbedBand* b, int32_t i) {
  const uint32_t p = static_cast<uint32_t>(b->picks[i].pattern);
  return p < static_cast<uint32_t>(b->pattern_count) ? &b->patterns[p] : nullptr;
}

// Same result as embed_superpixel(luma, geometry, first_x + i * sp_w, y, 1,
// picks[i].value, patterns[picks[i].pattern].pattern, texture, pm_mode) for
// every pick that names a pattern; the sums are not returned.
using EmbedBandKernel = void(const EmbedBand* band);
EmbedBandKernel embed_band;

// Work space of the vector twins for a run of count superpixels.
int64_t embed_band_scratch_bytes(int32_t sp_w, int32_t sp_h, int32_t count);

// Work that embed_band can do once per pattern rather than once per
// superpixel, for the count patterns of one frame's bank. With out null,
// returns the bytes needed, 0 when the kernel has nothing to prepare for this
// geometry and mode; otherwise fills out and returns the same number.
// embed_band then takes out as EmbedBand::prepared for runs over the same
// patterns.
using EmbedPrepareKernel = int64_t(const EmbedPattern* patterns, int32_t count, int32_t sp_w,
                                   int32_t sp_h, int32_t pm_mode, uint8_t* out);

// The plain kernels prepare nothing: returns 0.
EmbedPrepareKernel embed_band_prepare;

// nonzero and row_mask of a w x h pattern (pattern is set too).
void describe_pattern(const int8_t* pattern, int32_t w, int32_t h, EmbedPattern* out);

}  // namespace lumamark
