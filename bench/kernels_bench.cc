// Kernel timings on a 1920 x 1080 luma plane with the default geometry
// (7 x 7 superpixels, automatic border, strength 3), for the plain kernels
// and their vector twins: texture map, superpixel embedding in every
// perceptual mode (one call per superpixel and whole runs), signal measure,
// selection mask, pattern bank, image seed, and one whole frame through the
// filter.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "filter/filter.h"
#include "filter/seed.h"
#include "payload/selection.h"
#include "kernels/dispatch.h"
#include "kernels/embed_band.h"
#include "kernels/measure.h"
#include "kernels/pattern.h"
#include "kernels/texture.h"
#include "payload/payload_map.h"

namespace {

using namespace lumamark;

constexpr int32_t kW = 1920, kH = 1080, kSp = 7, kStrength = 3;
constexpr int32_t kCols = kW / kSp, kRows = kH / kSp;

// A picture-like plane: gradients plus hashed noise.
std::vector<uint8_t> plane(int32_t w, int32_t h) {
  std::vector<uint8_t> p(static_cast<size_t>(w) * h);
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w; ++x) {
      uint32_t v = static_cast<uint32_t>(x) * 73856093u ^ static_cast<uint32_t>(y) * 19349663u;
      v ^= v >> 13;
      v *= 0x5bd1e995u;
      v ^= v >> 15;
      p[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(40 + (x * 120) / w + (y * 60) / h + v % 48);
    }
  }
  return p;
}

// Benchmarks take the table as their first argument: 0 plain, 1 avx2.
const KernelTable* table_or_skip(benchmark::State& state) {
  const KernelSet set = state.range(0) == 0 ? KernelSet::Plain : KernelSet::Avx2;
  if (!kernel_set_supported(set)) {
    state.SkipWithError("kernel set not supported on this processor");
    return nullptr;
  }
  state.SetLabel(kernel_table(set).name);
  return &kernel_table(set);
}

void per_pixel(benchmark::State& state, int64_t pixels) {
  state.SetItemsProcessed(state.iterations() * pixels);
}

// The bank of one frame with the default settings.
struct Bank {
  PatternLayout layout{};
  std::vector<int8_t> bytes;
  explicit Bank(bool dotted) {
    pattern_layout(&layout, 4, 16, kStrength, kSp, kSp, 0, 0);
    bytes.resize(static_cast<size_t>(layout.total));
    const int32_t adjust[4] = {20, 15, 5, -5};
    pattern_bank_fill(bytes.data(), &layout, 100, adjust, "101101001011", 7, dotted);
  }
  const int8_t* pick(int32_t sx, int32_t value) const {
    return pattern_select(bytes.data(), &layout, (sx / 3) % 4, sx % 16, value);
  }
  // The run pick of a pattern of this bank (the patterns are described once,
  // as the embedding driver does per frame).
  EmbedPick run_pick(int32_t sx, int32_t value) const {
    const int8_t* p = pick(sx, value);
    if (described.empty()) {
      described.resize(static_cast<size_t>(layout.total / layout.level_stride));
      for (size_t i = 0; i < described.size(); ++i) {
        describe_pattern(bytes.data() + i * layout.level_stride, kSp, kSp, &described[i]);
      }
    }
    return EmbedPick{static_cast<int32_t>((p - bytes.data()) / layout.level_stride), value};
  }
  mutable std::vector<EmbedPattern> described;
};

void BM_TextureIntegralReference(benchmark::State& state) {
  const std::vector<uint8_t> src = plane(kW, kH);
  std::vector<uint8_t> out(static_cast<size_t>(kW) * kH);
  std::vector<uint32_t> integral(static_cast<size_t>(kW + 1) * (kH + 1));
  for (auto _ : state) {
    texture_integral(src.data(), kW, kH, kW, integral.data());
    const TextureRows rows{src.data(), out.data(), integral.data(), kW + 1, kW, kH, kW, 10, 0, kH};
    texture_rows(&rows);
    benchmark::ClobberMemory();
  }
  per_pixel(state, int64_t{kW} * kH);
}
BENCHMARK(BM_TextureIntegralReference)->Unit(benchmark::kMicrosecond);

