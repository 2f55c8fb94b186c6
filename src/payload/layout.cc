// The mark's layout, computed once from the settings.
#include "payload/layout.h"

#include <cstring>

#include "kernels/intmath.h"
#include "payload/payload_map.h"
#include "payload/selection.h"
#include "payload/wm_id.h"

namespace lumamark {

MarkLayout mark_grid(int32_t width, int32_t height, int32_t sp_size) {
  MarkLayout l{0, 0, 0, 0, 0, 0, 0};
  if (sp_size < 1) return l;
  l.cols = width / sp_size;
  l.rows = height / sp_size;
  l.cells = wrap_mul(l.cols, l.rows);
  return l;
}

void mark_set_length(MarkLayout* layout, int32_t length) {
  layout->length = length;
  // An empty coded string repeats zero times instead of dividing by zero; a
  // grid whose count wrapped below zero holds no repetition.
  layout->reps = length >= 1 ? imax(layout->cells, 0) / length : 0;
}

void mark_set_urn(MarkLayout* layout, const char* urn) {
  layout->urn_seed = urn_hash(urn);
  const bool neutral = urn != nullptr && std::strcmp(urn, kNeutralUrn) == 0;
  layout->sign_seed = neutral ? 0u : layout->urn_seed;
}

int32_t mark_coded_length(int32_t bit_count, int32_t fec_mode, int32_t cells) {
  if (fec_mode != 0) return cells;
  return wrap_add(bit_count, wrap_add(bit_count, 7) / 8);
}

int32_t mark_bits_of_length(int32_t length) { return length - (length + 8) / 9; }

MarkLayout mark_layout(int32_t width, int32_t height, int32_t sp_size, int32_t bit_count,
                       int32_t fec_mode, const char* urn) {
  MarkLayout l = mark_grid(width, height, sp_size);
  mark_set_length(&l, mark_coded_length(bit_count, fec_mode, l.cells));
  mark_set_urn(&l, urn);
  return l;
}

int64_t mark_index_table_bytes(int32_t length) { return static_cast<int64_t>(length) * kIndexRows; }

void mark_index_table(const MarkLayout& layout, uint8_t* table) {
  index_table_build(table, kIndexRows, layout.length, kIndexSeedWord);
}

void mark_sign_pattern(const MarkLayout& layout, int32_t strength, int8_t* out) {
  sign_pattern_generate(out, strength, layout.cols, layout.rows, kSignSeedWord, layout.sign_seed);
}

void mark_selection(const MarkLayout& layout, const uint8_t* indexes, int32_t density,
                    int32_t seed, uint8_t* mask, uint8_t* selection) {
  const int32_t length = layout.length >= 1 ? layout.length : 0;
  selection_mask(mask, layout.reps, length, density, seed);
  selection_spread(selection, mask, indexes, layout.cells, length, layout.reps);
}

}  // namespace lumamark
