// AVX2 twins of the hot kernels. Call them only when the processor supports
// AVX2, BMI2 and POPCNT (see kernels/dispatch.h); each returns exactly what
// its plain version returns.
#pragma once

#include <cstdint>

#include "kernels/embed_band.h"
#include "kernels/texture.h"

namespace lumamark {

void cell_sums_avx2(const uint8_t* luma, int32_t stride, int32_t cw, int32_t ch, int32_t gx,
                    int32_t first_row, int32_t end_row, int32_t* values);

void texture_rows_avx2(const TextureRows* rows);

void embed_band_avx2(const EmbedBand* band);

int64_t embed_band_prepare_avx2(const EmbedItem* patterns, int32_t count, int32_t sp_w,
                                int32_t sp_h, int32_t pm_mode, uint8_t* out);

int32_t embed_superpixel_avx2(uint8_t* luma, int32_t x, int32_t y, int32_t step, int32_t stride,
                              int32_t sp_w, int32_t sp_h, int32_t spb_w, int32_t spb_h,
                              int32_t value, int32_t frame_w, int32_t frame_h,
                              const int8_t* pattern, const uint8_t* texture, int32_t pm_mode);

int32_t signal_measure_avx2(const uint8_t* luma, int32_t x, int32_t y, int32_t sp_w, int32_t sp_h,
                            int32_t stride, int32_t spb_w, int32_t spb_h);

}  // namespace lumamark
