// Embedding of a run of superpixels that sit side by side on one superpixel
// row: the same changes as one embed_superpixel call per superpixel, done
// row by row across the whole run so that vector kernels see long rows.
#pragma once

#include <cstdint>

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
  uint8_t* luma;           // byte 0 of the luma plane, modified in place
  int32_t stride;          // bytes between luma rows
  int32_t frame_w;         // frame width: texture row length and part of the noise seed
  int32_t frame_h;         // frame height: part of the noise seed
  int32_t sp_w;            // superpixel width, >= 1
  int32_t sp_h;            // superpixel height, >= 1
  int32_t border_w;        // border width setting; below 1 = max(sp_w / 8, 1)
  int32_t border_h;        // border height setting; below 1 = max(sp_h / 8, 1)
  int32_t y;               // top row of the superpixel row
  int32_t first_x;         // left column of the first superpixel of the run
  int32_t count;           // superpixels in the run, >= 0
  const EmbedItem* items;  // count items, left to right
  const uint8_t* texture;  // texture map (frame_w x frame_h) or null
  int32_t pm_mode;         // perceptual mode
  uint8_t* scratch;        // embed_band_scratch_bytes(sp_w, sp_h, count) bytes, or null
  const uint8_t* prepared; // what the table's prepare made of the items' patterns, or null
};

// Same result as embed_superpixel(luma, first_x + i * sp_w, y, 1, stride, sp_w,
// sp_h, border_w, border_h, items[i].value, frame_w, frame_h, items[i].pattern,
// texture, pm_mode) for every item with a pattern; the sums are not returned.
void embed_band(const EmbedBand* band);

// Work space of the vector twins for a run of count superpixels.
int64_t embed_band_scratch_bytes(int32_t sp_w, int32_t sp_h, int32_t count);

// The plain kernels prepare nothing: returns 0.
int64_t embed_band_prepare(const EmbedItem* patterns, int32_t count, int32_t sp_w, int32_t sp_h,
                           int32_t pm_mode, uint8_t* out);

// nonzero and row_mask of an item for a w x h pattern.
void describe_pattern(const int8_t* pattern, int32_t w, int32_t h, EmbedItem* item);

}  // namespace lumamark
