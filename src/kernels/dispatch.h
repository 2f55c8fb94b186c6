// Runtime choice between the plain kernels and their vector twins.
//
// Every entry of a KernelTable computes exactly the same bytes as its plain
// version; only the speed differs. The plain table is installed first; at
// start-up the best table that the processor supports replaces it. Tests may
// switch tables to compare both on the same inputs.
#pragma once

#include <cstdint>

#include "kernels/cells.h"
#include "kernels/embed.h"
#include "kernels/embed_band.h"
#include "kernels/measure.h"
#include "kernels/texture.h"

namespace lumamark {

// Pointers to the kernels; each signature is declared beside its plain kernel.
using CellSumsFn = CellSumsKernel*;                // cell sums for the image-hash seed (cells.h)
using TextureRowsFn = TextureRowsKernel*;          // texture rows without an integral image (texture.h)
using EmbedBandFn = EmbedBandKernel*;              // a run of superpixels (embed_band.h)
using EmbedPrepareFn = EmbedPrepareKernel*;        // per-pattern preparation (embed_band.h)
using EmbedSuperpixelFn = EmbedSuperpixelKernel*;  // one superpixel (embed.h)
using EmbedRepeatFn = EmbedRepeatKernel*;          // one superpixel, deep-fake passes (embed.h)
using EmbedRepeatRunFn = EmbedRepeatRunKernel*;    // a run of superpixels, deep-fake passes (embed.h)
using SignalMeasureFn = SignalMeasureKernel*;      // signal of one superpixel (measure.h)
using SignalMeasureGridFn = SignalMeasureGridKernel*;  // signals of a whole grid (measure.h)

struct KernelTable {
  const char* name;                    // "plain" or "avx2"
  CellSumsFn cell_sums;                // image-hash cell sums
  TextureRowsFn texture_rows;          // texture map rows without an integral image
  EmbedBandFn embed_band;              // embedding of a run of superpixels
  EmbedPrepareFn embed_prepare;        // per-pattern preparation for embed_band
  EmbedSuperpixelFn embed_superpixel;  // embedding of one superpixel
  EmbedRepeatFn embed_repeat;          // repeated embedding of one superpixel (deep-fake)
  SignalMeasureFn signal_measure;      // signal of one superpixel
  SignalMeasureGridFn measure_grid;    // signals of every superpixel of a grid
  EmbedRepeatRunFn embed_repeat_run;   // repeated embedding of a run of superpixels (deep-fake)
};

enum class KernelSet {
  Plain,  // scalar reference kernels, always available
  Avx2,   // AVX2 + FMA + BMI2 + POPCNT kernels
};

// The table in use. Reading it is cheap; switching is not meant to race with
// running kernels.
const KernelTable& kernels();

// The table of one set, whether or not the processor can run it.
const KernelTable& kernel_table(KernelSet set);

// True when the processor can run the set (always for Plain; never for Avx2
// when the environment variable LUMAMARK_CPU is "plain").
bool kernel_set_supported(KernelSet set);

// The fastest set the processor supports.
KernelSet best_kernel_set();

// Installs a set. Returns false (and changes nothing) when it is unsupported.
bool use_kernel_set(KernelSet set);

// The set in use.
KernelSet current_kernel_set();

}  // namespace lumamark
