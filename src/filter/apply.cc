// One frame through the filter: seed, selection spread over the repetitions
// of the coded payload, optional texture map, embedding, log.
//
// The two reads of the untouched frame, the image-hash cell sums and the
// texture map, share one set of worker threads; each worker takes a share of
// the cell rows and a share of the map rows. Neither depends on the other,
// and neither has any effect outside its own buffer, so doing them together
// before the seed is known gives the same frame as doing them in turn.
// With a single worker the map is instead computed a stretch of rows ahead
// of the embedding, and read back while still in the cache. A seed summed
// as the frame arrived (wm_filter_apply_scanned) leaves no cell sums to do.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "common/parallel.h"
#include "filter/embed_driver.h"
#include "filter/embed_log.h"
#include "filter/filter.h"
#include "filter/seed.h"
#include "kernels/dispatch.h"
#include "kernels/pattern.h"
#include "kernels/texture.h"
#include "payload/layout.h"

namespace lumamark {

namespace {

constexpr int32_t kTextureRadius = 10;

template <typename T>
bool grow_buffer(T** buf, size_t* cap, size_t needed) {
  void* p = *buf;
  const bool ok = wm_buffer_grow(&p, cap, needed);
  *buf = static_cast<T*>(p);
  return ok;
}

// Room for the texture map of the untouched frame; false when it cannot be
// built (the frame is then embedded without it).
bool prepare_texture(WatermarkFilter* f, const uint8_t* luma, int32_t stride) {
  if (f->width < 1 || f->height < 1) return false;
  const size_t w = static_cast<size_t>(f->width);
  const size_t h = static_cast<size_t>(f->height);
  if (!grow_buffer(&f->texture_map, &f->texture_map_cap, w * h)) return false;
  // The map builder refuses these (the radius is fixed and positive).
  return luma != nullptr && f->width <= stride;
}

// One worker's share of the reads of the untouched frame.
struct FrameScan {
  TextureRows rows;      // texture map rows, when texture is set
  bool texture;          // whether to compute map rows
  const uint8_t* luma;   // luma plane for the cell sums
  int32_t stride;        // luma row stride
  SeedGrid grid;         // image-hash grid
  int32_t* values;       // cell values of the whole grid, or null: no cell sums
  int32_t cell_first;    // first cell row of this share
  int32_t cell_end;      // one past the last cell row of this share
};

void scan_entry(void* arg) {
  const FrameScan* s = static_cast<const FrameScan*>(arg);
  const KernelTable& k = kernels();
  if (s->values != nullptr && s->cell_first < s->cell_end) {
    k.cell_sums(s->luma, s->stride, s->grid.cw, s->grid.ch, s->grid.gx, s->cell_first, s->cell_end,
                s->values);
  }
  if (s->texture) k.texture_rows(&s->rows);
}

// The map rows that embedding can read: the rows inside the superpixels'
// borders. Patterns are zero on the borders, and a pixel with a zero
// amplitude never reads the map, so the other rows need not be computed.
// Null when the mask cannot be had (then every row is computed).
uint8_t* texture_rows_needed(const WatermarkFilter* f) {
  uint8_t* needed = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(f->height)));
  if (needed == nullptr) return nullptr;
  const int32_t sp = f->sp_size;
  const int64_t grid_rows = static_cast<int64_t>(f->height / sp) * sp;
  const int32_t border = border_or_default(f->sp_border, sp);
  for (int32_t y = 0; y < f->height; ++y) {
    const int32_t r = y % sp;
    needed[y] = y < grid_rows && r >= border && r < sp - border ? 1 : 0;
  }
  return needed;
}

// Whether two hash grids sum the same cells.
bool same_grid(const SeedGrid& a, const SeedGrid& b) {
  return a.gx == b.gx && a.gy == b.gy && a.cw == b.cw && a.ch == b.ch && a.cells == b.cells;
}

// Cell values for the image-hash seed (into values, when not null) and the
// texture map (into the filter's map, when texture is set), split over the
// texture map's worker count.
void scan_frame(const WatermarkFilter* f, const uint8_t* luma, int32_t stride, bool texture,
                const SeedGrid& grid, int32_t* values) {
  const int32_t n = texture_worker_count(f->threads);
  uint8_t* needed = texture ? texture_rows_needed(f) : nullptr;
  run_split<FrameScan>(scan_entry, n, f->height, [&](FrameScan* s, int32_t first, int32_t end, int32_t k) {
    s->texture = texture;
    s->rows = TextureRows{luma, f->texture_map, nullptr, 0, f->width, f->height, stride,
                          kTextureRadius, first, end, needed};
    s->luma = luma;
    s->stride = stride;
    s->grid = grid;
    s->values = values;
    s->cell_first = 0;
    s->cell_end = 0;
    if (values != nullptr) split_range(grid.gy, n, k, &s->cell_first, &s->cell_end);
  });
  std::free(needed);
}

}  // namespace

