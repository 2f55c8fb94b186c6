// Command-line parsing, usage and version texts, and the pre-filter checks.
#include "cli/options.h"

#include <iostream>
#include <string>
#include <string_view>

#include "kernels/intmath.h"

namespace lumamark {
namespace {

constexpr int32_t kMinSpWidth = 5;
constexpr int32_t kMaxSpWidth = 64;

enum class ArgKind { None, Int, Text, Skip };

// One row of the option table. For Int and Text options exactly one of the
// field pointers is used; Skip consumes a word and stores nothing.
struct OptionRow {
  std::string_view name;
  ArgKind kind;
  int32_t EmbedConfig::*int_field;
  std::string EmbedConfig::*text_field;
  const char* missing_message;  // written when the argument word is absent
};

constexpr OptionRow kOptions[] = {
    {"--input-file", ArgKind::Text, nullptr, &EmbedConfig::input_file,
     "Error: --input-file option requires an argument\n"},
    {"--output-file", ArgKind::Text, nullptr, &EmbedConfig::output_file,
     "Error: --output-file requires an argument\n"},
    {"--payload-file", ArgKind::Text, nullptr, &EmbedConfig::payload_file,
     "Error: --payload-file requires an argument\n"},
    {"--strength", ArgKind::Int, &EmbedConfig::strength, nullptr,
     "Error: --strength requires an argument\n"},
    {"--fec", ArgKind::Int, &EmbedConfig::fec, nullptr, "Error: --fec requires an argument\n"},
    {"--bit-profile", ArgKind::Int, &EmbedConfig::bit_profile, nullptr,
     "Error: --bit-profile requires an argument\n"},
    {"--sp-density", ArgKind::Int, &EmbedConfig::sp_density, nullptr,
     "Error: --sp-density requires an argument\n"},
    {"--p-density", ArgKind::Int, &EmbedConfig::p_density, nullptr,
     "Error: --p-density requires an argument\n"},
    {"--width", ArgKind::Int, &EmbedConfig::width, nullptr, "Error: --width requires an argument\n"},
    {"--height", ArgKind::Int, &EmbedConfig::height, nullptr,
     "Error: --height requires an argument\n"},
    {"--sp-width", ArgKind::Int, &EmbedConfig::sp_width, nullptr,
     "Error: --sp-width requires an argument\n"},
    {"--sp-height", ArgKind::Skip, nullptr, nullptr, "Error: --sp-height requires an argument\n"},
    {"--spb-width", ArgKind::Int, &EmbedConfig::spb_width, nullptr,
     "Error: --spb-width requires an argument\n"},
    {"--spb-height", ArgKind::Skip, nullptr, nullptr, "Error: --spb-height requires an argument\n"},
    {"--user-urn", ArgKind::Text, nullptr, &EmbedConfig::user_urn,
     "Error: --user-urn requires an argument\n"},
    {"--wm-id", ArgKind::Text, nullptr, &EmbedConfig::wm_id, "Error: --wm-id requires an argument\n"},
    {"--pix-fmt", ArgKind::Text, nullptr, &EmbedConfig::pix_fmt,
     "Error: --pix-fmt requires an argument\n"},
    {"--pm-mode", ArgKind::Int, &EmbedConfig::pm_mode, nullptr,
     "Error: --pm-mode requires an argument\n"},
    {"--seed", ArgKind::Int, &EmbedConfig::seed, nullptr, "Error: --seed requires an argument\n"},
    {"--embed-log", ArgKind::Text, nullptr, &EmbedConfig::embed_log,
     "Error: --embed-log requires an argument\n"},
    {"--threads", ArgKind::Int, &EmbedConfig::threads, nullptr,
     "Error: --threads requires an argument\n"},
};

const OptionRow* find_option(std::string_view word) {
  for (const OptionRow& row : kOptions) {
    if (row.name == word) return &row;
  }
  return nullptr;
}

}  // namespace

ParseResult parse_options(int argc, char** argv, EmbedConfig* config) {
  if (argc < 2) {
    print_usage(argc >= 1 && argv[0] != nullptr ? argv[0] : "");
    return ParseResult::Error;
  }
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--help" || word == "-h") {
      print_usage(argv[0]);
      return ParseResult::HelpShown;
    }
    if (word == "--version") {
      std::cout << kVersion << std::endl;
      return ParseResult::VersionShown;
    }
    if (word == "--deep-fake") {
      config->deep_fake = true;
      continue;
    }
    const OptionRow* row = find_option(word);
    if (row == nullptr) {
      // No line end on purpose: whatever is written next continues the line.
      std::cerr << "Error: Unknown option: " << word;
      return ParseResult::Error;
    }
    if (i + 1 >= argc) {
      std::cerr << row->missing_message;
      return ParseResult::Error;
    }
    const char* arg = argv[++i];
    switch (row->kind) {
      case ArgKind::Int:
        // std::stoi throws on a non-numeric or out-of-range value; the error
        // is deliberately left uncaught and aborts the process.
        config->*(row->int_field) = std::stoi(std::string(arg));
        if (row->int_field == &EmbedConfig::width) config->width_given = true;
        if (row->int_field == &EmbedConfig::height) config->height_given = true;
        break;
      case ArgKind::Text:
        config->*(row->text_field) = arg;
        if (row->text_field == &EmbedConfig::wm_id) config->wm_id_given = true;
        if (row->text_field == &EmbedConfig::pix_fmt) config->pix_fmt_given = true;
        break;
      case ArgKind::Skip:
      case ArgKind::None:
        break;
    }
    if (row->int_field == &EmbedConfig::fec && config->fec != 0 && config->fec != 2) {
      std::cerr << "Error: Unsupported FEC mode (" << config->fec << "), use 0 or 2\n";
      return ParseResult::Error;
    }
  }
  return ParseResult::Run;
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
