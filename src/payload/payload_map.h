// The generated payload map (and, in FEC mode 0, the index table).
#pragma once

#include <cstdint>

namespace lumamark {

struct WatermarkFilter;

// Builds the map (cols x rows bytes) and, when indexes is not null, the 16-row
// index table from the filter's settings and the URN. On a Reed-Muller failure
// prints "Failed to generate payload\n" to standard error and builds nothing.
void wm_generate_payload_map(WatermarkFilter* filter, uint8_t* map, const char* urn,
                             uint8_t* indexes);

// Signed magnitudes in [-strength, strength] without 0, one byte per cell.
void sign_pattern_generate(int8_t* out, int32_t strength, int32_t cols, int32_t rows, uint32_t s0,
                           uint32_t s1);

// rows rows of L bytes, each j mod 256 shuffled by index_row_shuffle with seed
// (33 + 19 * row, w).
void index_table_build(uint8_t* table, int32_t rows, int32_t L, uint32_t w);

// Forward shuffle fed with generator steps whose eight bytes are all nonzero.
void index_row_shuffle(uint8_t* row, int32_t n, uint32_t s0, uint32_t s1);

}  // namespace lumamark
