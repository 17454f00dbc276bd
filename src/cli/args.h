#pragma once
// The command line: one table of options gives the parser, the help text and
// the checks of the values.

#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "io/status.h"
#include "run/preflight.h"
#include "run/settings.h"

namespace tarn {

// What the command line leaves.
struct CommandLine {
  RunSettings settings;
  int proc_file = 0;                             // -P: the prefix takes the number of processes
  std::optional<std::string> converge_relative;  // --converge-rel, read whole in the checks
  // Values an estimation reads that are not finite numbers: reported after
  // the banner, and only when the run estimates a set.
  Findings value_findings;
};

enum class OptionKind {
  positional,  // the word without a key: the input file
  integer,
  number,
  text,
  on_off,      // on/off, 1/0, true/false, t/f, yes/no
  flag,        // takes no value
  dimensions,  // ranges "2", "2-6", "2-10:2", "2,4,8-10", added up over the words
  help,        // -h: the scan stops and the help is printed
  help_line,   // no option: a line of the help text only
};

enum class OptionCheck { none, finite, finite_if_F_constrained };

// Where an option's value goes; none for an option accepted and read by
// nothing.
using OptionTarget = std::variant<std::monostate, int*, double*, std::string*,
                                  std::optional<std::string>*, std::vector<int>*>;

struct OptionRow {
  std::vector<const char*> keys;  // the aliases; a message names them joined by '/'
  OptionKind kind;
  OptionTarget target;
  const char* help;  // its lines of the help text, "" for a hidden option
  OptionCheck check = OptionCheck::none;
  int check_order = 0;         // the finite checks are reported in this order
  bool unit_interval = false;  // must lie in [0, 1]
};

// The options of the program, in the order of the help text, writing into
// line.
std::vector<OptionRow> option_table(CommandLine* line);

enum class ParseCode { ok, no_key, needs_value, flag_with_value, bad_switch, help };

// Sets the option of key (null: the positional word) from value (null when
// none was given).
ParseCode parse_option(std::span<const OptionRow> table, const char* key, char* value);

// What scan_words returns when the help was asked for.
constexpr int kHelpAsked = -1;

// Parses the words of argv: 0 when every word was taken, kHelpAsked, or the
// index of the word to complain about (after printing why, for a value that
// is missing or not understood).
int scan_words(std::span<const OptionRow> table, int argc, char** argv);

void print_help(std::span<const OptionRow> table, std::FILE* out);

// Fills line from the command line and checks it. false when the run ends
// here with status 0: the help was asked for, or a word was not understood
// (both print the help on standard error).
Result<bool> parse_command_line(int argc, char** argv, CommandLine* line);

// The log the run writes, chosen by -L, --sge and -o.
Result<std::FILE*> open_log(const RunSettings& settings);

// The rights line shared by the banner and the help text.
extern const char* const TARN_RIGHTS_LINE;

}  // namespace tarn
