// The whole read of a copy, shared by the command line and the C library:
// the aligned read when the copy has the marked size, checked against the
// grid's other phases, and the geometric search when that names no ID.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "decode/detector.h"
#include "decode/resync.h"

namespace lumamark {

struct CopyRead {
  DetectResult result;      // what is reported; the verdict may be ambiguous
  bool aligned = true;      // result is the aligned read of every frame added to the detector
  bool searched = false;    // a geometric search ran and gave result
  GeoTransform transform;   // the geometry result was read at (identity when aligned)
  int64_t hypotheses = 0;   // geometries the search decoded
  std::vector<SearchCandidate> candidates;  // the search's, strongest first
  double ber = 0;           // with expected bits: wrong-signed superpixels against them
};

// Reads copy for the mark of d->config (its width x height is the marked
// size). When the copy has the marked size, its frames must have been added
// to d as well (every frame; copy holds the first kSearchFrames of them);
// otherwise d holds none. expected_bits (payload bits, or empty) gives
// out->ber. 0, or -1 with a message.
int32_t read_copy(Detector* d, const CopyFrames& copy, SearchMode mode,
                  const std::string& expected_bits, CopyRead* out, std::string* error);

}  // namespace lumamark
