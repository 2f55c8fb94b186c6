// Command line: the settings of one run, the parser, usage and version.
#pragma once

#include <cstdint>
#include <string>

#include "cli/option_table.h"
#include "payload/layout.h"

namespace lumamark {

inline constexpr const char* kVersion = "2.1.3";

struct EmbedConfig {
  std::string input_file;                                  // input path; empty = standard input
  std::string output_file;                                 // output path; empty = standard output
  std::string payload_file;                                // payload file; empty = none
  int32_t strength = 3;                                    // embedding strength
  int32_t fec = 2;                                         // FEC mode, 0 or 2
  int32_t bit_profile = 13;                                // payload bits
  int32_t sp_density = 100;                                // superpixel density, percent
  int32_t p_density = 100;                                 // pixel density, percent
  int32_t width = 1920;                                    // frame width
  int32_t height = 1080;                                   // frame height
  int32_t sp_width = 7;                                    // superpixel side, 5..64
  int32_t spb_width = 0;                                   // superpixel border; 0 = automatic
  int32_t pm_mode = 3;                                     // perceptual mode 0..3
  int32_t seed = -1;                                       // mask seed 0..31; negative = image hash
  std::string user_urn = kNeutralUrn;                      // user organisation URN, 32 hex digits
  std::string wm_id = "0";                                 // watermark ID, hexadecimal
  std::string pix_fmt = "yuv420p";                         // yuv420p, yuv422p or yuv444p
  std::string embed_log;                                   // JSON log path; empty = none
  int32_t threads = 1;                                     // worker threads; 0 = online processors
  bool deep_fake = false;                                  // repeat embedding up to a signal target
  bool wm_id_given = false;                                // --wm-id appeared on the command line
  bool width_given = false;                                // --width appeared on the command line
  bool height_given = false;                               // --height appeared on the command line
  bool pix_fmt_given = false;                              // --pix-fmt appeared on the command line
};

// Fills config from argv[1..argc-1]. Integer options are converted with
// std::stoi and conversion errors are deliberately not caught.
ParseResult parse_options(int argc, char** argv, EmbedConfig* config);

// Writes the usage text for program name prog to standard output.
void print_usage(const char* prog);

// The three checks made before any filter exists. Writes the message and
// returns false on the first failing check.
bool check_config(const EmbedConfig& config);

}  // namespace lumamark