void BM_TextureRows(benchmark::State& state) {
  const KernelTable* k = table_or_skip(state);
  if (k == nullptr) return;
  const std::vector<uint8_t> src = plane(kW, kH);
  std::vector<uint8_t> out(static_cast<size_t>(kW) * kH);
  const TextureRows rows{src.data(), out.data(), nullptr, 0, kW, kH, kW, 10, 0, kH};
  for (auto _ : state) {
    k->texture_rows(&rows);
    benchmark::ClobberMemory();
  }
  per_pixel(state, int64_t{kW} * kH);
}
BENCHMARK(BM_TextureRows)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// Arguments: table, perceptual mode. Every superpixel of the frame is
// embedded once per iteration; the frame is restored outside the timing
// every few iterations so that it does not saturate.
void embed_frame_bench(benchmark::State& state, bool runs) {
  const KernelTable* k = table_or_skip(state);
  if (k == nullptr) return;
  const int32_t pm = static_cast<int32_t>(state.range(1));
  const std::vector<uint8_t> original = plane(kW, kH);
  std::vector<uint8_t> luma = original;
  std::vector<uint8_t> texture(static_cast<size_t>(kW) * kH);
  const TextureRows rows{original.data(), texture.data(), nullptr, 0, kW, kH, kW, 10, 0, kH};
  texture_rows_direct(&rows);
  const Bank bank(pm != 3);
  // Patterns and values of the whole grid, picked outside the timing.
  std::vector<EmbedPick> picks(static_cast<size_t>(kCols) * kRows);
  for (int32_t sy = 0; sy < kRows; ++sy) {
    for (int32_t sx = 0; sx < kCols; ++sx) picks[static_cast<size_t>(sy) * kCols + sx] = bank.run_pick(sx, (sx + sy) % 3 - 1);
  }
  std::vector<uint8_t> scratch(static_cast<size_t>(embed_band_scratch_bytes(kSp, kSp, kCols)));
  // Prepared once, as the embedding driver does per frame.
  const int32_t patterns = static_cast<int32_t>(bank.described.size());
  std::vector<uint8_t> prepared(static_cast<size_t>(
      std::max<int64_t>(0, k->embed_prepare(bank.described.data(), patterns, kSp, kSp, pm, nullptr))));
  if (!prepared.empty()) k->embed_prepare(bank.described.data(), patterns, kSp, kSp, pm, prepared.data());
  int64_t n = 0;
  for (auto _ : state) {
    if (++n % 16 == 0) {
      state.PauseTiming();
      luma = original;
      state.ResumeTiming();
    }
    const FrameGeometry g{kW, kH, kW, kSp, kSp, 0, 0};
    for (int32_t sy = 0; sy < kRows; ++sy) {
      const EmbedPick* row = picks.data() + static_cast<size_t>(sy) * kCols;
      if (runs) {
        const EmbedBand band{luma.data(), &g, sy * kSp, 0, kCols, row, bank.described.data(), patterns,
                             texture.data(), pm, scratch.data(), prepared.empty() ? nullptr : prepared.data()};
        k->embed_band(&band);
      } else {
        for (int32_t sx = 0; sx < kCols; ++sx) {
          benchmark::DoNotOptimize(k->embed_superpixel(luma.data(), &g, sx * kSp, sy * kSp, 1,
                                                       row[sx].value, bank.described[row[sx].pattern].pattern,
                                                       texture.data(), pm));
        }
      }
    }
    benchmark::ClobberMemory();
  }
  per_pixel(state, int64_t{kCols} * kRows * kSp * kSp);
}

void BM_EmbedSuperpixel(benchmark::State& state) { embed_frame_bench(state, false); }
void BM_EmbedBand(benchmark::State& state) { embed_frame_bench(state, true); }
BENCHMARK(BM_EmbedSuperpixel)->ArgsProduct({{0, 1}, {0, 1, 2, 3}})->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EmbedBand)->ArgsProduct({{0, 1}, {0, 1, 2, 3}})->Unit(benchmark::kMicrosecond);

