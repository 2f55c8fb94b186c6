// Every kernel of every table the processor can run against its plain twin,
// byte for byte, on random geometries and pictures. Outputs and planes sit
// between guard bytes, which must come out as they went in.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "kernels/cells.h"
#include "kernels/dispatch.h"
#include "kernels/embed.h"
#include "kernels/embed_band.h"
#include "kernels/measure.h"
#include "kernels/pattern.h"
#include "kernels/texture.h"

namespace lumamark {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr size_t kGuard = 64;

std::vector<const KernelTable*> tables() {
  std::vector<const KernelTable*> t{&kernel_table(KernelSet::Plain)};
  if (kernel_set_supported(KernelSet::Avx2)) t.push_back(&kernel_table(KernelSet::Avx2));
  return t;
}

// n bytes of noise, a low-contrast patch, a gradient, flat runs or all 255,
// between kGuard bytes of 0xA5 on either side.
Bytes picture(size_t n, std::mt19937& rng) {
  Bytes b(n + 2 * kGuard, 0xA5);
  const int mode = static_cast<int>(rng() % 5), spread = 1 + static_cast<int>(rng() % 256);
  const int base = static_cast<int>(rng() % 256);
  for (size_t i = 0; i < n; ++i) {
    const int noise = static_cast<int>(rng() % spread);
    const int v = mode == 0 ? noise * 256 / spread
                : mode == 1 ? base + noise - spread / 2
                : mode == 2 ? static_cast<int>((i * 7 + (i / 97) * 3) % 256) + noise % 5
                : mode == 3 ? ((i / 13) % 3 == 0 ? base : noise)
                            : 255;
    b[kGuard + i] = static_cast<uint8_t>(std::clamp(v, 0, 255));
  }
  return b;
}

TEST(KernelEquality, CellSums) {
  std::mt19937 rng(31);
  for (int iter = 0; iter < 300; ++iter) {
    const int cw = 1 + rng() % 40, ch = 1 + rng() % (iter % 7 ? 20 : 300);
    const int gx = 1 + rng() % 30, gy = 1 + rng() % 4, stride = gx * cw + rng() % 9;
    const int first = rng() % gy, end = first + 1 + rng() % (gy - first);
    const Bytes plane = picture(static_cast<size_t>(stride) * ch * gy, rng);
    std::vector<int32_t> want(gx * gy + 8, -7), got;
    cell_sums(plane.data() + kGuard, stride, cw, ch, gx, first, end, want.data());
    for (const KernelTable* t : tables()) {
      got.assign(want.size(), -7);
      t->cell_sums(plane.data() + kGuard, stride, cw, ch, gx, first, end, got.data());
      ASSERT_EQ(want, got) << t->name << " cells " << cw << "x" << ch << " grid " << gx;
    }
  }
}

TEST(KernelEquality, SignalMeasure) {
  std::mt19937 rng(12);
  for (int iter = 0; iter < 3000; ++iter) {
    const int32_t sp_w = 1 + rng() % (iter % 5 ? 18 : 64), sp_h = 1 + rng() % (iter % 7 ? 18 : 70);
    const int32_t bw = iter % 101 ? static_cast<int32_t>(rng() % 6) - 1 : INT32_MAX;
    const int32_t bh = static_cast<int32_t>(rng() % 6) - 1;
    const int32_t x = rng() % 9, y = rng() % 4, stride = x + sp_w + rng() % 5;
    const Bytes plane = picture(static_cast<size_t>(stride) * (y + sp_h), rng);
    const uint8_t* p = plane.data() + kGuard;
    const FrameGeometry g{x + sp_w, y + sp_h, stride, sp_w, sp_h, bw, bh};
    const int32_t want = signal_measure(p, &g, x, y);
    for (const KernelTable* t : tables()) {
      ASSERT_EQ(want, t->signal_measure(p, &g, x, y))
          << t->name << " sp " << sp_w << "x" << sp_h << " borders " << bw << "," << bh;
    }
  }
}

// Whole grids, one superpixel row of them at a time in the vector kernel:
// random sides up to 70 (the vector paths stop at 16 and 64 pixels wide),
// borders, strides (the row pitch may end with the last superpixel) and grid
// sizes (the last step of a row may hold fewer superpixels than the others),
// with guard values around the output.
TEST(KernelEquality, SignalMeasureGrid) {
  std::mt19937 rng(19);
  for (int iter = 0; iter < 800; ++iter) {
    const int32_t sp_w = 1 + rng() % (iter % 5 ? 16 : 70), sp_h = 1 + rng() % (iter % 7 ? 16 : 70);
    const int32_t bw = iter % 53 ? static_cast<int32_t>(rng() % 6) - 1 : INT32_MAX;
    const int32_t bh = static_cast<int32_t>(rng() % 6) - 1;
    const int32_t cols = 1 + rng() % (iter % 9 ? 40 : 300), rows = 1 + rng() % 4;
    const int32_t stride = cols * sp_w + rng() % 9;
    const Bytes plane = picture(static_cast<size_t>(stride) * sp_h * rows, rng);
    const uint8_t* p = plane.data() + kGuard;
    std::vector<int32_t> want(static_cast<size_t>(cols) * rows + 16, -7), got;
    signal_measure_grid(p, cols, rows, want.data() + 8, stride, sp_w, sp_h, bw, bh);
    for (const KernelTable* t : tables()) {
      got.assign(want.size(), -7);
      t->measure_grid(p, cols, rows, got.data() + 8, stride, sp_w, sp_h, bw, bh);
      ASSERT_EQ(want, got) << t->name << " sp " << sp_w << "x" << sp_h << " borders " << bw << ","
                           << bh << " grid " << cols << "x" << rows;
    }
  }
}

// A texture map of w x h bytes: mostly within the map's range 0..50, now and
// then any byte.
Bytes random_texture(int32_t w, int32_t h, std::mt19937& rng) {
  Bytes texture(static_cast<size_t>(w) * h);
  const int top = rng() % 3 ? 51 : 256;
  for (auto& t : texture) t = static_cast<uint8_t>(rng() % top);
  return texture;
}

// A pattern like the bank's (zero border, 0..3 or one amplitude inside), any
// signed bytes (as repeated embedding makes them), or a sparse one.
std::vector<int8_t> make_pattern(int w, int h, int bw, int bh, std::mt19937& rng) {
  std::vector<int8_t> p(static_cast<size_t>(w) * h, 0);
  const int kind = rng() % 3, level = rng() % 6;
  for (int r = 0; r < h; ++r) {
    for (int c = 0; c < w; ++c) {
      int8_t& v = p[static_cast<size_t>(r) * w + c];
      if (kind == 0 && r >= bh && r < h - bh && c >= bw && c < w - bw && rng() % 4) {
        v = static_cast<int8_t>(level == 0 ? rng() % 4 : level + 1);
      } else if (kind == 1) {
        v = static_cast<int8_t>(rng() % 256);
      } else if (kind == 2 && rng() % 7 == 0) {
        v = static_cast<int8_t>(1 + rng() % 9);
      }
    }
  }
  return p;
}

// A run of superpixels side by side on one superpixel row. Reference: one
// plain embed_superpixel call per superpixel. Each table must give the same
// plane and sums with its embed_superpixel, and the same plane with its
// embed_band, with and without work space and patterns prepared for this
// perceptual mode, or prepared for another one (which must not be used).
TEST(KernelEquality, EmbedSuperpixelAndRuns) {
  std::mt19937 rng(2024);
  const int32_t modes[] = {0, 1, 2, 2, 3, 3, 3, 7, -1};
  for (int iter = 0; iter < 2000; ++iter) {
    const bool large = iter % 10 == 0;
    const int32_t sp_w = 1 + rng() % (large ? 64 : 17), sp_h = 1 + rng() % (large ? 70 : 17);
    const int32_t border_w = iter % 97 ? static_cast<int32_t>(rng() % 5) - 1 : INT32_MAX;
    const int32_t border_h = rng() % 2 ? border_w : static_cast<int32_t>(rng() % 5) - 1;
    const int32_t pm = modes[rng() % 9], count = rng() % (large ? 6 : 40);
    const int32_t first_x = rng() % 20, y = rng() % 5;
    const int32_t frame_w = first_x + count * sp_w + rng() % 9 + 1, frame_h = y + sp_h + rng() % 3;
    const int32_t stride = frame_w + rng() % 5;
    const Bytes frame = picture(static_cast<size_t>(stride) * frame_h, rng);
    const Bytes texture = random_texture(frame_w, frame_h, rng);
    const uint8_t* tex = rng() % 5 ? texture.data() : nullptr;

    const int bw = border_or_default(border_w, sp_w), bh = border_or_default(border_h, sp_h);
    std::vector<std::vector<int8_t>> patterns;
    std::vector<EmbedPattern> described(4);
    for (int k = 0; k < 4; ++k) {
      patterns.push_back(make_pattern(sp_w, sp_h, bw, bh, rng));
      describe_pattern(patterns[k].data(), sp_w, sp_h, &described[k]);
    }
    // Picks name one of the four patterns, or none (-1, or past the end).
    std::vector<EmbedPick> picks(count);
    for (auto& pick : picks) {
      pick.pattern = rng() % 6 ? static_cast<int32_t>(rng() % 4) : (rng() % 2 ? -1 : 4);
      pick.value = rng() % 5 ? static_cast<int32_t>(rng() % 601) - 300 : 0;
    }
    const FrameGeometry g{frame_w, frame_h, stride, sp_w, sp_h, border_w, border_h};
    const auto one_by_one = [&](EmbedSuperpixelFn fn, Bytes& plane) {
      std::vector<int32_t> sums;
      for (int32_t i = 0; i < count; ++i) {
        if (picks[i].pattern < 0 || picks[i].pattern >= 4) continue;
        sums.push_back(fn(plane.data() + kGuard, &g, first_x + i * sp_w, y, 1, picks[i].value,
                          described[picks[i].pattern].pattern, tex, pm));
      }
      return sums;
    };
    Bytes want = frame;
    const std::vector<int32_t> want_sums = one_by_one(embed_superpixel, want);
    std::vector<uint8_t> scratch(static_cast<size_t>(embed_band_scratch_bytes(sp_w, sp_h, count)));
    for (const KernelTable* t : tables()) {
      SCOPED_TRACE(testing::Message() << t->name << " iter " << iter << " sp " << sp_w << "x" << sp_h
                                      << " borders " << border_w << "," << border_h << " pm " << pm);
      Bytes got = frame;
      ASSERT_EQ(want_sums, one_by_one(t->embed_superpixel, got));
      ASSERT_EQ(want, got);
      Bytes prepared[2];
      for (int k = 0; k < 2; ++k) {
        const int32_t mode = k == 0 ? pm : (pm == 0 ? 1 : 0);
        const int64_t bytes = t->embed_prepare(described.data(), 4, sp_w, sp_h, mode, nullptr);
        if (bytes <= 0) continue;
        prepared[k].resize(static_cast<size_t>(bytes));
        ASSERT_EQ(bytes, t->embed_prepare(described.data(), 4, sp_w, sp_h, mode, prepared[k].data()));
      }
      for (int variant = 0; variant < 4; ++variant) {
        got = frame;
        const Bytes& prep = prepared[variant == 3 ? 1 : 0];
        const EmbedBand band{got.data() + kGuard, &g, y, first_x, count, picks.data(), described.data(), 4,
                             tex, pm, variant == 1 ? nullptr : scratch.data(),
                             variant == 2 || prep.empty() ? nullptr : prep.data()};
        t->embed_band(&band);
        ASSERT_EQ(want, got) << "run, variant " << variant << ", count " << count;
      }
    }
  }
}

// Repeated (deep-fake) embedding of one superpixel: each table's result,
// plane and sum, against the plain passes, with magnitudes that pass 127 and
// 255 (a low byte of 0 ends the changes), targets met early or never, and
// every mode, border analysis included.
TEST(KernelEquality, EmbedSuperpixelRepeated) {
  std::mt19937 rng(1818);
  const int32_t modes[] = {0, 1, 2, 3, 3, 3, 7};
  for (int iter = 0; iter < 1500; ++iter) {
    const bool large = iter % 10 == 0;
    const int32_t sp_w = 1 + rng() % (large ? 64 : 17), sp_h = 1 + rng() % (large ? 70 : 17);
    const int32_t border = static_cast<int32_t>(rng() % 5) - 1;
    const int32_t pm = modes[rng() % 7];
    const int32_t x = rng() % 9, y = rng() % 5;
    const int32_t frame_w = x + sp_w + rng() % 9, frame_h = y + sp_h + rng() % 3;
    const int32_t stride = frame_w + rng() % 5;
    const Bytes frame = picture(static_cast<size_t>(stride) * frame_h, rng);
    const Bytes texture = random_texture(frame_w, frame_h, rng);
    const uint8_t* tex = rng() % 5 ? texture.data() : nullptr;
    const std::vector<int8_t> pattern = make_pattern(sp_w, sp_h, border_or_default(border, sp_w),
                                                     border_or_default(border, sp_h), rng);
    const int32_t strength = rng() % 4 ? 1 + static_cast<int32_t>(rng() % 12) : 1 + static_cast<int32_t>(rng() % 300);
    const int32_t value = static_cast<int32_t>(rng() % 2 ? rng() % 24 : rng() % 600) - (rng() % 2 ? 300 : 12);
    const int64_t target = rng() % 3 ? static_cast<int64_t>(rng() % 4000) : INT64_MAX;
    const FrameGeometry g{frame_w, frame_h, stride, sp_w, sp_h, border, border};
    std::vector<int8_t> scratch(static_cast<size_t>(sp_w) * sp_h);
    Bytes want = frame;
    const int32_t want_sum = embed_superpixel_repeat(want.data() + kGuard, &g, x, y, value, pattern.data(),
                                                     tex, pm, strength, target, scratch.data());
    for (const KernelTable* t : tables()) {
      Bytes got = frame;
      const int32_t sum = t->embed_repeat(got.data() + kGuard, &g, x, y, value, pattern.data(), tex, pm,
                                          strength, target, scratch.data());
      ASSERT_EQ(want_sum, sum) << t->name << " iter " << iter;
      ASSERT_EQ(want, got) << t->name << " iter " << iter << " sp " << sp_w << "x" << sp_h << " pm " << pm
                           << " value " << value << " strength " << strength;
    }
  }
}

// Runs of repeated (deep-fake) embeddings on one superpixel row: each table's
// run kernel against one plain repeated embedding per superpixel, planes and
// sums, with superpixels left alone, runs that end at the frame's right or
// bottom edge, every mode, magnitudes that pass 127 and 255, targets met at
// once, early or never, and runs cut in two.
TEST(KernelEquality, EmbedRepeatRuns) {
  std::mt19937 rng(4242);
  const int32_t modes[] = {0, 1, 2, 3, 3, 3, 7};
  for (int iter = 0; iter < 800; ++iter) {
    const bool large = iter % 10 == 0;
    const int32_t sp_w = 1 + rng() % (large ? 40 : 17), sp_h = 1 + rng() % (large ? 70 : 17);
    const int32_t border_w = static_cast<int32_t>(rng() % 5) - 1;
    const int32_t border_h = rng() % 2 ? border_w : static_cast<int32_t>(rng() % 5) - 1;
    const int32_t pm = modes[rng() % 7], count = rng() % (large ? 6 : 40);
    const int32_t first_x = rng() % 20, y = rng() % 5;
    const int32_t frame_w = first_x + count * sp_w + (rng() % 3 ? rng() % 9 : 0) + (count == 0);
    const int32_t frame_h = y + sp_h + (rng() % 3 ? rng() % 3 : 0);
    const int32_t stride = frame_w + rng() % 5;
    const Bytes frame = picture(static_cast<size_t>(stride) * frame_h, rng);
    const Bytes texture = random_texture(frame_w, frame_h, rng);
    const uint8_t* tex = rng() % 5 ? texture.data() : nullptr;
    std::vector<std::vector<int8_t>> patterns;
    for (int k = 0; k < 4; ++k) {
      patterns.push_back(make_pattern(sp_w, sp_h, border_or_default(border_w, sp_w),
                                      border_or_default(border_h, sp_h), rng));
    }
    const int32_t strength = rng() % 4 ? 1 + static_cast<int32_t>(rng() % 6) : 1 + static_cast<int32_t>(rng() % 300);
    std::vector<RepeatItem> items(count);
    for (auto& item : items) {
      item.pattern = rng() % 6 ? patterns[rng() % 4].data() : nullptr;
      item.value = static_cast<int32_t>(rng() % 2 ? rng() % 24 : rng() % 600) - (rng() % 2 ? 300 : 12);
      const int kind = rng() % 4;
      item.target = kind == 0 ? 0 : kind == 1 ? INT64_MAX : static_cast<int64_t>(rng() % 400);
    }
    const FrameGeometry g{frame_w, frame_h, stride, sp_w, sp_h, border_w, border_h};
    Bytes want = frame;
    std::vector<int32_t> want_sums(count + 2, -7);
    std::vector<int8_t> pass(static_cast<size_t>(sp_w) * sp_h);
    for (int32_t i = 0; i < count; ++i) {
      if (items[i].pattern == nullptr) {
        want_sums[i + 1] = 0;
        continue;
      }
      want_sums[i + 1] = embed_superpixel_repeat(want.data() + kGuard, &g, first_x + i * sp_w, y, items[i].value,
                                                 items[i].pattern, tex, pm, strength, items[i].target, pass.data());
    }
    const int64_t scratch_bytes = embed_repeat_run_scratch_bytes(sp_w, sp_h, count);
    ASSERT_GE(scratch_bytes, static_cast<int64_t>(sp_w) * sp_h);
    for (const KernelTable* t : tables()) {
      SCOPED_TRACE(testing::Message() << t->name << " iter " << iter << " sp " << sp_w << "x" << sp_h
                                      << " borders " << border_w << "," << border_h << " pm " << pm
                                      << " count " << count << " strength " << strength);
      for (const bool with_sums : {true, false}) {
        Bytes got = frame;
        std::vector<int32_t> sums(count + 2, -7);
        std::vector<uint8_t> scratch(static_cast<size_t>(scratch_bytes));
        const EmbedRepeatRun run{got.data() + kGuard, &g, y, first_x, count, items.data(), tex, pm, strength,
                                 with_sums ? sums.data() + 1 : nullptr, scratch.data()};
        t->embed_repeat_run(&run);
        ASSERT_EQ(want, got);
        if (with_sums) {
          ASSERT_EQ(want_sums, sums);
        }
      }
      // Worker threads split a superpixel row anywhere: the run cut in two,
      // right part first, gives the same plane, so neither part reads or
      // writes a pixel of the other.
      const int32_t cut = count == 0 ? 0 : static_cast<int32_t>(rng() % (count + 1));
      Bytes got = frame;
      std::vector<int32_t> sums(count + 2, -7);
      std::vector<uint8_t> scratch(static_cast<size_t>(scratch_bytes));
      const EmbedRepeatRun right{got.data() + kGuard, &g, y, first_x + cut * sp_w, count - cut, items.data() + cut,
                                 tex, pm, strength, sums.data() + 1 + cut, scratch.data()};
      const EmbedRepeatRun left{got.data() + kGuard, &g, y, first_x, cut, items.data(), tex, pm, strength,
                                sums.data() + 1, scratch.data()};
      t->embed_repeat_run(&right);
      t->embed_repeat_run(&left);
      ASSERT_EQ(want, got) << "cut at " << cut;
      ASSERT_EQ(want_sums, sums) << "cut at " << cut;
    }
  }
}

// Every narrow superpixel shape (1..8 wide, 16..64 pixels, where the vector
// kernels build a whole pattern's mask at once) in long runs that end at the
// last byte of the plane and of the texture map, each with its measures
// before embedding as targets, as the deep-fake driver gives them; and the
// measurement grid of the same band with an odd superpixel count.
TEST(KernelEquality, NarrowRepeatRunsAtThePlaneEnd) {
  std::mt19937 rng(7177);
  for (int32_t sp_w = 1; sp_w <= 8; ++sp_w) {
    for (const int32_t area : {16, 31, 32, 33, 49, 64}) {
      const int32_t sp_h = (area + sp_w - 1) / sp_w;
      if (sp_w * sp_h > 64) continue;
      for (const int32_t pm : {0, 1, 3}) {
        const int32_t border = static_cast<int32_t>(rng() % 5) - 1;
        const int32_t count = 37, first_x = static_cast<int32_t>(rng() % 3) * sp_w;
        const int32_t frame_w = first_x + count * sp_w, frame_h = sp_h;
        const Bytes frame = picture(static_cast<size_t>(frame_w) * frame_h, rng);
        const Bytes texture = random_texture(frame_w, frame_h, rng);
        std::vector<std::vector<int8_t>> patterns;
        for (int k = 0; k < 3; ++k) {
          patterns.push_back(make_pattern(sp_w, sp_h, border_or_default(border, sp_w),
                                          border_or_default(border, sp_h), rng));
        }
        const FrameGeometry g{frame_w, frame_h, frame_w, sp_w, sp_h, border, border};
        std::vector<int32_t> targets(count);
        signal_measure_grid(frame.data() + kGuard + first_x, count, 1, targets.data(), frame_w, sp_w, sp_h, border,
                            border);
        const int32_t strength = 1 + static_cast<int32_t>(rng() % 6);
        std::vector<RepeatItem> items(count);
        for (int32_t i = 0; i < count; ++i) {
          items[i] = RepeatItem{rng() % 8 ? patterns[rng() % 3].data() : nullptr,
                                static_cast<int32_t>(rng() % 2) - strength,
                                targets[i] < 0 ? -int64_t{targets[i]} : int64_t{targets[i]}};
        }
        Bytes want = frame;
        std::vector<int32_t> want_sums(count, 0);
        std::vector<int8_t> pass(static_cast<size_t>(sp_w) * sp_h);
        for (int32_t i = 0; i < count; ++i) {
          if (items[i].pattern == nullptr) continue;
          want_sums[i] = embed_superpixel_repeat(want.data() + kGuard, &g, first_x + i * sp_w, 0, items[i].value,
                                                 items[i].pattern, texture.data(), pm, strength, items[i].target,
                                                 pass.data());
        }
        std::vector<uint8_t> scratch(static_cast<size_t>(embed_repeat_run_scratch_bytes(sp_w, sp_h, count)));
        for (const KernelTable* t : tables()) {
          SCOPED_TRACE(testing::Message() << t->name << " sp " << sp_w << "x" << sp_h << " border " << border
                                          << " pm " << pm);
          std::vector<int32_t> measured(count + 2, -7);
          t->measure_grid(frame.data() + kGuard + first_x, count, 1, measured.data() + 1, frame_w, sp_w, sp_h, border,
                          border);
          ASSERT_EQ(targets, std::vector<int32_t>(measured.begin() + 1, measured.end() - 1));
          ASSERT_EQ(-7, measured.back());
          Bytes got = frame;
          std::vector<int32_t> sums(count, -7);
          const EmbedRepeatRun run{got.data() + kGuard, &g, 0, first_x, count, items.data(), texture.data(), pm,
                                   strength, sums.data(), scratch.data()};
          t->embed_repeat_run(&run);
          ASSERT_EQ(want, got);
          ASSERT_EQ(want_sums, sums);
        }
      }
    }
  }
}

// One map value from box sums taken pixel by pixel.
uint8_t texture_at(const uint8_t* src, int w, int h, int stride, int r, int x, int y) {
  const int s = std::max(x - r, 0), e = std::min(x + r, w - 1);
  const int y0 = std::max(y - r, 0), y1 = std::min(y + r + 1, h);
  uint32_t across = 0, down = 0;
  for (int c = s; c <= e; ++c) across += src[y * stride + c];
  for (int row = y0; row < y1; ++row) down += src[row * stride + x];
  const uint32_t nh = e - s + 1, nv = y1 - y0;
  const int p = src[y * stride + x];
  const int dh = std::abs(static_cast<int>((across + nh / 2) / nh) - p);
  const int dv = std::abs(static_cast<int>((down + nv / 2) / nv) - p);
  return static_cast<uint8_t>(std::min(dh + dv + 7 * std::min(dh, dv), 50));
}

// The integral-image kernel and every table's kernel, over one to five row
// ranges, against box sums. Rows marked as not needed may be left as they are.
TEST(KernelEquality, TextureRows) {
  std::mt19937 rng(77);
  for (int iter = 0; iter < 300; ++iter) {
    const int w = iter == 0 ? 1918 : 1 + rng() % (iter % 3 ? 60 : 300);
    const int h = iter == 0 ? 97 : 1 + rng() % 50, stride = w + rng() % 40;
    const int r = iter == 0 ? 10 : iter % 10 == 0 ? 60 + rng() % 10 : 1 + rng() % 24;
    const Bytes plane = picture(static_cast<size_t>(stride) * h, rng);
    const uint8_t* src = plane.data() + kGuard;
    Bytes needed(h, 1), want(static_cast<size_t>(w) * h + 2 * kGuard, 0xEE);
    if (iter % 4 == 1) {
      for (auto& n : needed) n = rng() % 3 != 0;
    }
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) want[kGuard + y * w + x] = texture_at(src, w, h, stride, r, x, y);
    }
    std::vector<uint32_t> integral(static_cast<size_t>(w + 1) * (h + 1));
    texture_integral(src, w, h, stride, integral.data());
    const int parts = 1 + rng() % 5;
    std::vector<TextureRowsFn> fns{texture_rows};
    for (const KernelTable* t : tables()) fns.push_back(t->texture_rows);
    for (size_t k = 0; k < fns.size(); ++k) {
      Bytes got(want.size(), 0xEE);
      for (int part = 0; part < parts; ++part) {
        TextureRows rows{src, got.data() + kGuard, integral.data(), w + 1, w, h, stride, r,
                         h * part / parts, h * (part + 1) / parts};
        if (iter % 4 == 1) rows.needed = needed.data();
        fns[k](&rows);
      }
      for (int y = 0; y < h; ++y) {
        if (!needed[y]) std::copy_n(&want[kGuard + y * w], w, &got[kGuard + y * w]);
      }
      ASSERT_EQ(want, got) << "kernel " << k << " " << w << "x" << h << " stride " << stride
                           << " r " << r << " parts " << parts;
    }
  }
}

