// The layout of the mark: the superpixel grid of a frame, the coded length
// and its repetitions over the grid, the index table of parity mode, the
// seeds taken from the URN, and the per-frame selection spread over the
// repetitions. The embedder's filter, its front end, the payload file and the
// detector all take these from here, so that they cannot drift apart.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lumamark {

// Rows of the index table of FEC mode 0; repetition j uses row j mod 16.
constexpr int32_t kIndexRows = 16;
// Second seed word of the index-table row shuffles (the first is 33 + 19 x row).
constexpr uint32_t kIndexSeedWord = 3;
// First seed word of the sign pattern.
constexpr uint32_t kSignSeedWord = 9;
// The default URN: it keeps the sign pattern on the fixed seed (9, 0).
inline constexpr char kNeutralUrn[] = "00000000000000000000000000000000";

struct MarkLayout {
  int32_t cols;        // superpixel columns = width / sp_size; 0 when sp_size < 1
  int32_t rows;        // superpixel rows = height / sp_size; 0 when sp_size < 1
  int32_t cells;       // cols x rows in wrapping 32-bit arithmetic
  int32_t length;      // coded symbols L of one repetition
  int32_t reps;        // whole repetitions of the coded string in the grid; 0 when L < 1
  uint32_t urn_seed;   // urn_hash of the URN: keys the Reed-Muller shuffle
  uint32_t sign_seed;  // second seed word of the sign pattern: 0 for the neutral URN, else urn_seed
};

// The grid of a width x height frame; no coded string (length and reps 0)
// and no URN (seeds 0).
MarkLayout mark_grid(int32_t width, int32_t height, int32_t sp_size);

// Sets the coded length and the whole repetitions that fit the grid.
void mark_set_length(MarkLayout* layout, int32_t length);

// Sets the seeds of a URN.
void mark_set_urn(MarkLayout* layout, const char* urn);

// Coded length of bit_count payload bits: the whole grid (cells) in FEC mode
// 2; in mode 0 one parity symbol per started group of eight bits, in wrapping
// 32-bit arithmetic.
int32_t mark_coded_length(int32_t bit_count, int32_t fec_mode, int32_t cells);

// Payload bits of a mode-0 coded length (the inverse of mark_coded_length).
int32_t mark_bits_of_length(int32_t length);

// Everything from the settings: mark_grid, mark_set_length of the FEC mode's
// coded length, mark_set_urn.
MarkLayout mark_layout(int32_t width, int32_t height, int32_t sp_size, int32_t bit_count,
                       int32_t fec_mode, const char* urn);

// Bytes of the index table of a coded length (kIndexRows x length).
int64_t mark_index_table_bytes(int32_t length);

// Builds the kIndexRows x length index table.
void mark_index_table(const MarkLayout& layout, uint8_t* table);

// The sign pattern: one signed magnitude in [-strength, strength] without 0
// per superpixel (cells bytes).
void mark_sign_pattern(const MarkLayout& layout, int32_t strength, int8_t* out);

// The selection of one frame: selection_mask for seed and density over the
// repetitions, spread over the grid by selection_spread (with the index table
// in FEC mode 0, null in mode 2). mask is work space of cells bytes,
// zero-filled by the caller; selection receives cells bytes.
void mark_selection(const MarkLayout& layout, const uint8_t* indexes, int32_t density,
                    int32_t seed, uint8_t* mask, uint8_t* selection);

}  // namespace lumamark
