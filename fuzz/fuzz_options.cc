// Fuzz target: command-line parsing and the checks made before any filter
// exists. The input is the argument list, words separated by NUL bytes.
//
// A non-numeric or out-of-range integer argument deliberately ends the tool
// with an uncaught std::stoi error; here that error is caught, since it is
// the documented outcome and not a finding.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "cli/options.h"
#include "kernels/intmath.h"
#include "fuzz_util.h"

namespace {

using lumamark::fuzz::NullBuffer;

// Swallows everything; keeps the usage and error texts off the terminal.
constexpr size_t kMaxWords = 64;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static NullBuffer null_buffer;
  static const bool silenced = [] {
    std::cout.rdbuf(&null_buffer);
    std::cerr.rdbuf(&null_buffer);
    return true;
  }();
  (void)silenced;

  std::vector<std::string> words{"lumamark"};
  std::string word;
  for (size_t i = 0; i < size && words.size() < kMaxWords; ++i) {
    if (data[i] == 0) {
      words.push_back(word);
      word.clear();
    } else {
      word.push_back(static_cast<char>(data[i]));
    }
  }
  if (!word.empty() && words.size() < kMaxWords) words.push_back(word);

  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  const int argc = static_cast<int>(words.size());

  lumamark::EmbedConfig config;
  lumamark::ParseResult result;
  try {
    result = lumamark::parse_options(argc, argv.data(), &config);
  } catch (const std::invalid_argument&) {
    return 0;
  } catch (const std::out_of_range&) {
    return 0;
  }

  switch (result) {
    case lumamark::ParseResult::Run:
      if (argc < 2) std::abort();  // an empty command line never runs
      // Only FEC modes 0 and 2 survive parsing.
      if (config.fec != 0 && config.fec != 2) std::abort();
      if (lumamark::check_config(config)) {
        if (config.threads < 0) std::abort();
        if (config.sp_width < 5 || config.sp_width > 64) std::abort();
        if (config.sp_width <= lumamark::wrap_mul(2, config.spb_width)) std::abort();
      }
      break;
    case lumamark::ParseResult::HelpShown:
    case lumamark::ParseResult::VersionShown:
    case lumamark::ParseResult::Error:
      break;
    default:
      std::abort();
  }
  return 0;
}
