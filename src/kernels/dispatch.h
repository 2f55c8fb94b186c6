// Runtime choice between the plain kernels and their vector twins.
//
// Every entry of a KernelTable computes exactly the same bytes as its plain
// version; only the speed differs. The plain table is installed first; at
// start-up the best table that the processor supports replaces it. Tests may
// switch tables to compare both on the same inputs.
#pragma once

#include <cstdint>

#include "kernels/embed_band.h"
#include "kernels/texture.h"

namespace lumamark {

// Sums of the cells of one band of cell rows for the image-hash seed:
// values[r * gx + c] = (sum of cell (c, r), wrapped to 32 bits) >> 8 (signed)
// for cell rows r in [first_row, end_row). A cell is cw x ch samples starting
// at luma + r * ch * stride + c * cw. cw and ch are at least 1.
using CellSumsFn = void (*)(const uint8_t* luma, int32_t stride, int32_t cw, int32_t ch,
                            int32_t gx, int32_t first_row, int32_t end_row, int32_t* values);

// Texture map rows [first_row, end_row) straight from the plane: the same
// bytes as texture_rows over a finished integral image, which is not needed
// (rows->integral may be null).
using TextureRowsFn = void (*)(const TextureRows* rows);

// A run of superpixels along one superpixel row (see embed_band.h).
using EmbedBandFn = void (*)(const EmbedBand* band);

// Work that embed_band can do once per pattern rather than once per
// superpixel, for the count patterns of one frame's bank (item i has id i;
// values are not read). With out null, returns the bytes needed, 0 when the
// kernel has nothing to prepare for this geometry and mode; otherwise fills
// out and returns the same number. embed_band then takes out as
// EmbedBand::prepared for runs whose items carry these ids.
using EmbedPrepareFn = int64_t (*)(const EmbedItem* patterns, int32_t count, int32_t sp_w,
                                   int32_t sp_h, int32_t pm_mode, uint8_t* out);

// embed_superpixel and its twins.
using EmbedSuperpixelFn = int32_t (*)(uint8_t* luma, int32_t x, int32_t y, int32_t step,
                                      int32_t stride, int32_t sp_w, int32_t sp_h, int32_t spb_w,
                                      int32_t spb_h, int32_t value, int32_t frame_w,
                                      int32_t frame_h, const int8_t* pattern,
                                      const uint8_t* texture, int32_t pm_mode);

// signal_measure and its twins.
using SignalMeasureFn = int32_t (*)(const uint8_t* luma, int32_t x, int32_t y, int32_t sp_w,
                                    int32_t sp_h, int32_t stride, int32_t spb_w, int32_t spb_h);

struct KernelTable {
  const char* name;                    // "plain" or "avx2"
  CellSumsFn cell_sums;                // image-hash cell sums
  TextureRowsFn texture_rows;          // texture map rows without an integral image
  EmbedBandFn embed_band;              // embedding of a run of superpixels
  EmbedPrepareFn embed_prepare;        // per-pattern preparation for embed_band
  EmbedSuperpixelFn embed_superpixel;  // embedding of one superpixel
  SignalMeasureFn signal_measure;      // signal of one superpixel
};

enum class KernelSet {
  Plain,  // scalar reference kernels, always available
  Avx2,   // AVX2 + BMI2 + POPCNT kernels
};

// The table in use. Reading it is cheap; switching is not meant to race with
// running kernels.
const KernelTable& kernels();

// The table of one set, whether or not the processor can run it.
const KernelTable& kernel_table(KernelSet set);

// True when the processor can run the set.
bool kernel_set_supported(KernelSet set);

// The fastest set the processor supports.
KernelSet best_kernel_set();

// Installs a set. Returns false (and changes nothing) when it is unsupported.
bool use_kernel_set(KernelSet set);

// The set in use.
KernelSet current_kernel_set();

}  // namespace lumamark
