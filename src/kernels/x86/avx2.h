// AVX2 twins of the hot kernels. Call them only when the processor supports
// AVX2, FMA, BMI2 and POPCNT (see kernels/dispatch.h); each returns exactly
// what its plain version returns, and has its signature.
#pragma once

#include <cstdint>

#include "kernels/cells.h"
#include "kernels/embed.h"
#include "kernels/embed_band.h"
#include "kernels/measure.h"
#include "kernels/texture.h"

namespace lumamark {

CellSumsKernel cell_sums_avx2;
TextureRowsKernel texture_rows_avx2;
EmbedBandKernel embed_band_avx2;
EmbedPrepareKernel embed_band_prepare_avx2;
EmbedSuperpixelKernel embed_superpixel_avx2;
EmbedRepeatKernel embed_superpixel_repeat_avx2;
EmbedRepeatRunKernel embed_repeat_run_avx2;
SignalMeasureKernel signal_measure_avx2;
SignalMeasureGridKernel signal_measure_grid_avx2;

}  // namespace lumamark
