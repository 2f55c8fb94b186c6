// The command-line parser of both tools: one table of options, each matched
// as a whole word, with its kind of argument and where the value goes.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace lumamark {

enum class ArgKind : int32_t {
  Flag,   // no argument; sets *flag
  Int,    // 32-bit integer into *int_value
  Count,  // positive 64-bit integer into *count_value (strict rules only)
  Text,   // the word as it is into *text
  Skip,   // consumes a word and stores nothing
};

struct OptionRow {
  std::string_view name;                  // the option word, e.g. "--width"
  ArgKind kind;                           // what the option takes
  bool* flag = nullptr;                   // Flag: set to true; Int, Text: set to true when given
  int32_t* int_value = nullptr;           // Int target
  int64_t* count_value = nullptr;         // Count target
  std::string* text = nullptr;            // Text target
  const char* missing = nullptr;          // message for an absent argument; null: "Error: <name> requires an argument\n"
  bool (*accept)(int32_t value, std::ostream& err) = nullptr;  // Int check right after the value; false ends parsing
};

// Rows of the settings that both tools take, for a settings struct with
// these fields (EmbedConfig, DetectConfig). fec_accept checks --fec.
template <typename Settings>
std::vector<OptionRow> shared_setting_rows(Settings* c,
                                           bool (*fec_accept)(int32_t, std::ostream&)) {
  std::vector<OptionRow> rows;
  const auto integer = [&rows](std::string_view name, int32_t* field) {
    rows.push_back(OptionRow{name, ArgKind::Int, nullptr, field});
  };
  integer("--width", &c->width);
  integer("--height", &c->height);
  integer("--sp-width", &c->sp_width);
  integer("--spb-width", &c->spb_width);
  integer("--bit-profile", &c->bit_profile);
  integer("--strength", &c->strength);
  integer("--seed", &c->seed);
  integer("--sp-density", &c->sp_density);
  integer("--threads", &c->threads);
  integer("--fec", &c->fec);
  rows.back().accept = fec_accept;
  rows.push_back(OptionRow{"--user-urn", ArgKind::Text, nullptr, nullptr, nullptr, &c->user_urn});
  return rows;
}

// Points the row called name at flag, which the parser sets when the option
// is given (for the y4m header check: an option given must agree with it).
void set_given_flag(std::vector<OptionRow>* rows, std::string_view name, bool* flag);

// How a tool's parser reports and converts.
struct ParseRules {
  const char* version;            // printed by --version
  const char* default_program;    // program name in the usage text when argv[0] is missing
  void (*usage)(const char* program, std::ostream& out);  // the usage text
  bool strict_integers;           // true: a whole base-10 word in range, else a message; false:
                                  // std::stoi, whose exceptions are deliberately left uncaught
  bool unknown_line_end;          // end the unknown-option message with a line end
};

enum class ParseResult : int32_t { Run = 0, HelpShown = 1, VersionShown = 2, Error = 3 };

// Parses argv[1..argc-1] against the table. With no argument at all, prints
// the usage text and returns Error. --help and -h print the usage text,
// --version the version, on standard output; messages go to err.
ParseResult parse_option_table(int argc, char** argv, const OptionRow* rows, size_t row_count,
                               const ParseRules& rules, std::ostream& err);

}  // namespace lumamark