bool wm_filter_seed_scan_init(const WatermarkFilter* f, int32_t width, int32_t height, SeedScan* s) {
  *s = SeedScan{};
  if (f->sp_size < 1) return false;
  const MarkLayout layout = mark_grid(f->width, f->height, f->sp_size);
  if (layout.cols < 1 || layout.rows < 1) return false;
  return seed_scan_init(
      s, seed_grid(width, height, f->hash_cells_x, f->hash_cells_y, layout.cols, layout.rows));
}

int32_t wm_filter_apply(WatermarkFilter* f, uint8_t* luma, int32_t width, int32_t height,
                        int32_t stride, int32_t seed) {
  return wm_filter_apply_scanned(f, luma, width, height, stride, seed, nullptr);
}

int32_t wm_filter_apply_scanned(WatermarkFilter* f, uint8_t* luma, int32_t width, int32_t height,
                                int32_t stride, int32_t seed, const SeedScan* scan) {
  if (f->sp_size < 1) return -1;
  MarkLayout layout = mark_grid(f->width, f->height, f->sp_size);
  const int32_t cols = layout.cols;
  const int32_t rows = layout.rows;
  if (cols < 1 || rows < 1) return -1;
  // A count that wrapped below zero asks for more than can be allocated.
  const int32_t total = layout.cells;
  const size_t total_bytes = static_cast<size_t>(static_cast<int64_t>(total));
  if (!grow_buffer(&f->map, &f->map_cap, total_bytes)) return -1;
  if (!grow_buffer(&f->pattern_values, &f->pattern_values_cap, total_bytes)) return -1;

  uint8_t* selection = static_cast<uint8_t*>(std::malloc(total_bytes));
  // Zero-filled: only the first reps x L bytes are written by the generator.
  uint8_t* mask = static_cast<uint8_t*>(std::calloc(total_bytes, 1));
  if (selection == nullptr || mask == nullptr) {
    std::free(selection);
    std::free(mask);
    return -1;
  }

  // The seed's cell sums and the texture map, both from the untouched frame.
  const bool texture = f->pm_mode == 3 && prepare_texture(f, luma, stride);
  SeedGrid grid{};
  int32_t* values = nullptr;
  bool seed_pending = false;
  bool scanned = false;
  if (seed < 0) {
    grid = seed_grid(width, height, f->hash_cells_x, f->hash_cells_y, cols, rows);
    scanned = scan != nullptr && seed_scan_done(*scan) && same_grid(scan->grid, grid);
    if (!scanned && seed_grid_has_samples(grid)) {
      values = static_cast<int32_t*>(std::malloc(static_cast<size_t>(grid.cells) * sizeof(int32_t)));
      seed_pending = values == nullptr;
    }
  }
  // With one worker the map is computed a stretch at a time as the
  // embedding reaches it (see TextureOnDemand); the cell sums come first.
  const bool on_demand = texture && texture_worker_count(f->threads) == 1 &&
                         embed_worker_count(f->threads) == 1;
  const bool scan_texture = texture && !on_demand;
  if (scan_texture || values != nullptr) scan_frame(f, luma, stride, scan_texture, grid, values);

  int32_t s = seed & 31;
  if (seed < 0) {
    if (scanned) {
      s = seed_scan_seed(*scan);
    } else if (values != nullptr) {
      s = seed_from_cells(grid, values);
    } else if (seed_pending) {
      s = image_seed(luma, width, height, stride, f->hash_cells_x, f->hash_cells_y, cols, rows);
    } else {
      s = 0;  // no cell has a sample
    }
    std::free(values);
  }

  EmbedLog* log = nullptr;
  if (f->log_path != nullptr) {
    log = embed_log_open(f->log_path, f->sp_size, f->sp_size, f->sp_border, f->sp_border, s,
                         stride);
  }

  // Whole repetitions of the coded payload that fit in the grid (none for a
  // coded length below 1), each with its share of the frame's selection.
  mark_set_length(&layout, f->encoded_bit_count);
  mark_selection(layout, f->indexes, f->sp_density, s, mask, selection);
  std::free(mask);

  const FrameGeometry geometry{f->width,   f->height,  stride,     f->sp_size,
                              f->sp_size, f->sp_border, f->sp_border};
  const EmbedSettings settings{f->p_density, f->strength, f->deep_fake, s, f->pm_mode, f->threads};
  uint8_t* needed = on_demand ? texture_rows_needed(f) : nullptr;
  TextureOnDemand lazy{TextureRows{luma, f->texture_map, nullptr, 0, f->width, f->height, stride,
                                   kTextureRadius, 0, 0, needed},
                       0};
  embed_frame(luma, &geometry, &settings, f->map, selection, texture ? f->texture_map : nullptr,
              log, on_demand ? &lazy : nullptr);

  std::free(needed);
  std::free(selection);
  embed_log_finish(log);
  return 0;
}

}  // namespace lumamark
