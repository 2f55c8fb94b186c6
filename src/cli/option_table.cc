// The table-driven command-line parser shared by lumamark and lumamark-detect.
#include "cli/option_table.h"

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <limits>

namespace lumamark {
namespace {

// Strict base-10 integer: optional sign and digits, nothing else, within the
// range of a signed 64-bit value.
bool parse_int64(const std::string& text, int64_t* value) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str() || *end != '\0') return false;
  *value = v;
  return true;
}

const OptionRow* find_row(const OptionRow* rows, size_t count, std::string_view word) {
  for (size_t i = 0; i < count; ++i) {
    if (rows[i].name == word) return &rows[i];
  }
  return nullptr;
}

// Stores one argument word. False (after the message) when it is refused.
bool store(const OptionRow& row, const char* arg, const ParseRules& rules, std::ostream& err) {
  switch (row.kind) {
    case ArgKind::Int: {
      int32_t value = 0;
      if (!rules.strict_integers) {
        // std::stoi throws on a non-numeric or out-of-range value; the error
        // is deliberately left uncaught and aborts the process.
        value = std::stoi(std::string(arg));
      } else {
        int64_t v = 0;
        if (!parse_int64(arg, &v) || v < std::numeric_limits<int32_t>::min() ||
            v > std::numeric_limits<int32_t>::max()) {
          err << "Error: " << row.name << " expects an integer, got '" << arg << "'\n";
          return false;
        }
        value = static_cast<int32_t>(v);
      }
      *row.int_value = value;
      if (row.flag != nullptr) *row.flag = true;
      return row.accept == nullptr || row.accept(value, err);
    }
    case ArgKind::Count: {
      int64_t n = 0;
      if (!parse_int64(arg, &n) || n < 1) {
        err << "Error: " << row.name << " expects a positive integer, got '" << arg << "'\n";
        return false;
      }
      *row.count_value = n;
      return true;
    }
    case ArgKind::Text:
      *row.text = arg;
      if (row.flag != nullptr) *row.flag = true;
      return true;
    case ArgKind::Flag:
    case ArgKind::Skip:
      break;
  }
  return true;
}

}  // namespace

void set_given_flag(std::vector<OptionRow>* rows, std::string_view name, bool* flag) {
  for (OptionRow& row : *rows) {
    if (row.name == name) row.flag = flag;
  }
}

ParseResult parse_option_table(int argc, char** argv, const OptionRow* rows, size_t row_count,
                               const ParseRules& rules, std::ostream& err) {
  if (argc < 2) {
    rules.usage(argc >= 1 && argv[0] != nullptr ? argv[0] : rules.default_program, std::cout);
    return ParseResult::Error;
  }
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--help" || word == "-h") {
      rules.usage(argv[0], std::cout);
      return ParseResult::HelpShown;
    }
    if (word == "--version") {
      std::cout << rules.version << std::endl;
      return ParseResult::VersionShown;
    }
    const OptionRow* row = find_row(rows, row_count, word);
    if (row == nullptr) {
      // Without the line end, whatever is written next continues the line.
      err << "Error: Unknown option: " << word;
      if (rules.unknown_line_end) err << "\n";
      return ParseResult::Error;
    }
    if (row->kind == ArgKind::Flag) {
      *row->flag = true;
      continue;
    }
    if (i + 1 >= argc) {
      if (row->missing != nullptr) {
        err << row->missing;
      } else {
        err << "Error: " << word << " requires an argument\n";
      }
      return ParseResult::Error;
    }
    if (!store(*row, argv[++i], rules, err)) return ParseResult::Error;
  }
  return ParseResult::Run;
}

}  // namespace lumamark
