// Geometric resynchronisation of the detector: finds the scale, translation
// and mirroring that map a copy of a marked video back onto the superpixel
// grid it was marked on, and decodes the mark there.
//
// A copy pixel (x, y) maps to marked pixel (x * scale_x + offset_x,
// y * scale_y + offset_y), after a left-right mirror of the copy (x becomes
// width - 1 - x) when flip is set.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "decode/detector.h"

namespace lumamark {

struct GeoTransform {
  double scale_x = 1;   // marked pixels per copy pixel, horizontally
  double scale_y = 1;   // marked pixels per copy pixel, vertically
  double offset_x = 0;  // marked x of copy x = 0, in marked pixels
  double offset_y = 0;  // marked y of copy y = 0
  bool flip = false;    // the copy is mirrored left to right
};

// kAuto runs the fast search, then the full one when the fast one names no ID.
enum class SearchMode { kNone, kFast, kFull, kAuto };

// Frames of the copy kept for the search: luma planes of width x height
// samples, rows width bytes apart.
struct CopyFrames {
  int32_t width = 0;
  int32_t height = 0;
  std::vector<std::vector<uint8_t>> luma;
};

// A different ID whose z reaches this fraction of the winner's makes the
// verdict ambiguous.
constexpr double kAmbiguousRatio = 0.5;
// ... provided that its z clears the threshold that the search would set
// for this base z (noise decodes stay below it).
constexpr double kAmbiguousFloorZ = 5.0;

// The search keeps at most this many frames of the copy (the first ones).
constexpr int32_t kSearchFrames = 10;

// One decoded hypothesis.
struct SearchCandidate {
  GeoTransform transform;
  std::string wm_id;
  double z = 0;  // the detector's z at this geometry, over the kept frames
};

struct ResyncResult {
  DetectResult result;       // decode at the chosen geometry; verdict may be ambiguous
  GeoTransform transform;    // the geometry the result was read at
  int64_t hypotheses = 0;    // geometries decoded
  double detected_z = kDetectedZ;  // thresholds applied to result.z
  double weak_z = kWeakZ;
  std::vector<SearchCandidate> candidates;  // strongest first, one per distinct ID
  double ber = 0;            // with expected bits: wrong-signed superpixels at the geometry
};

// z threshold that keeps the chance of a false verdict over hypotheses
// decodes at one hundredth of the chance of one decode reaching base_z.
double threshold_for_hypotheses(double base_z, double hypotheses);

// Searches the geometry of the copy for the mark of config (config.width x
// config.height is the marked size) and decodes it. mode kNone reads the
// copy unscaled at its top-left corner. expected_bits (payload bits, or
// empty) gives out->ber. 0, or -1 with a message.
int32_t resync_search(const DetectConfig& config, const CopyFrames& copy, SearchMode mode,
                      const std::string& expected_bits, ResyncResult* out, std::string* error);

// Whether an aligned read of a copy of the marked size that decoded bits
// can be trusted: the first frame is read at the other phases of the grid
// (a few pixels off in each direction) and false is returned when one of
// them reads another ID more clearly. A read a few pixels off the grid can
// see the mark with its polarity inverted, which decodes the complement in
// the constant bits.
bool aligned_read_confirmed(const DetectConfig& config, const CopyFrames& copy,
                            const std::string& bits);

}  // namespace lumamark
