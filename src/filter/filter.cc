// The watermark filter's life cycle: creation, initialisation, payload, log
// path, thread count and release.
#include "filter/filter.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kernels/intmath.h"
#include "payload/fec.h"
#include "payload/layout.h"
#include "payload/payload_map.h"
#include "payload/wm_id.h"

namespace lumamark {

namespace {

char* copy_text(const char* text) {
  if (text == nullptr) return nullptr;
  const size_t n = std::strlen(text) + 1;
  char* copy = static_cast<char*>(std::malloc(n));
  if (copy != nullptr) std::memcpy(copy, text, n);
  return copy;
}

// Quotient that stays defined for a zero divisor (0) and for INT32_MIN / -1.
int32_t safe_div(int32_t a, int32_t b) {
  if (b == 0) return 0;
  if (b == -1) return wrap_sub(0, a);
  return a / b;
}

// Bytes of one byte per superpixel, for a grid whose count is not negative.
size_t grid_bytes(const MarkLayout& g) { return static_cast<size_t>(g.cells); }

size_t index_table_bytes(int32_t encoded_bit_count) {
  return static_cast<size_t>(mark_index_table_bytes(encoded_bit_count));
}

template <typename T>
bool grow_buffer(T** buf, size_t* cap, size_t needed) {
  void* p = *buf;
  const bool ok = wm_buffer_grow(&p, cap, needed);
  *buf = static_cast<T*>(p);
  return ok;
}

}  // namespace

bool wm_buffer_grow(void** buf, size_t* cap, size_t needed) {
  if (*cap < needed) {
    std::free(*buf);
    *buf = nullptr;
    *cap = 0;
    // Zero-filled, so that a buffer read before it is written is at least
    // deterministic.
    *buf = std::calloc(needed, 1);
    if (*buf != nullptr) *cap = needed;
  }
  return *buf != nullptr;
}

WatermarkFilter* wm_filter_create() {
  return static_cast<WatermarkFilter*>(std::calloc(1, sizeof(WatermarkFilter)));
}

int32_t wm_filter_init(WatermarkFilter* f, int32_t strength, int32_t sp_size, int32_t sp_border,
                       int32_t p_density, int32_t sp_density, int32_t hash_cells_x,
                       int32_t hash_cells_y, int32_t width, int32_t height, const char* wm_id,
                       int32_t bit_count, int32_t deep_fake, int32_t fec_mode, int32_t pm_mode) {
  const int32_t id_check = wm_id_validate(wm_id, bit_count);
  if (id_check != 0) {
    std::printf("WM id validation failed (error code %d)\n", id_check);
    return id_check;
  }
  if ((fec_mode & ~2) != 0) {
    std::printf("Error: FEC mode %d is not supported\n", fec_mode);
    return -1;
  }
  if (static_cast<uint32_t>(pm_mode) > 3u) {
    std::printf("Error: PM mode %d is not supported\n", pm_mode);
    return -7;
  }

  f->strength = strength;
  f->bit_count = bit_count;
  f->fec_bit_count = bit_count;
  f->width = width;
  f->height = height;
  f->sp_size = sp_size;
  f->sp_border = sp_border;
  f->p_density = p_density;
  f->sp_density = sp_density;
  f->hash_cells_x = hash_cells_x;
  f->hash_cells_y = hash_cells_y;
  f->scaled_width = safe_div(width, hash_cells_x);
  f->scaled_height = safe_div(height, hash_cells_y);
  f->deep_fake = deep_fake;
  f->fec_mode = fec_mode;
  f->pm_mode = pm_mode;

  const MarkLayout grid = mark_grid(width, height, sp_size);
  f->encoded_bit_count = mark_coded_length(bit_count, fec_mode, grid.cells);

  std::free(f->wm_id);
  f->wm_id = copy_text(wm_id);
  std::free(f->coded_bits);
  f->coded_bits = fec_encode(f->wm_id, bit_count, f->encoded_bit_count, fec_mode);

  // A grid whose 32-bit count wrapped negative is refused before any
  // allocation is asked for it.
  if (grid.cols < 1 || grid.rows < 1 || grid.cells < 0) return -1;
  if (!grow_buffer(&f->map, &f->map_cap, grid_bytes(grid))) return -1;
  if (!grow_buffer(&f->pattern_values, &f->pattern_values_cap, grid_bytes(grid))) return -1;

  if (fec_mode == 2) {
    // The Reed-Muller mode has no index table.
    std::free(f->indexes);
    f->indexes = nullptr;
    f->indexes_cap = 0;
    return 0;
  }
  if (f->encoded_bit_count < 1) return -1;
  if (!grow_buffer(&f->indexes, &f->indexes_cap, index_table_bytes(f->encoded_bit_count))) {
    return -1;
  }
  return 0;
}

void wm_filter_set_payload(WatermarkFilter* f, const uint8_t* map, const uint8_t* indexes,
                           int32_t encoded_bit_count, int32_t sp_size, int32_t width,
                           int32_t height) {
  f->encoded_bit_count = encoded_bit_count;
  f->sp_size = sp_size;
  f->width = width;
  f->height = height;

  const MarkLayout grid = mark_grid(width, height, sp_size);
  if (grid.cols < 1 || grid.rows < 1 || grid.cells < 0) return;
  if (!grow_buffer(&f->map, &f->map_cap, grid_bytes(grid))) return;
  if (!grow_buffer(&f->pattern_values, &f->pattern_values_cap, grid_bytes(grid))) return;
  if (f->fec_mode != 2) {
    if (encoded_bit_count < 1) return;
    if (!grow_buffer(&f->indexes, &f->indexes_cap, index_table_bytes(encoded_bit_count))) return;
  }
  if (map != nullptr) std::memcpy(f->map, map, grid_bytes(grid));
  if (indexes != nullptr && f->indexes != nullptr) {
    std::memcpy(f->indexes, indexes, index_table_bytes(encoded_bit_count));
  }
}

void wm_generate_payload_map(WatermarkFilter* filter, uint8_t* map, const char* urn,
                             uint8_t* indexes) {
  MarkLayout layout = mark_grid(filter->width, filter->height, filter->sp_size);
  mark_set_length(&layout, filter->encoded_bit_count);
  mark_set_urn(&layout, urn);
  payload_map_generate(layout, filter->strength, filter->fec_mode, filter->wm_id,
                       filter->fec_bit_count, filter->coded_bits, filter->pattern_values, map,
                       indexes);
}

void wm_filter_set_log_path(WatermarkFilter* f, const char* path) {
  std::free(f->log_path);
  f->log_path = copy_text(path);
}

void wm_filter_set_threads(WatermarkFilter* f, int32_t n) { f->threads = n; }

void wm_filter_free(WatermarkFilter* f) {
  std::free(f->wm_id);
  std::free(f->coded_bits);
  std::free(f->pattern_values);
  std::free(f->indexes);
  std::free(f->map);
  std::free(f->texture_map);
  std::free(f->log_path);
  std::free(f);
}

}  // namespace lumamark
