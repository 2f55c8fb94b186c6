// Command line of lumamark-detect: options, frame reading, report.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "decode/detector.h"
#include "decode/resync.h"

namespace lumamark {

// Everything one detector run is told on its command line.
struct DetectOptions {
  DetectConfig config;       // settings shared with the embedder
  std::string input_file;    // raw YUV input; empty = standard input
  std::string pix_fmt = "yuv420p";  // yuv420p, yuv422p or yuv444p
  int64_t max_frames = -1;   // --frames: frames to use, >= 1; -1 = all
  bool json = false;         // --json: one JSON object instead of words
  std::string expect_id;     // --wm-id: ID to compare against; empty = none
  bool width_given = false;  // --width was given (else a y4m header gives the marked width)
  bool height_given = false; // --height was given
  bool pix_fmt_given = false;  // --pix-fmt was given (a y4m header must agree with it)
  int32_t input_width = 0;   // --input-width: the copy's width; 0 = the marked width
  int32_t input_height = 0;  // --input-height: the copy's height; 0 = the marked height
  bool input_width_given = false;   // --input-width was given (a y4m header must agree with it)
  bool input_height_given = false;  // --input-height was given
  SearchMode search = SearchMode::kAuto;  // --search: geometric search when the aligned read fails
};

enum class DetectParse { kRun, kHelp, kVersion, kError };

// Parses argv[1..argc-1] into options; messages go to err.
DetectParse parse_detect_options(int argc, char** argv, DetectOptions* options, std::ostream& err);

// Writes the usage text for program name program to out.
void print_detect_usage(const char* program, std::ostream& out);

// What is compared when --wm-id is given.
struct ExpectedCheck {
  bool match = false;  // decoded ID equals the expected one
  double ber = 0;      // wrong-signed superpixels against the expected coded symbols
};

// Where the mark was read: the geometry, and for an ambiguous verdict the IDs
// that fit. searched is false for a read of the copy as it is.
struct GeometryReport {
  bool searched = false;
  GeoTransform transform;
  int64_t hypotheses = 0;
  std::vector<SearchCandidate> candidates;
};

// The report: one JSON object or a few sentences, each ending in a line end.
std::string format_detect_report(const DetectResult& result, const ExpectedCheck* expected,
                                 const std::string& expected_id, bool json,
                                 const GeometryReport& geometry = {});

// Exit status for a verdict: 0 detected, 2 weak, none or ambiguous, 3
// detected with another ID than the one given with --wm-id.
int detect_exit_status(Verdict v, const ExpectedCheck* expected = nullptr);

// Runs the detector; returns the exit status (0 detected, 2 weak, none or
// ambiguous, 3 a detected ID that is not the expected one, 1 error).
int run_detect(int argc, char** argv);

}  // namespace lumamark
