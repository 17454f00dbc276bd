#include "cli/args.h"

#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "io/convert.h"
#include "version.h"

namespace tarn {

const char* const TARN_RIGHTS_LINE =
    "  Copyright (C) 2026 The Tarn-SSM developers. All rights reserved.";

std::vector<OptionRow> option_table(CommandLine* line) {
  RunSettings* s = &line->settings;
  EmSettings* em = &s->em;
  InitialModelSettings* init = &s->init;
  using K = OptionKind;
  using C = OptionCheck;
  const std::monostate unread;
  return {
      {{}, K::positional, &s->input_file, ""},
      {{"-d"},
       K::dimensions,
       &s->dims,
       "  -d X[-Y:[Z]]  Region of dimensions. X, Y, and Z are integer values. (4)\n"},
      {{"-h"}, K::help, unread, "  -h            Show this help.\n"},
      {{"-i"},
       K::integer,
       &s->id,
       "  -i N          ID to distinguish concurrent executions. (N=1)\n"},
      {{}, K::help_line, unread, "  -l N          Loop limit in the EM algorithm. (N=40000)\n"},
      {{"-L"},
       K::integer,
       &s->log_mode,
       "  -L {0|1|2}    Log mode. 0: auto, 1: all, 2: stderr. (0)\n"},
      {{"-r"}, K::integer, &s->seed, "  -r N          Random seed. (N=38)\n"},
      {{"--shift"},
       K::integer,
       &s->shift,
       "  --shift {0|1|2}\n"
       "                Mean shift mode. \n"
       "                  0: do nothing, 1: shift for replicates, 2: shift for all. (1)\n"},
      {{"--sge"}, K::flag, &s->sge, "  --sge         SGE mode. (not specified)\n"},
      {{"--ssm"},
       K::text,
       &s->model_file,
       "  --ssm file\n"
       "                Read SSM model file to calculate state variables.\n"},
      {{"-s"},
       K::integer,
       &s->sets,
       "  -s N          Number of models (sets) for one size of dimensions. (N=1)\n"},
      {{"--threads"}, K::integer, &s->threads, "  --threads N   Number of threads. (1)\n"},
      {{"-e"}, K::text, &s->suffix, "  -e STR        Output file name suffix. (STR=\"dat\")\n"},
      {{"--each", "-E"},
       K::on_off,
       &s->each,
       "  --each {on|off}\n"
       "                Output resultant matrices/vectors in separate files. (off)\n"},
      {{"-o"}, K::text, &s->prefix, "  -o STR        Output file name prefix. (STR=\"result\")\n"},
      {{"--proc-file", "-P"},
       K::flag,
       &line->proc_file,
       "  --proc-file | -P\n"
       "                Insert the number of processes to the output file prefix. (not\n"
       "                 specified)\n"},
      {{"--state"},
       K::on_off,
       &s->state,
       "  --state {on|off}\n"
       "                Output the estimated state variables. (on)\n"},
      {{"-n"},
       K::integer,
       &s->iterations,
       "  -n N          Iterations (num. of inital values) for EM. (N=100)\n"},
      {{"-l", "--em-loop", "--EM-loop"},
       K::integer,
       &em->em_loop,
       "  -l N | --em-loop N\n"
       "                Maximum limit of EM loops to converge. (N=20000)\n"},
      {{"--constrain-F", "-F"},
       K::on_off,
       &em->constrain_F,
       "  --constrain-F {on|off} | -F {on|off}\n"
       "                Constrain F. (on)\n"},
      {{"-g", "--constrain-Fg"},
       K::number,
       &em->constrain_Fg,
       "  --constrain-Fg X | -g X\n"
       "                Strength of contraining F. 0 < X < 1. (X=1.0)\n",
       C::finite_if_F_constrained,
       1,
       true},
      {{"--update-mu"},
       K::on_off,
       &em->update_mu,
       "  --update-mu {on|off}\n"
       "                Update mu_0 or not. (on)\n"},
      {{"-c", "--converge"},
       K::number,
       &em->converge,
       "  -c X | --converge X\n"
       "                Condition of convergence. (X=1.0E-5)\n",
       C::finite,
       0},
      {{"-R", "--RrI"},
       K::on_off,
       &em->common_R,
       "  -R {on|off} | --RrI {on|off}\n"
       "                Assume R=rI or diagonal. R: system noise. (off)\n"},
      {{"--retry"},
       K::integer,
       &em->retry,
       "  --retry N     Maximum retry count. -1 for unlimited retry. (-1)\n"},
      {{"--abs-converge"},
       K::on_off,
       &em->abs_converge,
       "  --abs-converge {on|off}\n"
       "                Use absolute convergence condition. (on)\n"},
      {{"--ridge"}, K::number, unread, "  --ridge X     Ridge. (X=0.0)\n"},
      {{"--H-mean"},
       K::number,
       &init->H_mean,
       "  --H-mean X    Mean of H (elementwise Gaussian) (X=0.0)\n",
       C::finite,
       2},
      {{"--H-SD"}, K::number, unread, "  --H-SD X      S.D. of H (elementwise Gaussian) (X=1.0)\n"},
      {{"--F-max"},
       K::number,
       &init->F_max,
       "  --F-max X     Upper bound of F (uniform distribution) (X=1.5)\n",
       C::finite,
       4},
      {{"--F-min"},
       K::number,
       &init->F_min,
       "  --F-min X     Lower bound of F (uniform distribution) (X=-1.5)\n",
       C::finite,
       3},
      {{"--mu"},
       K::number,
       &init->mu,
       "  --mu X        Mean mu_0 (diagonal-elementwise Gaussian) (X=0.0)\n",
       C::finite,
       5},
      {{"--SD"},
       K::number,
       &init->SD,
       "  --SD X        S.D sd_0 (diagonal-elementwise Gaussian) (X=1.0)\n",
       C::finite,
       6},
      {{"--verbose", "-v"}, K::integer, &em->verbose, ""},
      {{"--strict"}, K::flag, &s->strict, ""},
      {{"--converge-rel"}, K::text, &line->converge_relative, ""},
      {{"--accelerate"}, K::flag, &em->accelerate, ""},
      {{"--gsl"}, K::flag, unread, ""},
      {{"--debug"}, K::integer, unread, ""},
  };
}

namespace {

const OptionRow* find_row(std::span<const OptionRow> table, const char* key) {
  for (const OptionRow& row : table) {
    if (key == nullptr ? row.kind == OptionKind::positional
                       : std::any_of(row.keys.begin(), row.keys.end(),
                                     [key](const char* k) { return std::strcmp(k, key) == 0; })) {
      return &row;
    }
  }
  return nullptr;
}

// "on", "1", "true", "t", "yes" give 1; "off", "0", "false", "f", "no" give 0.
ParseCode parse_on_off(const char* word, int* out) {
  static const char* const on_words[] = {"on", "1", "true", "t", "yes"};
  static const char* const off_words[] = {"off", "0", "false", "f", "no"};
  for (const char* w : on_words) {
    if (strcasecmp(word, w) == 0) return *out = 1, ParseCode::ok;
  }
  for (const char* w : off_words) {
    if (strcasecmp(word, w) == 0) return *out = 0, ParseCode::ok;
  }
  return ParseCode::bad_switch;
}

// Appends the values of one range piece "lo[-hi][:step]": at most 256 values.
void append_range_piece(const char* piece, std::vector<int>* values) {
  const char* dash = std::strchr(piece, '-');
  const char* colon = std::strchr(piece, ':');
  const int lo = leading_int(piece);
  const int hi = dash != nullptr ? std::max(lo, leading_int(dash + 1)) : lo;
  const int step = colon != nullptr ? leading_int(colon + 1) : 1;
  int taken = 0;
  std::int64_t v = lo;
  do {
    values->push_back(static_cast<int>(v));
    ++taken;
    v += step;
  } while (v <= hi && taken < 256);
}

// Commas are overwritten in the word itself.
void parse_ranges(char* word, std::vector<int>* values) {
  char* piece = word;
  while (piece != nullptr) {
    char* comma = std::strchr(piece, ',');
    if (comma != nullptr) *comma = '\0';
    append_range_piece(piece, values);
    piece = comma != nullptr ? comma + 1 : nullptr;
  }
}

// Stores value by the kind of row; the target may be none.
ParseCode store_value(const OptionRow& row, char* value) {
  switch (row.kind) {
    case OptionKind::integer:
      if (int* const* to = std::get_if<int*>(&row.target)) **to = leading_int(value);
      break;
    case OptionKind::number:
      if (double* const* to = std::get_if<double*>(&row.target)) **to = leading_double(value);
      break;
    case OptionKind::positional:
    case OptionKind::text:
      if (std::string* const* to = std::get_if<std::string*>(&row.target)) **to = value;
      if (auto* const* to = std::get_if<std::optional<std::string>*>(&row.target)) **to = value;
      break;
    case OptionKind::on_off: {
      int ignored = 0;
      int* const* to = std::get_if<int*>(&row.target);
      return parse_on_off(value, to != nullptr ? *to : &ignored);
    }
    case OptionKind::dimensions:
      parse_ranges(value, std::get<std::vector<int>*>(row.target));
      break;
    default:
      break;
  }
  return ParseCode::ok;
}

void print_parse_error(ParseCode code, const char* key) {
  if (code == ParseCode::no_key) return;
  if (code == ParseCode::needs_value) {
    std::fprintf(stderr, "ERROR: \"%s\" takes its argument.\n", key);
  } else {
    std::fprintf(stderr, "ERROR: Arugment parsing failed.\n");
  }
}

bool is_lone_dash(const char* w) {
  return w[0] == '-' && w[1] == '\0';
}

bool is_key_word(const char* w) {
  return w[0] == '-' && !is_lone_dash(w) && !(w[1] >= '0' && w[1] <= '9');
}

// A key whose value never came: 0 when that is fine.
int finish_pending(std::span<const OptionRow> table, const char* pending, int bad_index) {
  const ParseCode r = parse_option(table, pending, nullptr);
  if (r == ParseCode::help) return kHelpAsked;
  if (r == ParseCode::ok) return 0;
  print_parse_error(r, pending);
  return bad_index;
}

}  // namespace

ParseCode parse_option(std::span<const OptionRow> table, const char* key, char* value) {
  const OptionRow* row = find_row(table, key);
  if (row == nullptr) return ParseCode::no_key;
  if (row->kind == OptionKind::flag) {
    if (int* const* to = std::get_if<int*>(&row->target)) **to = 1;
    return value != nullptr ? ParseCode::flag_with_value : ParseCode::ok;
  }
  if (row->kind == OptionKind::help) return ParseCode::help;
  if (value == nullptr) return ParseCode::needs_value;
  return store_value(*row, value);
}

int scan_words(std::span<const OptionRow> table, int argc, char** argv) {
  const char* pending = nullptr;
  for (int i = 1; i < argc; ++i) {
    char* word = argv[i];
    if (is_lone_dash(word)) {
      if (i == argc - 1) break;  // a lone dash as the last word does nothing
      const ParseCode r = parse_option(table, nullptr, argv[i + 1]);
      if (r != ParseCode::ok) print_parse_error(r, "");
      return i + 1;
    }
    if (is_key_word(word)) {
      if (pending != nullptr) {
        if (const int bad = finish_pending(table, pending, i); bad != 0) return bad;
      }
      pending = word;
      continue;
    }
    if (pending == nullptr) {
      const ParseCode r = parse_option(table, nullptr, word);
      if (r != ParseCode::ok) return i;
      continue;
    }
    const ParseCode r = parse_option(table, pending, word);
    if (r == ParseCode::help) return kHelpAsked;
    if (r == ParseCode::ok) {
      pending = nullptr;
    } else if (r == ParseCode::flag_with_value) {
      pending = nullptr;
      --i;  // the same word again, now as a positional word
    } else if (r == ParseCode::no_key) {
      return i - 1;
    } else {
      print_parse_error(r, pending);
      return i;
    }
  }
  return pending != nullptr ? finish_pending(table, pending, argc - 1) : 0;
}

void print_help(std::span<const OptionRow> table, std::FILE* out) {
  std::fprintf(out, "Tarn SSM  version " TARN_VERSION " (" TARN_BUILD_TIME ")\n%s\n\n",
               TARN_RIGHTS_LINE);
  std::fputs(
      "Usage:\n"
      "  [mpirun [mpi options]] tarnssm [options] file\n"
      "\n"
      "Options: (default values)\n",
      out);
  for (const OptionRow& row : table) std::fputs(row.help, out);
}

namespace {

std::string joined_keys(const OptionRow& row) {
  std::string names;
  for (const char* key : row.keys) {
    if (!names.empty()) names += '/';
    names += key;
  }
  return names;
}

// The first value an estimation reads that is not a finite number.
Findings check_finite_values(std::span<const OptionRow> table, const EmSettings& em) {
  std::vector<const OptionRow*> checked;
  for (const OptionRow& row : table) {
    const bool read = row.check == OptionCheck::finite ||
                      (row.check == OptionCheck::finite_if_F_constrained && em.constrain_F != 0);
    if (read) checked.push_back(&row);
  }
  std::sort(checked.begin(), checked.end(),
            [](const OptionRow* a, const OptionRow* b) { return a->check_order < b->check_order; });
  Findings found;
  for (const OptionRow* row : checked) {
    const double value = *std::get<double*>(row->target);
    if (std::isfinite(value)) continue;
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    found.fail("The value of " + joined_keys(*row) + " is not a finite number: " + text + ".");
    break;
  }
  return found;
}

// -P: the prefix takes the number of processes, always 1.
void add_process_count(std::string* prefix) {
  *prefix += ".P0001";
}

Status check_values(std::span<const OptionRow> table, const RunSettings& settings) {
  if (settings.prefix.size() + settings.suffix.size() > 974) {
    return Status::error("ERROR: Output file name too long.");
  }
  for (const OptionRow& row : table) {
    if (!row.unit_interval) continue;
    const double value = *std::get<double*>(row.target);
    if (value < 0.0 || value > 1.0) {
      return Status::error("ERROR: Value for " + std::string(row.keys.front()) +
                           " option neends to be from 0 to 1.");
    }
  }
  return {};
}

// --converge-rel X: the whole word a number from 0 to 1; 0 leaves the test off.
Status read_relative_converge(const std::optional<std::string>& word, EmSettings* em) {
  if (!word) return {};
  char* end = nullptr;
  const double value = std::strtod(word->c_str(), &end);
  if (word->empty() || *end != '\0' || !(value >= 0.0 && value < 1.0)) {
    return Status::error("ERROR: The value of --converge-rel must be a number from 0 up to 1: \"" +
                         *word + "\".");
  }
  em->converge_relative = value;
  return {};
}

}  // namespace

Result<bool> parse_command_line(int argc, char** argv, CommandLine* line) {
  RunSettings& settings = line->settings;
  const std::vector<int> default_dims = std::exchange(settings.dims, {});
  const std::vector<OptionRow> table = option_table(line);
  const int bad = scan_words(table, argc, argv);
  if (settings.dims.empty()) settings.dims = default_dims;
  if (bad == kHelpAsked) {
    print_help(table, stderr);
    return false;
  }
  if (bad > 0) {
    std::fprintf(stderr, "ERROR: Unknown argument specified: %s\n", argv[bad]);
    print_help(table, stderr);
    return false;
  }
  if (line->proc_file != 0) add_process_count(&settings.prefix);
  if (Status values = check_values(table, settings); !values.ok()) return values;
  if (Status relative = read_relative_converge(line->converge_relative, &settings.em);
      !relative.ok()) {
    return relative;
  }
  if (settings.em.constrain_Fg == 1.0) settings.em.constrain_Fg = 1.0 - 0.0001;
  line->value_findings = check_finite_values(table, settings.em);
  return true;
}

Result<std::FILE*> open_log(const RunSettings& settings) {
  char name[1024];
  const char* path = "/dev/null";
  if (settings.log_mode == 0 && settings.sge == 0) return stderr;
  if (settings.log_mode == 2) return stderr;
  if (settings.log_mode == 0 || settings.log_mode == 1) {
    // A scheduler's task logs under its id; -L 1 under the process number, 0.
    const int number = settings.log_mode == 0 ? settings.id : 0;
    std::snprintf(name, sizeof name, "%s.log.%06d", settings.prefix.c_str(), number);
    path = name;
  }
  std::FILE* fp = std::fopen(path, "w");
  if (fp == nullptr) return Status::error(std::string("ERROR: Cannot open log file: ") + path);
  return fp;
}

}  // namespace tarn
