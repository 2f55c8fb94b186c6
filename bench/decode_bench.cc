// Detector timings on a 1920 x 1080 frame: measuring every superpixel, the
// Reed-Muller decode alone, and the whole per-frame step of the detector
// (measure, soft values, decode, weighted sum) on one core, with the
// selection seed known and with all 32 seeds tried.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "decode/detector.h"
#include "decode/rm_decode.h"
#include "decode/soft_values.h"

namespace {

using namespace lumamark;

constexpr int32_t kW = 1920, kH = 1080;

std::vector<uint8_t> frame() {
  std::mt19937 rng(1);
  std::vector<uint8_t> luma(static_cast<size_t>(kW) * kH);
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 0; x < kW; ++x)
      luma[static_cast<size_t>(y) * kW + x] =
          static_cast<uint8_t>(128 + 60 * std::sin(0.01 * x + 0.02 * y) + rng() % 9);
  return luma;
}

void BM_MeasureAndSoftValues(benchmark::State& state) {
  const std::vector<uint8_t> luma = frame();
  const SoftGrid grid{kW / 7, kH / 7, 7, 0};
  std::vector<int32_t> measures(static_cast<size_t>(grid.cols) * grid.rows);
  std::vector<int8_t> signs(measures.size(), 1);
  std::vector<float> soft(measures.size());
  SoftScratch scratch;
  for (auto _ : state) {
    measure_frame(luma.data(), kW, grid, measures.data(), 1);
    soft_values(measures.data(), grid, signs.data(), soft.data(), &scratch);
    benchmark::DoNotOptimize(soft.data());
  }
}
BENCHMARK(BM_MeasureAndSoftValues)->Unit(benchmark::kMillisecond);

void BM_SoftValues(benchmark::State& state) {
  const std::vector<uint8_t> luma = frame();
  const SoftGrid grid{kW / 7, kH / 7, 7, 0};
  std::vector<int32_t> measures(static_cast<size_t>(grid.cols) * grid.rows);
  std::vector<int8_t> signs(measures.size(), 1);
  std::vector<float> soft(measures.size());
  SoftScratch scratch;
  measure_frame(luma.data(), kW, grid, measures.data(), 1);
  for (auto _ : state) {
    soft_values(measures.data(), grid, signs.data(), soft.data(), &scratch);
    benchmark::DoNotOptimize(soft.data());
  }
}
BENCHMARK(BM_SoftValues)->Unit(benchmark::kMillisecond);

// Payload bits 13 (one block, 4096 candidates) and 20 (one block, 524288).
void BM_RmDecode(benchmark::State& state) {
  const int32_t nbits = static_cast<int32_t>(state.range(0));
  const int32_t L = (kW / 7) * (kH / 7);
  RmDecodePlan plan;
  rm_decode_plan(&plan, nbits, L, 12345);
  std::mt19937 rng(2);
  std::vector<float> soft(static_cast<size_t>(L));
  for (float& v : soft) v = static_cast<float>(rng() % 7) - 3.0f;
  std::vector<RmBlockDecision> decisions(plan.blocks.size());
  std::string bits(static_cast<size_t>(nbits), '0');
  RmDecodeScratch scratch;
  for (auto _ : state) {
    benchmark::DoNotOptimize(rm_decode_with_plan(plan, soft.data(), bits.data(), decisions.data(), &scratch));
  }
}
BENCHMARK(BM_RmDecode)->Arg(13)->Arg(20)->Unit(benchmark::kMillisecond);

// The detector's whole per-frame step; density 50 tries all 32 seeds.
void BM_DetectorFrame(benchmark::State& state) {
  const std::vector<uint8_t> luma = frame();
  DetectConfig c;
  c.sp_density = static_cast<int32_t>(state.range(0));
  Detector d;
  std::string error;
  if (detector_init(&d, c, &error) != 0) state.SkipWithError(error.c_str());
  for (auto _ : state) detector_add_frame(&d, luma.data(), kW);
}
BENCHMARK(BM_DetectorFrame)->Arg(100)->Arg(50)->Unit(benchmark::kMillisecond);

}  // namespace
