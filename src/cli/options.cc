// Command-line parsing, usage and version texts, and the pre-filter checks.
#include "cli/options.h"

#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "kernels/intmath.h"

namespace lumamark {
namespace {

constexpr int32_t kMinSpWidth = 5;
constexpr int32_t kMaxSpWidth = 64;

bool accept_fec(int32_t fec, std::ostream& err) {
  if (fec == 0 || fec == 2) return true;
  err << "Error: Unsupported FEC mode (" << fec << "), use 0 or 2\n";
  return false;
}

void usage_to(const char* prog, std::ostream&) { print_usage(prog); }

}  // namespace

ParseResult parse_options(int argc, char** argv, EmbedConfig* config) {
  EmbedConfig& c = *config;
  std::vector<OptionRow> rows = shared_setting_rows(&c, accept_fec);
  const auto text = [&rows](std::string_view name, std::string* field, const char* missing = nullptr) {
    rows.push_back(OptionRow{name, ArgKind::Text, nullptr, nullptr, nullptr, field, missing});
  };
  text("--input-file", &c.input_file, "Error: --input-file option requires an argument\n");
  text("--output-file", &c.output_file);
  text("--payload-file", &c.payload_file);
  text("--pix-fmt", &c.pix_fmt);
  rows.back().flag = &c.pix_fmt_given;
  text("--embed-log", &c.embed_log);
  text("--wm-id", &c.wm_id);
  rows.back().flag = &c.wm_id_given;
  set_given_flag(&rows, "--width", &c.width_given);
  set_given_flag(&rows, "--height", &c.height_given);
  rows.push_back(OptionRow{"--p-density", ArgKind::Int, nullptr, &c.p_density});
  rows.push_back(OptionRow{"--pm-mode", ArgKind::Int, nullptr, &c.pm_mode});
  rows.push_back(OptionRow{"--sp-height", ArgKind::Skip});
  rows.push_back(OptionRow{"--spb-height", ArgKind::Skip});
  rows.push_back(OptionRow{"--deep-fake", ArgKind::Flag, &c.deep_fake});
  const ParseRules rules{kVersion, "", usage_to, false, false};
  return parse_option_table(argc, argv, rows.data(), rows.size(), rules, std::cerr);
}

void print_usage(const char* prog) {
  std::cout
      << "Usage: " << prog << " <options>\n"
      << "Options:\n"
      << "  --help                Show this help message\n"
      << "  --version             Show version information\n"
      << "  --input-file <path>   Input yuv file\n"
      << "  --output-file <path>  Output yuv file\n"
      << "  --payload-file <path> Payload file\n"
      << "  --strength <int>      Embedding strength\n"
      << "  --fec <int>           Forward error correction mode. 0 is old parity bit + repeat "
         "mode, 2 is new RM-based mode (default)\n"
      << "  --bit-profile <int>   Bit profile\n"
      << "  --sp-density <int>    Superpixel density\n"
      << "  --p-density <int>     Pixel density\n"
      << "  --width <int>         Input file width\n"
      << "  --height <int>        Input file height\n"
      << "  --user-urn <str>      User organization URN\n"
      << "  --wm-id <str>         Watermark ID\n"
      << "  --pix-fmt <str>       Pixel format\n"
      << "  --deep-fake           Increase embedding strength for deep fake detection\n"
      << "  --sp-width <int>      Superpixel size\n"
      << "  --spb-width <int>     Superpixel border size override (0 = auto)\n"
      << "  --pm-mode <int>       Perceptual mode\n"
      << "  --seed <int>          Watermark superpixel mask seed (defines which SPs are "
         "embedded). Range: 0 to 31 (or -1, default = derive from image hash)\n"
      << "  --embed-log <path>    Output JSON file with embedding stats\n"
      << "  --threads <int>       Number of threads to use (0 = auto-detect)\n";
}

bool check_config(const EmbedConfig& config) {
  if (config.threads < 0) {
    std::cerr << "Error: --threads must be >= 0 (0 = auto-detect)\n";
    return false;
  }
  if (config.sp_width < kMinSpWidth || config.sp_width > kMaxSpWidth) {
    std::cerr << "Error: --sp-width must be in [" << kMinSpWidth << ", " << kMaxSpWidth << "]\n";
    return false;
  }
  // Twice the border is a 32-bit product that wraps like every size
  // computation of the tool; a negative border always passes.
  if (config.sp_width <= wrap_mul(2, config.spb_width)) {
    std::cerr << "SP size and border mismatch, reduce borders\n";
    return false;
  }
  return true;
}

}  // namespace lumamark
