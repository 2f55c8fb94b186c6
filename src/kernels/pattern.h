// The per-frame pattern bank: one dither pattern per position class, variant
// and amplitude level.
#pragma once

#include <cstdint>

namespace lumamark {

struct PatternLayout {
  int32_t classes;         // position classes; the driver uses 4
  int32_t variants;        // variants per class; the driver uses 16
  int32_t levels;          // amplitude levels; the driver uses the strength
  int32_t width;           // pattern width = superpixel width
  int32_t height;          // pattern height = superpixel height
  int32_t border_w;        // border width setting; below 1 = max(width / 8, 1)
  int32_t border_h;        // border height setting; below 1 = max(height / 8, 1)
  int32_t total;           // bytes in the bank: classes x class_stride
  int32_t class_stride;    // variants x variant_stride
  int32_t variant_stride;  // levels x level_stride
  int32_t level_stride;    // width x height
};

// Fills the layout record; products are 32-bit.
void pattern_layout(PatternLayout* layout, int32_t classes, int32_t variants, int32_t levels,
                    int32_t width, int32_t height, int32_t border_w, int32_t border_h);

// setting if above 0, else max(size / 8, 1).
int32_t border_or_default(int32_t setting, int32_t size);

// h = (h * 31 + signed byte) mod 9001 over the text; 0 for an empty text.
int32_t key_hash(const char* text);

// Fills the whole bank from one generator stream seeded with (seed, key_hash(key)).
// class_adjust holds layout->classes density adjustments in percentage points.
void pattern_bank_fill(int8_t* bank, const PatternLayout* layout, int32_t base_density,
                       const int32_t* class_adjust, const char* key, uint32_t seed,
                       bool dotted_edges);

// The pattern for a class, variant (mod variants) and value (level 0 for 0,
// else (|value| - 1) mod levels).
const int8_t* pattern_select(const int8_t* bank, const PatternLayout* layout, int32_t cls,
                             int32_t variant, int32_t value);

}  // namespace lumamark
