// The geometric search against the aligned read, on 10 frames of 1920 x 1080
// on one core: the aligned read of a marked clip (what every read costs),
// the fast search on a copy shifted by 4 and 3 pixels, and the full search on
// an unmarked clip (its worst case: nothing stops it early).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "decode/detector.h"
#include "decode/resync.h"
#include "filter/filter.h"
#include "payload/payload_map.h"

namespace {

using namespace lumamark;

constexpr int32_t kW = 1920, kH = 1080, kFrames = 10;

std::vector<uint8_t> frame(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> luma(static_cast<size_t>(kW) * kH);
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 0; x < kW; ++x)
      luma[static_cast<size_t>(y) * kW + x] =
          static_cast<uint8_t>(128 + 60 * std::sin(0.01 * x + 0.02 * y + seed) + rng() % 9);
  return luma;
}

void mark(std::vector<uint8_t>* luma) {
  WatermarkFilter* f = wm_filter_create();
  wm_filter_init(f, 3, 7, 0, 100, 100, 1, 1, kW, kH, "1a2b", 13, 0, 2, 3);
  std::vector<uint8_t> map((kW / 7) * (kH / 7));
  wm_generate_payload_map(f, map.data(), "00000000000000000000000000000000", nullptr);
  wm_filter_set_payload(f, map.data(), nullptr, f->encoded_bit_count, 7, kW, kH);
  wm_filter_apply(f, luma->data(), kW, kH, kW, -1);
  wm_filter_free(f);
}

// kFrames frames, marked or not, moved dx right and dy down.
CopyFrames clip(bool marked, int32_t dx, int32_t dy) {
  CopyFrames c;
  c.width = kW;
  c.height = kH;
  for (int32_t i = 0; i < kFrames; ++i) {
    std::vector<uint8_t> f = frame(static_cast<uint32_t>(i + 1));
    if (marked) mark(&f);
    std::vector<uint8_t> moved(f.size());
    for (int32_t y = 0; y < kH; ++y)
      for (int32_t x = 0; x < kW; ++x)
        moved[static_cast<size_t>(y) * kW + x] =
            f[static_cast<size_t>(std::clamp(y - dy, 0, kH - 1)) * kW + std::clamp(x - dx, 0, kW - 1)];
    c.luma.push_back(moved);
  }
  return c;
}

void BM_AlignedRead(benchmark::State& state) {
  const CopyFrames c = clip(true, 0, 0);
  DetectConfig config;
  for (auto _ : state) {
    Detector d;
    detector_init(&d, config, nullptr);
    for (const std::vector<uint8_t>& f : c.luma) detector_add_frame(&d, f.data(), kW);
    benchmark::DoNotOptimize(detector_result(&d));
    benchmark::DoNotOptimize(aligned_read_confirmed(config, c, d.bits));
  }
}
BENCHMARK(BM_AlignedRead)->Unit(benchmark::kMillisecond);

void search(benchmark::State& state, bool marked, SearchMode mode) {
  const CopyFrames c = clip(marked, marked ? 4 : 0, marked ? 3 : 0);
  for (auto _ : state) {
    ResyncResult r;
    resync_search(DetectConfig{}, c, mode, "", &r, nullptr);
    state.counters["z"] = r.result.z;
    state.counters["hypotheses"] = static_cast<double>(r.hypotheses);
  }
}

void BM_SearchFastShifted(benchmark::State& state) { search(state, true, SearchMode::kFast); }
BENCHMARK(BM_SearchFastShifted)->Unit(benchmark::kMillisecond)->Iterations(2);

void BM_SearchFullUnmarked(benchmark::State& state) { search(state, false, SearchMode::kFull); }
BENCHMARK(BM_SearchFullUnmarked)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
