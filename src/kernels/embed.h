// Per-superpixel embedding: adds an amplitude pattern, shaped by the
// perceptual mode, to the pixels of one superpixel in place.
#pragma once

#include <cstdint>

namespace lumamark {

// Sum of squared deviations of a w x h block from its integer mean (32-bit,
// wrapping; not divided by the count). Returns 0 when h < 1.
int32_t block_ssd(const uint8_t* block, int32_t w, int32_t h, int32_t stride);

// Entries 1..7 of the attenuation table after the border analysis of mode 2;
// m is the smallest sum of squared deviations of the four border strips.
// Entries are left alone from 5000 upwards.
void border_attenuation(int32_t m, int32_t small[8]);

// Entries 0..7 of the attenuation table of the superpixel at (x, y) for
// pm_mode (entries 8 and above are always the identity); bw and bh are the
// resolved borders. Mode 2 measures the border strips before any change.
void attenuation_table(const uint8_t* luma, int32_t x, int32_t y, int32_t stride, int32_t sp_w,
                       int32_t sp_h, int32_t bw, int32_t bh, int32_t pm_mode, int32_t small[8]);

// Embeds one superpixel whose top-left sample is (x, y). Only the sign of
// value is used (0 counts as positive). pattern holds sp_w x sp_h signed bytes;
// texture is the frame_w x frame_h texture map or null. Returns the sum of the
// changes actually made after clamping to 0..255.
int32_t embed_superpixel(uint8_t* luma, int32_t x, int32_t y, int32_t step, int32_t stride,
                         int32_t sp_w, int32_t sp_h, int32_t spb_w, int32_t spb_h, int32_t value,
                         int32_t frame_w, int32_t frame_h, const int8_t* pattern,
                         const uint8_t* texture, int32_t pm_mode);

}  // namespace lumamark