// A copy of a plane with an unreadable page right after its last byte or
// right before its first one, so that a kernel reading outside the plane
// stops the test instead of passing by luck.
class FencedPlane {
 public:
  FencedPlane(const uint8_t* bytes, size_t n, bool fence_end) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t body = (n + page - 1) / page * page;
    size_ = body + 2 * page;
    void* m = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) return;
    base_ = static_cast<uint8_t*>(m);
    mprotect(base_, page, PROT_NONE);
    mprotect(base_ + page + body, page, PROT_NONE);
    data_ = fence_end ? base_ + page + body - n : base_ + page;
    std::copy_n(bytes, n, data_);
  }
  ~FencedPlane() {
    if (base_ != nullptr) munmap(base_, size_);
  }
  FencedPlane(const FencedPlane&) = delete;
  FencedPlane& operator=(const FencedPlane&) = delete;
  const uint8_t* data() const { return data_; }

 private:
  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// The embedder's radius, which the vector kernel runs on a path of its own
// from 64 columns on: widths on both sides of its 32-column groups (a last
// group cut short, one or two groups read from a padded copy of the row's
// end), heights below and above the window, rows skipped in every pattern
// (none needed, one, runs of the superpixel layout, random) and ranges cut
// anywhere.
TEST(KernelEquality, TextureRowsRadius10) {
  const std::vector<int> widths{64, 65, 77, 78, 95, 96, 97, 109, 110, 111, 127, 128, 129, 141, 142, 1918, 1920};
  std::mt19937 rng(1010);
  for (int iter = 0; iter < 400; ++iter) {
    const int w = iter < 2 * static_cast<int>(widths.size()) ? widths[iter / 2] : 64 + rng() % 250;
    const int h = 2 + rng() % (iter % 5 ? 45 : 90), stride = w + (iter % 3 ? 0 : rng() % 40);
    const size_t size = static_cast<size_t>(stride) * (h - 1) + w;
    const Bytes plane = picture(size, rng);
    const FencedPlane fenced(plane.data() + kGuard, size, iter % 2 == 0);
    ASSERT_NE(fenced.data(), nullptr);
    const uint8_t* src = fenced.data();
    Bytes needed(h, 1);
    const int pattern = iter % 5;
    for (int y = 0; y < h; ++y) {
      needed[y] = pattern == 1   ? rng() % 3 != 0
                  : pattern == 2 ? y % 7 != 0 && y % 7 != 6
                  : pattern == 3 ? y == static_cast<int>(rng() % h)
                  : pattern == 4 ? 0
                                 : 1;
    }
    Bytes want(static_cast<size_t>(w) * h + 2 * kGuard, 0xEE);
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        if (needed[y]) want[kGuard + y * w + x] = texture_at(src, w, h, stride, 10, x, y);
      }
    }
    std::vector<int> cuts{0, h};
    for (int k = rng() % 4; k > 0; --k) cuts.push_back(rng() % (h + 1));
    std::sort(cuts.begin(), cuts.end());
    for (const KernelTable* t : tables()) {
      Bytes got(want.size(), 0xEE);
      for (size_t part = 0; part + 1 < cuts.size(); ++part) {
        TextureRows rows{src, got.data() + kGuard, nullptr, 0, w, h, stride, 10, cuts[part], cuts[part + 1]};
        if (pattern != 0) rows.needed = needed.data();
        t->texture_rows(&rows);
      }
      for (int y = 0; y < h; ++y) {
        if (!needed[y]) std::fill_n(&got[kGuard + y * w], w, 0xEE);
      }
      ASSERT_EQ(want, got) << t->name << " " << w << "x" << h << " stride " << stride << " pattern "
                           << pattern << " parts " << cuts.size() - 1;
    }
  }
}

}  // namespace
}  // namespace lumamark
