// The generated payload map (and, in FEC mode 0, the index table).
#pragma once

#include <cstdint>

namespace lumamark {

struct MarkLayout;

// Builds the map (cells bytes of the layout) and, when indexes is not null,
// the index table. coded holds the layout's length of coded symbols; in FEC
// mode 2 the Reed-Muller encoder first fills it from wm_id and bit_count
// (on failure "Failed to generate payload\n" goes to standard error and
// nothing is built). signs is work space for the sign pattern, cells bytes.
void payload_map_generate(const MarkLayout& layout, int32_t strength, int32_t fec_mode,
                          const char* wm_id, int32_t bit_count, char* coded, int8_t* signs,
                          uint8_t* map, uint8_t* indexes);

// Signed magnitudes in [-strength, strength] without 0, one byte per cell.
void sign_pattern_generate(int8_t* out, int32_t strength, int32_t cols, int32_t rows, uint32_t s0,
                           uint32_t s1);

// rows rows of L bytes, each j mod 256 shuffled by index_row_shuffle with seed
// (33 + 19 * row, w).
void index_table_build(uint8_t* table, int32_t rows, int32_t L, uint32_t w);

// Forward shuffle fed with generator steps whose eight bytes are all nonzero.
void index_row_shuffle(uint8_t* row, int32_t n, uint32_t s0, uint32_t s1);

}  // namespace lumamark