void BM_SignalMeasureGrid(benchmark::State& state) {
  const KernelTable* k = table_or_skip(state);
  if (k == nullptr) return;
  const std::vector<uint8_t> luma = plane(kW, kH);
  std::vector<int32_t> out(static_cast<size_t>(kCols) * kRows);
  const FrameGeometry g{kW, kH, kW, kSp, kSp, 0, 0};
  for (auto _ : state) {
    for (int32_t sy = 0; sy < kRows; ++sy) {
      for (int32_t sx = 0; sx < kCols; ++sx) {
        out[static_cast<size_t>(sy) * kCols + sx] = k->signal_measure(luma.data(), &g, sx * kSp, sy * kSp);
      }
    }
    benchmark::ClobberMemory();
  }
  per_pixel(state, int64_t{kCols} * kRows * kSp * kSp);
}
BENCHMARK(BM_SignalMeasureGrid)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// Arguments: repetitions, density. One repetition of 42196 symbols (the
// Reed-Muller layout) or 2813 repetitions of 15 (13 bits with parity).
void BM_SelectionMask(benchmark::State& state) {
  const int32_t reps = static_cast<int32_t>(state.range(0));
  const int32_t length = reps == 1 ? kCols * kRows : 15;
  std::vector<uint8_t> mask(static_cast<size_t>(reps) * length);
  for (auto _ : state) {
    selection_mask(mask.data(), reps, length, static_cast<int32_t>(state.range(1)), 11);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * reps * length);
}
BENCHMARK(BM_SelectionMask)->ArgsProduct({{1, 2813}, {100, 50}})->Unit(benchmark::kMicrosecond);

// Arguments: superpixel side, strength.
void BM_PatternBank(benchmark::State& state) {
  const int32_t sp = static_cast<int32_t>(state.range(0));
  PatternLayout layout;
  pattern_layout(&layout, 4, 16, static_cast<int32_t>(state.range(1)), sp, sp, 0, 0);
  std::vector<int8_t> bank(static_cast<size_t>(layout.total));
  const int32_t adjust[4] = {20, 15, 5, -5};
  for (auto _ : state) {
    pattern_bank_fill(bank.data(), &layout, 100, adjust, "101101001011", 7, true);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * layout.total);
}
BENCHMARK(BM_PatternBank)->Args({7, 3})->Args({64, 8})->Unit(benchmark::kMicrosecond);

void BM_ImageSeed(benchmark::State& state) {
  const KernelTable* k = table_or_skip(state);
  if (k == nullptr) return;
  const std::vector<uint8_t> luma = plane(kW, kH);
  const KernelSet before = current_kernel_set();
  use_kernel_set(state.range(0) == 0 ? KernelSet::Plain : KernelSet::Avx2);
  for (auto _ : state) benchmark::DoNotOptimize(image_seed(luma.data(), kW, kH, kW, 1, 1, kCols, kRows));
  use_kernel_set(before);
  per_pixel(state, int64_t{kW} * kH);
}
BENCHMARK(BM_ImageSeed)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// One whole frame through the filter with the defaults (perceptual mode 3,
// Reed-Muller payload, image-hash seed), on one thread. Arguments: table,
// perceptual mode.
void BM_FilterApplyFrame(benchmark::State& state) {
  const KernelTable* k = table_or_skip(state);
  if (k == nullptr) return;
  WatermarkFilter* f = wm_filter_create();
  const int32_t pm = static_cast<int32_t>(state.range(1));
  if (wm_filter_init(f, kStrength, kSp, 0, 100, 100, 1, 1, kW, kH, "1abc", 13, 0, 2, pm) != 0) {
    state.SkipWithError("init failed");
    wm_filter_free(f);
    return;
  }
  wm_filter_set_threads(f, 1);
  std::vector<uint8_t> map(static_cast<size_t>(kCols) * kRows);
  wm_generate_payload_map(f, map.data(), "0123456789abcdef0123456789abcdef", nullptr);
  wm_filter_set_payload(f, map.data(), nullptr, kCols * kRows, kSp, kW, kH);
  const std::vector<uint8_t> original = plane(kW, kH);
  std::vector<uint8_t> luma = original;
  const KernelSet before = current_kernel_set();
  use_kernel_set(state.range(0) == 0 ? KernelSet::Plain : KernelSet::Avx2);
  int64_t n = 0;
  for (auto _ : state) {
    if (++n % 16 == 0) {
      state.PauseTiming();
      luma = original;
      state.ResumeTiming();
    }
    benchmark::DoNotOptimize(wm_filter_apply(f, luma.data(), kW, kH, kW, -1));
  }
  use_kernel_set(before);
  wm_filter_free(f);
  per_pixel(state, int64_t{kW} * kH);
}
BENCHMARK(BM_FilterApplyFrame)->ArgsProduct({{0, 1}, {0, 2, 3}})->Unit(benchmark::kMicrosecond);

}  // namespace
