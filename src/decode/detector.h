// The blind detector: measures every frame, weights the frames by how clearly
// each of them carries a mark, and decodes the watermark ID from the weighted
// sum of their soft values.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "decode/parity_decode.h"
#include "decode/rm_decode.h"
#include "decode/soft_values.h"
#include "payload/layout.h"

namespace lumamark {

// Settings shared with the embedder that decide where and how the mark sits.
struct DetectConfig {
  int32_t width = 1920;       // frame width in pixels, >= sp_width
  int32_t height = 1080;      // frame height in pixels, >= sp_width
  int32_t sp_width = 7;       // superpixel side, 5..64
  int32_t spb_width = 0;      // superpixel border; 0 or less = automatic
  int32_t fec = 2;            // 0 (parity + repetition) or 2 (Reed-Muller)
  int32_t bit_profile = 13;   // payload bits, 1..2048
  int32_t strength = 3;       // embedding strength (shapes the sign pattern), >= 1
  int32_t seed = -1;          // superpixel seed; -1 = unknown (all 32 are tried)
  int32_t sp_density = 100;   // superpixel density in percent, 0..100
  int32_t threads = 1;        // measuring threads; 0 = one per online processor
  std::string user_urn = kNeutralUrn;  // user organisation URN
};

// Largest superpixel grid the detector takes (16384 x 16384 with side 8,
// 10240 x 10240 with side 5). Its tables take about 40 bytes per superpixel,
// and 32 more when the density is below 100 and the seed is unknown: at most
// about 300 MB at this limit.
constexpr int64_t kMaxDetectorCells = int64_t{1} << 22;

// Verdict thresholds on z.
constexpr double kDetectedZ = 7.0;
constexpr double kWeakZ = 6.0;

// kAmbiguous: geometries that fit the copy about equally well decode to
// different IDs, so none is named (set by the geometric search only).
enum class Verdict { kNone, kWeak, kDetected, kAmbiguous };

// What the frames seen so far say.
struct DetectResult {
  std::string bits;     // bit_profile decoded payload bits, '0'/'1', most significant first
  std::string wm_id;    // the bits as lowercase hexadecimal, ceil(bits / 4) digits
  double z = 0;         // confidence of the decode (weakest block or coded bit)
  int32_t frames = 0;   // frames combined
  Verdict verdict = Verdict::kNone;  // from z: >= 7 detected, >= 6 weak, else none
  std::vector<RmBlockDecision> blocks;  // FEC 2: one decision per Reed-Muller block
  std::vector<uint8_t> parity_ok;       // FEC 0: one parity check per group
};

// Per-frame record, for reports.
struct FrameScore {
  double z = 0;         // the frame's own decode confidence (its weight is z squared)
  int32_t seed = -1;    // selection seed that fitted the frame best; -1 when none is used
};

// Detector state: the payload geometry, the precomputed code tables and the
// running weighted sum. Built by detector_init, fed by detector_add_frame.
struct Detector {
  DetectConfig config;                  // settings it was built with
  SoftGrid grid;                        // superpixel grid
  MarkLayout layout;                    // the mark's layout: grid, coded length, seeds
  int32_t cells = 0;                    // cols x rows (layout.cells)
  int32_t length = 0;                   // coded symbols L (layout.length)
  int32_t reps = 0;                     // whole repetitions of the coded string (layout.reps)
  std::vector<int8_t> signs;            // sign pattern, one value per superpixel
  RmDecodePlan plan;                    // FEC 2 decoding plan
  std::vector<uint8_t> indexes;         // FEC 0 index table, 16 x L
  std::vector<std::vector<uint8_t>> selections;  // candidate selections; empty = all cells
  std::vector<int32_t> selection_seeds; // seed of each candidate selection
  std::vector<double> sum;              // weighted sum of the soft values, one per cell
  std::vector<FrameScore> scores;       // one per frame added
  std::vector<float> top;               // decode input of the frame with the largest z
  double top_z = -1;                    // that frame's z; -1 before the first frame
  // Work buffers.
  std::vector<int32_t> measures;        // signal_measure of every cell of the current frame
  std::vector<float> soft;              // soft values of the current frame
  std::vector<float> masked;            // soft values under one candidate selection
  std::vector<float> best;              // the frame's soft values under its best selection
  std::vector<float> decode_in;         // input of the current decode
  SoftScratch soft_scratch;             // work space of soft_values
  RmDecodeScratch rm_scratch;           // work space of the Reed-Muller decoder
  std::vector<RmBlockDecision> decisions;  // FEC 2: the last decode's block decisions
  ParityDecision parity;                // FEC 0: the last decode's decision
  std::string bits;                     // the last decode's payload bits
};

// Checks the settings and builds the tables. 0, or -1 with a message in *error.
int32_t detector_init(Detector* d, const DetectConfig& config, std::string* error);

// Measures one frame (luma plane of width x height samples, rows stride bytes
// apart) and adds it to the weighted sum.
void detector_add_frame(Detector* d, const uint8_t* luma, int32_t stride);

// Adds one frame given as soft values (cells values, already sign-corrected):
// the part of detector_add_frame after the measurement.
void detector_add_soft(Detector* d, const float* soft);

// Decodes the weighted sum of the frames added so far, or the single frame
// that decodes best when that is stronger: adding frames never weakens the
// answer.
DetectResult detector_result(Detector* d);

// Forgets the frames added so far (the tables are kept).
void detector_reset(Detector* d);

// The coded symbol ('0'/'1') that each superpixel carries for the payload
// bits (bit_profile characters), as the embedder lays them out: cells not
// carrying a symbol get '-'. Empty when the settings do not encode.
std::string detector_expected_symbols(const Detector& d, const std::string& bits);

// Fraction of superpixels whose combined soft value has the wrong sign for the
// expected symbols (cells with no symbol or a soft value of 0 are skipped).
double detector_bit_error_rate(const Detector& d, const std::string& expected);

// z to verdict.
Verdict verdict_for(double z);
const char* verdict_name(Verdict v);

// '0'/'1' bits as lowercase hexadecimal, ceil(n / 4) digits, left-padded.
std::string bits_to_hex(const std::string& bits);

}  // namespace lumamark
