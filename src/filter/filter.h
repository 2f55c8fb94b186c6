// The watermark filter: settings and reusable buffers that live from frame to
// frame, and its life cycle (create, init, payload, apply, free).
#pragma once

#include <cstddef>
#include <cstdint>

#include "filter/seed.h"

namespace lumamark {

struct WatermarkFilter {
  int32_t width;               // frame (luma) width in pixels
  int32_t height;              // frame (luma) height in pixels
  int32_t sp_size;             // superpixel side in pixels, both directions
  int32_t sp_border;           // superpixel border; 0 or less = automatic
  int32_t scaled_width;        // width / hash_cells_x; stored only
  int32_t scaled_height;       // height / hash_cells_y; stored only
  int32_t bit_count;           // payload bits
  int32_t encoded_bit_count;   // coded payload symbols
  int32_t p_density;           // pixel density in percent, for the pattern bank
  int32_t sp_density;          // superpixel density in percent, for the selection
  int32_t hash_cells_x;        // image-hash cells per superpixel, horizontally (1)
  int32_t hash_cells_y;        // image-hash cells per superpixel, vertically (1)
  int32_t strength;            // embedding strength
  char* wm_id;                 // private copy of the identifier text
  char* coded_bits;            // encoded_bit_count '0'/'1' characters, NUL-terminated
  int8_t* pattern_values;      // one signed magnitude per superpixel (payload generator)
  size_t pattern_values_cap;   // bytes allocated for pattern_values
  int32_t fec_bit_count;       // bit_count again, read by the payload generator
  int32_t fec_mode;            // 0 (parity + repetition) or 2 (Reed-Muller)
  uint8_t* indexes;            // 16 rows of encoded_bit_count bytes; null in FEC mode 2
  size_t indexes_cap;          // bytes allocated for indexes
  int32_t deep_fake;           // 1 with --deep-fake, else 0
  uint8_t* map;                // payload map, one byte per superpixel, row-major
  size_t map_cap;              // bytes allocated for map
  uint8_t* texture_map;        // texture map, width x height bytes (pm_mode 3)
  size_t texture_map_cap;      // bytes allocated for texture_map
  int32_t pm_mode;             // perceptual mode 0..3
  char* log_path;              // embedding log path, or null for no log
  int32_t threads;             // worker threads; 0 or less = online processors
};

// A zero-filled filter, or null when memory is exhausted.
WatermarkFilter* wm_filter_create();

// Validates and stores the settings, builds the coded bits and sizes the
// buffers. 0, or a negative code (messages go to standard output).
int32_t wm_filter_init(WatermarkFilter* f, int32_t strength, int32_t sp_size, int32_t sp_border,
                       int32_t p_density, int32_t sp_density, int32_t hash_cells_x,
                       int32_t hash_cells_y, int32_t width, int32_t height, const char* wm_id,
                       int32_t bit_count, int32_t deep_fake, int32_t fec_mode, int32_t pm_mode);

// Copies the payload map (and index table, FEC mode 0) into the filter.
void wm_filter_set_payload(WatermarkFilter* f, const uint8_t* map, const uint8_t* indexes,
                           int32_t encoded_bit_count, int32_t sp_size, int32_t width,
                           int32_t height);

// Builds the payload map (cols x rows bytes) and, when indexes is not null,
// the index table from the filter's settings and the URN (see
// payload_map_generate, which this feeds with the filter's layout).
void wm_generate_payload_map(WatermarkFilter* filter, uint8_t* map, const char* urn,
                             uint8_t* indexes);

// Keeps a private copy of path; null removes the log.
void wm_filter_set_log_path(WatermarkFilter* f, const char* path);

// Sets the worker thread count (0 or less = online processors).
void wm_filter_set_threads(WatermarkFilter* f, int32_t n);

// Embeds the watermark into one luma plane in place. 0, or -1.
int32_t wm_filter_apply(WatermarkFilter* f, uint8_t* luma, int32_t width, int32_t height,
                        int32_t stride, int32_t seed);

// A scan of the image-hash seed of width x height frames for this filter,
// to be fed the frame's rows as they arrive (seed_scan_restart,
// seed_scan_rows); false when there is nothing to scan (the seed is then 0
// or given) or no memory.
bool wm_filter_seed_scan_init(const WatermarkFilter* f, int32_t width, int32_t height, SeedScan* s);

// wm_filter_apply with the image-hash seed taken from a completed scan of
// this frame's luma, as it was before this call; a null or incomplete scan,
// or one of another grid, is not used.
int32_t wm_filter_apply_scanned(WatermarkFilter* f, uint8_t* luma, int32_t width, int32_t height,
                                int32_t stride, int32_t seed, const SeedScan* scan);

// Releases every buffer and the filter itself (f must not be null).
void wm_filter_free(WatermarkFilter* f);

// Grow-never-shrink rule for the filter's buffers: when *cap < needed, free the
// old buffer, set *cap to 0, allocate exactly needed bytes and set *cap on
// success. Returns false when the buffer is null afterwards.
bool wm_buffer_grow(void** buf, size_t* cap, size_t needed);

}  // namespace lumamark
