// Embedding of a run of superpixels that sit side by side on one superpixel
// row: the same changes as one embed_superpixel call per superpixel, done
// row by row across the whole run so that vector kernels see long rows.
#pragma once

#include <cstdint>

#include "kernels/geometry.h"

namespace lumamark {

// One superpixel of a run.
struct EmbedItem {
  const int8_t* pattern;  // sp_w x sp_h pattern of the bank, or null: leave it alone
  int32_t value;          // embedded value; only its sign is used
  int32_t nonzero;        // non-zero bytes of the pattern, 0..sp_w x sp_h
  uint64_t row_mask;      // bit r: pattern row r has a non-zero byte (rows 64 and up: always)
  int32_t id;             // number of the pattern in the prepared set, or -1 (see EmbedPrepareFn)
};

struct EmbedBand {
  uint8_t* luma;                   // byte 0 of the luma plane, modified in place
  const FrameGeometry* geometry;   // frame size, row pitch, superpixel side and border
  int32_t y;                       // top row of the superpixel row
  int32_t first_x;                 // left column of the first superpixel of the run
  int32_t count;                   // superpixels in the run, >= 0
  const EmbedItem* items;          // count items, left to right
  const uint8_t* texture;          // texture map (width x height of the geometry) or null
  int32_t pm_mode;                 // perceptual mode
  uint8_t* scratch;                // embed_band_scratch_bytes(sp_w, sp_h, count) bytes, or null
  const uint8_t* prepared;         // what the table's prepare made of the items' patterns, or null
};

// Same result as embed_superpixel(luma, geometry, first_x + i * sp_w, y, 1,
// items[i].value, items[i].pattern, texture, pm_mode) for every item with a
// pattern; the sums are not returned.
using EmbedBandKernel = void(const EmbedBand* band);
EmbedBandKernel embed_band;

// Work space of the vector twins for a run of count superpixels.
int64_t embed_band_scratch_bytes(int32_t sp_w, int32_t sp_h, int32_t count);

// Work that embed_band can do once per pattern rather than once per
// superpixel, for the count patterns of one frame's bank (item i has id i;
// values are not read). With out null, returns the bytes needed, 0 when the
// kernel has nothing to prepare for this geometry and mode; otherwise fills
// out and returns the same number. embed_band then takes out as
// EmbedBand::prepared for runs whose items carry these ids.
using EmbedPrepareKernel = int64_t(const EmbedItem* patterns, int32_t count, int32_t sp_w,
                                   int32_t sp_h, int32_t pm_mode, uint8_t* out);

// The plain kernels prepare nothing: returns 0.
EmbedPrepareKernel embed_band_prepare;

// nonzero and row_mask of an item for a w x h pattern.
void describe_pattern(const int8_t* pattern, int32_t w, int32_t h, EmbedItem* item);

}  // namespace lumamark
