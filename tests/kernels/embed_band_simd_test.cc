// A run of superpixels embedded by every table against one embed_superpixel
// call per superpixel, over random geometries, modes, patterns and pictures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "kernels/embed.h"
#include "kernels/embed_band.h"
#include "simd_test_util.h"

namespace lumamark {
namespace {

// A pattern like the bank's (zero border, 0..3 or one amplitude inside), or
// arbitrary signed bytes, or sparse.
std::vector<int8_t> make_pattern(int w, int h, int bw, int bh, std::mt19937& rng) {
  std::vector<int8_t> p(static_cast<size_t>(w) * h, 0);
  const int kind = static_cast<int>(rng() % 3);
  const int level = static_cast<int>(rng() % 6);
  for (int r = 0; r < h; ++r) {
    for (int c = 0; c < w; ++c) {
      int8_t& v = p[static_cast<size_t>(r) * w + c];
      if (kind == 0) {
        if (r < bh || r >= h - bh || c < bw || c >= w - bw) continue;
        if (rng() % 4 == 0) continue;
        v = static_cast<int8_t>(level == 0 ? rng() % 4 : level + 1);
      } else if (kind == 1) {
        v = static_cast<int8_t>(rng() % 256);
      } else if (rng() % 7 == 0) {
        v = static_cast<int8_t>(1 + rng() % 9);
      }
    }
  }
  return p;
}

TEST(EmbedBandSimd, MatchesOneCallPerSuperpixel) {
  std::mt19937 rng(2024);
  const int32_t modes[] = {0, 1, 2, 3, 3, 3, 7, -1};
  for (int iter = 0; iter < 1500; ++iter) {
    const bool large = iter % 10 == 0;
    const int32_t sp_w = 1 + static_cast<int32_t>(rng() % (large ? 64 : 17));
    const int32_t sp_h = 1 + static_cast<int32_t>(rng() % (large ? 64 : 17));
    const int32_t border_w = iter % 97 == 0 ? 2147483647 : static_cast<int32_t>(rng() % 5) - 1;
    const int32_t border_h = rng() % 2 ? border_w : static_cast<int32_t>(rng() % 5) - 1;
    const int32_t pm = modes[rng() % 8];
    const int32_t count = static_cast<int32_t>(rng() % (large ? 6 : 40));
    const int32_t first_x = static_cast<int32_t>(rng() % 20);
    const int32_t y = static_cast<int32_t>(rng() % 5);
    const int32_t frame_w = first_x + count * sp_w + static_cast<int32_t>(rng() % 9);
    const int32_t frame_h = y + sp_h + static_cast<int32_t>(rng() % 3);
    const int32_t stride = frame_w + static_cast<int32_t>(rng() % 5);

    test::Guarded frame(static_cast<size_t>(stride) * frame_h);
    test::fill_picture(frame.data(), frame.size(), rng);
    std::vector<uint8_t> texture(static_cast<size_t>(frame_w) * frame_h);
    const int tex_top = rng() % 3 == 0 ? 256 : 51;
    for (auto& t : texture) t = static_cast<uint8_t>(rng() % tex_top);
    const bool with_texture = rng() % 5 != 0;

    const int bw = border_w >= 1 ? border_w : std::max(sp_w / 8, 1);
    const int bh = border_h >= 1 ? border_h : std::max(sp_h / 8, 1);
    std::vector<std::vector<int8_t>> patterns;
    std::vector<EmbedItem> described(4);
    for (int k = 0; k < 4; ++k) {
      patterns.push_back(make_pattern(sp_w, sp_h, bw, bh, rng));
      described[k].pattern = patterns[k].data();
      describe_pattern(patterns[k].data(), sp_w, sp_h, &described[k]);
      described[k].id = k;
    }
    std::vector<EmbedItem> items(count);
    for (auto& item : items) {
      item = described[rng() % described.size()];
      if (rng() % 6 == 0) item.pattern = nullptr;
      if (rng() % 7 == 0) item.id = -1;  // not prepared: worked out on the spot
      item.value = static_cast<int32_t>(rng() % 601) - 300;
      if (rng() % 5 == 0) item.value = 0;
    }

    test::Guarded want = frame;
    for (int32_t i = 0; i < count; ++i) {
      if (items[i].pattern == nullptr) continue;
      embed_superpixel(want.data(), first_x + i * sp_w, y, 1, stride, sp_w, sp_h, border_w,
                       border_h, items[i].value, frame_w, frame_h, items[i].pattern,
                       with_texture ? texture.data() : nullptr, pm);
    }
    std::vector<uint8_t> scratch(static_cast<size_t>(embed_band_scratch_bytes(sp_w, sp_h, count)));
    for (const KernelTable* table : test::runnable_tables()) {
      // Prepared for this mode, and prepared for another (which must be
      // recognised as not fitting).
      std::vector<uint8_t> prepared[2];
      for (int k = 0; k < 2; ++k) {
        const int32_t mode = k == 0 ? pm : (pm == 0 ? 1 : 0);
        const int64_t bytes = table->embed_prepare(described.data(), 4, sp_w, sp_h, mode, nullptr);
        if (bytes <= 0) continue;
        prepared[k].resize(static_cast<size_t>(bytes));
        ASSERT_EQ(bytes, table->embed_prepare(described.data(), 4, sp_w, sp_h, mode, prepared[k].data()));
      }
      for (int variant = 0; variant < 4; ++variant) {
        test::Guarded got = frame;
        const std::vector<uint8_t>& prep = prepared[variant == 3 ? 1 : 0];
        const EmbedBand band{got.data(), stride, frame_w, frame_h, sp_w, sp_h, border_w, border_h, y,
                             first_x, count, items.data(), with_texture ? texture.data() : nullptr,
                             pm, variant == 1 ? nullptr : scratch.data(),
                             variant == 2 || prep.empty() ? nullptr : prep.data()};
        table->embed_band(&band);
        ASSERT_EQ(want.all(), got.all())
            << table->name << " iter " << iter << " variant " << variant << " sp " << sp_w << "x"
            << sp_h << " borders " << border_w << "," << border_h << " pm " << pm << " count " << count;
      }
    }
  }
}

}  // namespace
}  // namespace lumamark
