// One frame through the filter: seed, selection spread over the repetitions
// of the coded payload, optional texture map, embedding, log.
#include <cstdlib>
#include <cstring>

#include "filter/embed_driver.h"
#include "filter/embed_log.h"
#include "filter/filter.h"
#include "filter/seed.h"
#include "filter/selection.h"
#include "filter/texture_driver.h"
#include "kernels/intmath.h"

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

// The texture map of the untouched frame, or null when it cannot be built.
const uint8_t* build_texture(WatermarkFilter* f, const uint8_t* luma, int32_t stride) {
  if (f->width < 1 || f->height < 1) return nullptr;
  const size_t w = static_cast<size_t>(f->width);
  const size_t h = static_cast<size_t>(f->height);
  const bool have_map = grow_buffer(&f->texture_map, &f->texture_map_cap, w * h);
  const bool have_integral =
      grow_buffer(&f->integral, &f->integral_cap, (w + 1) * (h + 1) * sizeof(uint32_t));
  if (!have_map || !have_integral) return nullptr;
  if (texture_map(luma, f->width, f->height, stride, kTextureRadius, f->texture_map, f->integral,
                  f->threads) != 0) {
    return nullptr;
  }
  return f->texture_map;
}

// Spreads the mask over the repetitions of the coded payload: repetition j,
// symbol k goes to superpixel j * L + k. With an index table (parity mode)
// symbol k of repetition j takes the mask byte of the coded symbol that the
// table's row j mod 16 names; otherwise every repetition copies the mask's
// first L bytes. Superpixels past the last whole repetition stay unselected.
void spread_mask(uint8_t* selection, const uint8_t* mask, const uint8_t* indexes, int32_t total,
                 int32_t length, int32_t reps) {
  const int64_t used = static_cast<int64_t>(length) * reps;
  for (int32_t j = 0; j < reps; ++j) {
    uint8_t* dst = selection + static_cast<int64_t>(j) * length;
    if (indexes == nullptr) {
      std::memcpy(dst, mask, static_cast<size_t>(length));
      continue;
    }
    const uint8_t* row = indexes + static_cast<int64_t>(j & 15) * length;
    for (int32_t k = 0; k < length; ++k) {
      const int64_t at = static_cast<int64_t>(row[k]) * reps + j;
      // A table entry naming no symbol (only possible with a foreign table)
      // reads as unselected.
      dst[k] = at < total ? mask[at] : 0;
    }
  }
  if (total > used) {
    std::memset(selection + used, 0, static_cast<size_t>(total - used));
  }
}

}  // namespace

int32_t wm_filter_apply(WatermarkFilter* f, uint8_t* luma, int32_t width, int32_t height,
                        int32_t stride, int32_t seed) {
  if (f->sp_size < 1) return -1;
  const int32_t cols = f->width / f->sp_size;
  const int32_t rows = f->height / f->sp_size;
  if (cols < 1 || rows < 1) return -1;
  const int32_t total = wrap_mul(cols, rows);
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

  int32_t s = seed & 31;
  if (seed < 0) {
    s = image_seed(luma, width, height, stride, f->hash_cells_x, f->hash_cells_y, cols, rows);
  }

  EmbedLog* log = nullptr;
  if (f->log_path != nullptr) {
    log = embed_log_open(f->log_path, f->sp_size, f->sp_size, f->sp_border, f->sp_border, s,
                         stride);
  }

  const int32_t length = f->encoded_bit_count;
  // Whole repetitions of the coded payload that fit in the grid (none for a
  // coded length below 1).
  const int32_t reps = length >= 1 ? total / length : 0;
  selection_mask(mask, reps, length >= 1 ? length : 0, f->sp_density, s);
  spread_mask(selection, mask, f->indexes, total, length >= 1 ? length : 0, reps);
  std::free(mask);

  const uint8_t* texture = f->pm_mode == 3 ? build_texture(f, luma, stride) : nullptr;

  embed_frame(luma, f->width, f->height, stride, f->p_density, f->strength, f->deep_fake, f->map,
              selection, s, f->sp_size, f->sp_size, f->sp_border, f->sp_border, f->pm_mode,
              texture, log, f->threads);

  std::free(selection);
  embed_log_finish(log);
  return 0;
}

}  // namespace lumamark
