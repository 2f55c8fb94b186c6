// Payload construction timings: the Reed-Muller block encoder on its largest
// codeword (20 bits, r = 3, m = 22, 4194304 entries) and the map generator on
// a 1920 x 1080 frame.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "filter/filter.h"
#include "payload/fec.h"
#include "payload/payload_map.h"

namespace {

using namespace lumamark;

// Symbols written: 42196 (1080p grid) or the whole 4194304-entry codeword.
void BM_RmBlockLargest(benchmark::State& state) {
  const int32_t L = static_cast<int32_t>(state.range(0));
  std::string out(L, '#');
  const char bits[] = "11010010001101011101";
  for (auto _ : state) {
    benchmark::DoNotOptimize(rm_block_encode(out.data(), out.data() + L, 1, bits, 20, 3, 12345));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_RmBlockLargest)->Arg(42196)->Arg(4194304)->Unit(benchmark::kMillisecond);

// The 1080p defaults: 13 bits, m = 16, plus the sign pattern and the map.
void BM_GeneratePayloadMap1080p(benchmark::State& state) {
  WatermarkFilter f{};
  f.width = 1920, f.height = 1080, f.sp_size = 7, f.strength = 3, f.fec_mode = 2;
  f.bit_count = f.fec_bit_count = 13;
  f.encoded_bit_count = (1920 / 7) * (1080 / 7);
  f.wm_id = strdup("1ABC");
  f.coded_bits = fec_encode(f.wm_id, 13, f.encoded_bit_count, 2);
  std::vector<int8_t> pattern(f.encoded_bit_count);
  std::vector<uint8_t> map(f.encoded_bit_count);
  f.pattern_values = pattern.data();
  for (auto _ : state) {
    wm_generate_payload_map(&f, map.data(), "0123456789abcdef0123456789abcdef", nullptr);
    benchmark::ClobberMemory();
  }
  std::free(f.wm_id);
  std::free(f.coded_bits);
}
BENCHMARK(BM_GeneratePayloadMap1080p)->Unit(benchmark::kMillisecond);

}  // namespace
