// The parallel embedding driver: pattern bank, optional deep-fake targets,
// static split of the superpixels over worker threads.
#pragma once

#include <cstdint>

#include "filter/embed_log.h"
#include "kernels/embed_band.h"
#include "kernels/geometry.h"
#include "kernels/pattern.h"
#include "kernels/texture.h"

namespace lumamark {

// What a worker found for one embedded superpixel, kept until the driver
// writes the log entries in superpixel order.
struct EmbedRecord {
  int32_t value;     // embedded value (map byte minus strength)
  int32_t signal;    // result of the last embed_superpixel call
  int32_t extr;      // signal_measure of the superpixel after embedding
  int32_t embedded;  // 1 when the superpixel was embedded in this frame, else 0
};

// The settings of one frame's embedding, besides its geometry.
struct EmbedSettings {
  int32_t p_density;  // pixel density of the pattern bank in percent
  int32_t strength;   // embedding strength; below 1 nothing is embedded
  int32_t deep_fake;  // non-zero in deep-fake mode
  int32_t seed;       // the frame's seed 0..31, which keys the pattern bank
  int32_t pm_mode;    // perceptual mode
  int32_t threads;    // worker threads setting (see embed_worker_count)
};

// The texture map computed a stretch of rows at a time, each stretch just
// before the superpixel rows that read it are embedded, so that the map is
// read back while it is still in the cache. The map is a function of the
// untouched frame, and a map row reads luma rows up to the box radius away:
// the rows of a superpixel row are computed before the embedding of that row
// and the one or more rows above it changes anything the map reads. Used with
// one embedding worker only.
struct TextureOnDemand {
  TextureRows rows;  // the whole map's record; first_row and end_row are set per stretch
  int32_t done;      // map rows [0, done) are computed
};

// Computes the map rows from done up to at least limit (at most the height).
void texture_until(TextureOnDemand* t, int32_t limit);

// One worker's share of a frame: superpixels [first, end) in row-major order.
struct EmbedTask {
  uint8_t* luma;                  // first luma sample of the frame, modified in place
  const FrameGeometry* geometry;  // frame size, row pitch, superpixel side and border
  int32_t strength;               // embedding strength, >= 1
  int32_t deep_fake;              // non-zero in deep-fake mode
  int32_t pm_mode;                // perceptual mode
  const uint8_t* map;             // payload map, one unsigned byte per superpixel
  const uint8_t* selection;       // 1 = embed this superpixel in this frame
  int32_t cols;                   // superpixel columns = width / sp_w
  int32_t rows;                   // superpixel rows = height / sp_h
  const uint8_t* texture;         // texture map or null
  const int32_t* measures;        // deep-fake targets, one per superpixel, or null
  int32_t measure_in_place;       // 1: without measures, measure each deep-fake target just
                                  // before its superpixel is embedded (row pitch = width)
  const int8_t* bank;             // pattern bank of the frame
  const PatternLayout* layout;    // layout of the bank
  int32_t first;                  // first superpixel index of this worker's range
  int32_t end;                    // one past the last index of the range
  EmbedLog* log;                  // embedding log or null
  EmbedRecord* records;           // per-superpixel log records, or null to log directly
  const EmbedPattern* patterns;   // every bank pattern with its nonzero and row_mask, in bank order, or null
  int32_t pattern_count;          // entries in patterns
  const uint8_t* prepared;        // the run kernel's preparation of those patterns, or null
  TextureOnDemand* texture_on_demand;  // computes the texture map as it is needed, or null
                                       // (the map is then complete)
};

// Position class 0..3 of superpixel (sx, sy) in a cols x rows grid.
int32_t position_class(int32_t sx, int32_t sy, int32_t cols, int32_t rows);

// Embeds the selected superpixels of one frame (map and selection hold one
// byte per superpixel of the geometry's grid), split over the workers; with a
// log, writes its entries in superpixel order. With texture_on_demand, the
// texture map (texture) is filled as the embedding reaches its rows.
void embed_frame(uint8_t* luma, const FrameGeometry* geometry, const EmbedSettings* settings,
                 const uint8_t* map, const uint8_t* selection, const uint8_t* texture,
                 EmbedLog* log, TextureOnDemand* texture_on_demand = nullptr);

// Embeds the superpixels of one worker's range.
void embed_worker(EmbedTask* task);

}  // namespace lumamark
