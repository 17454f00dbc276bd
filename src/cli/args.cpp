#include "cli/args.h"

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "io/convert.h"
#include "io/log.h"
#include "version.h"

namespace tarn {

const char* const ARGS_WITHOUT_KEY = "__ARGS_WITHOUT_KEY__";
const char* const TARN_RIGHTS_LINE =
    "  Copyright (C) 2026 The Tarn-SSM developers. All rights reserved.";

std::unique_ptr<Args> Args_new() {
  auto args = std::make_unique<Args>();
  args->em = std::make_unique<EmSettings>();
  args->init = std::make_unique<InitialModelSettings>();
  return args;
}

namespace {

// The option table of the program; destinations are filled in per run.
enum ArgType { T_INT = 0, T_DOUBLE, T_STRING, T_STRINGS, T_FLAG, T_SWITCH, T_RANGES, T_HELP };

ArgOption* find_option(ArgOption* table, const char* key) {
  for (ArgOption* row = table; row->key != nullptr; ++row) {
    if (std::strcmp(row->key, key) == 0) return row;
  }
  return nullptr;
}

// "on", "1", "true", "t", "yes" give 1; "off", "0", "false", "f", "no" give 0.
int parse_switch(const char* word, int* out) {
  static const char* const on_words[] = {"on", "1", "true", "t", "yes"};
  static const char* const off_words[] = {"off", "0", "false", "f", "no"};
  for (const char* w : on_words) {
    if (strcasecmp(word, w) == 0) return *out = 1, PARSE_OK;
  }
  for (const char* w : off_words) {
    if (strcasecmp(word, w) == 0) return *out = 0, PARSE_OK;
  }
  return PARSE_BAD_SWITCH;
}

// Appends the values of one range piece "lo[-hi][:step]": at most 256 values.
void append_range_piece(const char* piece, std::vector<int>* values, int* count) {
  const char* dash = std::strchr(piece, '-');
  const char* colon = std::strchr(piece, ':');
  const int lo = tarn_atoi(piece);
  const int hi = dash != nullptr ? std::max(lo, tarn_atoi(dash + 1)) : lo;
  const int step = colon != nullptr ? tarn_atoi(colon + 1) : 1;
  int taken = 0;
  std::int64_t v = lo;
  do {
    values->push_back(static_cast<int>(v));
    ++taken;
    v += step;
  } while (v <= hi && taken < 256);
  *count += taken;
}

// Ranges such as "2", "2-6", "2-10:2", "2,4,8-10". Commas are overwritten in
// the word itself.
void parse_ranges(char* word, std::vector<int>* values, int* count) {
  char* piece = word;
  while (piece != nullptr) {
    char* comma = std::strchr(piece, ',');
    if (comma != nullptr) *comma = '\0';
    append_range_piece(piece, values, count);
    piece = comma != nullptr ? comma + 1 : nullptr;
  }
}

bool is_lone_dash(const char* w) {
  return w[0] == '-' && w[1] == '\0';
}

bool is_key_word(const char* w) {
  return w[0] == '-' && !is_lone_dash(w) && !(w[1] >= '0' && w[1] <= '9');
}

}  // namespace

int ParseArgs_parse(ArgOption* table, const char* key, char* value) {
  ArgOption* row = find_option(table, key);
  if (row == nullptr) return PARSE_NO_KEY;
  switch (row->type) {
    case T_FLAG:
      *static_cast<int*>(row->dest) = 1;
      return value != nullptr ? PARSE_FLAG_WITH_VALUE : PARSE_OK;
    case T_HELP:
      *static_cast<int*>(row->dest) = 1;
      return PARSE_HELP;
    default:
      break;
  }
  if (value == nullptr) return PARSE_NEEDS_VALUE;
  switch (row->type) {
    case T_INT:
      *static_cast<int*>(row->dest) = tarn_atoi(value);
      break;
    case T_DOUBLE:
      *static_cast<double*>(row->dest) = tarn_atof(value);
      break;
    case T_STRING:
      *static_cast<const char**>(row->dest) = value;
      break;
    case T_STRINGS:
      static_cast<std::vector<char*>*>(row->dest)->push_back(value);
      ++*row->aux;
      break;
    case T_SWITCH:
      return parse_switch(value, static_cast<int*>(row->dest));
    case T_RANGES:
      parse_ranges(value, static_cast<std::vector<int>*>(row->dest), row->aux);
      break;
    default:
      break;
  }
  return PARSE_OK;
}

void ParseArgs_error(int code, const char* key) {
  if (code == PARSE_NO_KEY) return;
  if (code == PARSE_NEEDS_VALUE) {
    std::fprintf(stderr, "ERROR: \"%s\" takes its argument.\n", key);
  } else {
    std::fprintf(stderr, "ERROR: Arugment parsing failed.\n");
  }
}

int ParseArgs_set(ArgOption* table, int argc, char** argv) {
  if (argc < 2) return 0;
  const char* pending = nullptr;
  for (int i = 1; i < argc; ++i) {
    char* word = argv[i];
    if (is_lone_dash(word)) {
      if (i == argc - 1) break;  // a lone dash as the last word does nothing
      const int r = ParseArgs_parse(table, ARGS_WITHOUT_KEY, argv[i + 1]);
      if (r != PARSE_OK) ParseArgs_error(r, "");
      return i + 1;
    }
    if (is_key_word(word)) {
      if (pending != nullptr) {
        const int r = ParseArgs_parse(table, pending, nullptr);
        if (r == PARSE_HELP) return ARGS_HELP;
        if (r != PARSE_OK) {
          ParseArgs_error(r, pending);
          return i;
        }
      }
      pending = word;
      continue;
    }
    if (pending == nullptr) {
      const int r = ParseArgs_parse(table, ARGS_WITHOUT_KEY, word);
      if (r != PARSE_OK) {
        ParseArgs_error(r, ARGS_WITHOUT_KEY);
        return i;
      }
      continue;
    }
    const int r = ParseArgs_parse(table, pending, word);
    if (r == PARSE_HELP) return ARGS_HELP;
    if (r == PARSE_OK) {
      pending = nullptr;
    } else if (r == PARSE_FLAG_WITH_VALUE) {
      pending = nullptr;
      --i;  // the same word again, now as a positional word
    } else if (r == PARSE_NO_KEY) {
      return i - 1;
    } else {
      ParseArgs_error(r, pending);
      return i;
    }
  }
  if (pending != nullptr) {
    const int r = ParseArgs_parse(table, pending, nullptr);
    if (r == PARSE_HELP) return ARGS_HELP;
    if (r != PARSE_OK) {
      ParseArgs_error(r, pending);
      return argc - 1;
    }
  }
  return 0;
}

void print_help(std::FILE* out) {
  std::fprintf(out, "Tarn SSM  version " TARN_VERSION " (" TARN_BUILD_TIME ")\n%s\n\n",
               TARN_RIGHTS_LINE);
  std::fprintf(out,
               "Usage:\n"
               "  [mpirun [mpi options]] tarnssm [options] file\n"
               "\n"
               "Options: (default values)\n"
               "  -d X[-Y:[Z]]  Region of dimensions. X, Y, and Z are integer values. (4)\n"
               "  -h            Show this help.\n"
               "  -i N          ID to distinguish concurrent executions. (N=1)\n"
               "  -l N          Loop limit in the EM algorithm. (N=%d)\n",
               40000);
  std::fprintf(out,
               "  -L {0|1|2}    Log mode. 0: auto, 1: all, 2: stderr. (0)\n"
               "  -r N          Random seed. (N=%d)\n",
               38);
  std::fprintf(out,
               "  --shift {0|1|2}\n"
               "                Mean shift mode. \n"
               "                  0: do nothing, 1: shift for replicates, 2: shift for all. (1)\n"
               "  --sge         SGE mode. (not specified)\n"
               "  --ssm file\n"
               "                Read SSM model file to calculate state variables.\n"
               "  -s N          Number of models (sets) for one size of dimensions. (N=1)\n"
               "  --threads N   Number of threads. (1)\n"
               "  -e STR        Output file name suffix. (STR=\"dat\")\n"
               "  --each {on|off}\n"
               "                Output resultant matrices/vectors in separate files. (off)\n"
               "  -o STR        Output file name prefix. (STR=\"result\")\n"
               "  --proc-file | -P\n"
               "                Insert the number of processes to the output file prefix. (not\n"
               "                 specified)\n"
               "  --state {on|off}\n"
               "                Output the estimated state variables. (on)\n"
               "  -n N          Iterations (num. of inital values) for EM. (N=%d)\n",
               100);
  std::fputs(
      "  -l N | --em-loop N\n"
      "                Maximum limit of EM loops to converge. (N=20000)\n"
      "  --constrain-F {on|off} | -F {on|off}\n"
      "                Constrain F. (on)\n"
      "  --constrain-Fg X | -g X\n"
      "                Strength of contraining F. 0 < X < 1. (X=1.0)\n"
      "  --update-mu {on|off}\n"
      "                Update mu_0 or not. (on)\n"
      "  -c X | --converge X\n"
      "                Condition of convergence. (X=1.0E-5)\n"
      "  -R {on|off} | --RrI {on|off}\n"
      "                Assume R=rI or diagonal. R: system noise. (off)\n"
      "  --retry N     Maximum retry count. -1 for unlimited retry. (-1)\n"
      "  --abs-converge {on|off}\n"
      "                Use absolute convergence condition. (on)\n"
      "  --ridge X     Ridge. (X=0.0)\n"
      "  --H-mean X    Mean of H (elementwise Gaussian) (X=0.0)\n"
      "  --H-SD X      S.D. of H (elementwise Gaussian) (X=1.0)\n"
      "  --F-max X     Upper bound of F (uniform distribution) (X=1.5)\n"
      "  --F-min X     Lower bound of F (uniform distribution) (X=-1.5)\n"
      "  --mu X        Mean mu_0 (diagonal-elementwise Gaussian) (X=0.0)\n"
      "  --SD X        S.D sd_0 (diagonal-elementwise Gaussian) (X=1.0)\n",
      out);
}

namespace {

struct RangeTarget {
  std::vector<int> values;
  int count = 0;
};

std::vector<ArgOption> make_arg_set(Args* a, RangeTarget* dims) {
  EmSettings* em = a->em.get();
  InitialModelSettings* init = a->init.get();
  return {
      {ARGS_WITHOUT_KEY, T_STRING, &a->input_file, nullptr},
      {"-i", T_INT, &a->id, nullptr},
      {"-d", T_RANGES, &dims->values, &dims->count},
      {"-s", T_INT, &a->sets, nullptr},
      {"-n", T_INT, &a->iterations, nullptr},
      {"-o", T_STRING, &a->prefix, nullptr},
      {"-e", T_STRING, &a->suffix, nullptr},
      {"--each", T_SWITCH, &a->each, nullptr},
      {"-E", T_SWITCH, &a->each, nullptr},
      {"-L", T_INT, &a->log_mode, nullptr},
      {"-r", T_INT, &a->seed, nullptr},
      {"--sge", T_FLAG, &a->sge, nullptr},
      {"--gsl", T_FLAG, &a->gsl, nullptr},
      {"--state", T_SWITCH, &a->state, nullptr},
      {"--shift", T_INT, &a->shift, nullptr},
      {"--threads", T_INT, &a->threads, nullptr},
      {"--converge", T_DOUBLE, &em->converge, nullptr},
      {"-c", T_DOUBLE, &em->converge, nullptr},
      {"--EM-loop", T_INT, &em->em_loop, nullptr},
      {"--em-loop", T_INT, &em->em_loop, nullptr},
      {"-l", T_INT, &em->em_loop, nullptr},
      {"--RrI", T_SWITCH, &em->common_R, nullptr},
      {"-R", T_SWITCH, &em->common_R, nullptr},
      {"--update-mu", T_SWITCH, &em->update_mu, nullptr},
      {"--abs-converge", T_SWITCH, &em->abs_converge, nullptr},
      {"--ridge", T_DOUBLE, &em->ridge, nullptr},
      {"--constrain-F", T_SWITCH, &em->constrain_F, nullptr},
      {"-F", T_SWITCH, &em->constrain_F, nullptr},
      {"--constrain-Fg", T_DOUBLE, &em->constrain_Fg, nullptr},
      {"-g", T_DOUBLE, &em->constrain_Fg, nullptr},
      {"--retry", T_INT, &em->retry, nullptr},
      {"--verbose", T_INT, &em->verbose, nullptr},
      {"-v", T_INT, &em->verbose, nullptr},
      {"--H-mean", T_DOUBLE, &init->H_mean, nullptr},
      {"--H-SD", T_DOUBLE, &init->H_SD, nullptr},
      {"--F-max", T_DOUBLE, &init->F_max, nullptr},
      {"--F-min", T_DOUBLE, &init->F_min, nullptr},
      {"--mu", T_DOUBLE, &init->mu, nullptr},
      {"--SD", T_DOUBLE, &init->SD, nullptr},
      {"--ssm", T_STRING, &a->ssm_file, nullptr},
      {"--proc-file", T_FLAG, &a->proc_file, nullptr},
      {"-P", T_FLAG, &a->proc_file, nullptr},
      {"--debug", T_INT, &a->debug, nullptr},
      {"-h", T_HELP, &a->show_help, nullptr},
      {"--strict", T_FLAG, &a->strict, nullptr},
      {nullptr, 0, nullptr, nullptr},
  };
}

// The log of the run, by the first matching row of the naming table.
std::FILE* open_log(const Args* a) {
  char name[1024];
  const char* path = nullptr;
  if (a->log_mode == 0) {
    if (a->sge != 0 || a->log_by_id != nullptr) {
      std::snprintf(name, sizeof name, "%s.log.%06d", a->prefix, a->id);
      path = name;
    } else if (a->rank != 0) {
      path = "/dev/null";
    } else if (a->nprocs == 1) {
      return stderr;
    } else {
      std::snprintf(name, sizeof name, "%s.log", a->prefix);
      path = name;
    }
  } else if (a->log_mode == 1) {
    std::snprintf(name, sizeof name, "%s.log.%06d", a->prefix, a->rank);
    path = name;
  } else if (a->log_mode == 2) {
    return stderr;
  } else {
    path = "/dev/null";
  }
  std::FILE* fp = std::fopen(path, "w");
  if (fp == nullptr) tarn_fatal("ERROR: Cannot open log file: %s\n", path);
  return fp;
}

}  // namespace

int parse_args(int argc, char** argv, Args* args) {
  RangeTarget dims;
  std::vector<ArgOption> table = make_arg_set(args, &dims);
  const int bad = ParseArgs_set(table.data(), argc, argv);
  if (bad == ARGS_HELP) {
    print_help(TARN_ERR);
    return 0;
  }
  if (bad > 0) {
    std::fprintf(TARN_ERR, "ERROR: Unknown argument specified: %s\n", argv[bad]);
    print_help(TARN_ERR);
    return 0;
  }
  if (!dims.values.empty()) {
    args->dims = std::move(dims.values);
    args->n_dims = dims.count;
  }
  if (args->proc_file != 0) {
    const std::size_t size = std::strlen(args->prefix) + 10;
    std::string renamed(size, '\0');
    const int n = std::snprintf(renamed.data(), size, "%s.P%04d", args->prefix, args->nprocs);
    renamed.resize(static_cast<std::size_t>(std::clamp<int>(n, 0, static_cast<int>(size) - 1)));
    args->prefix_storage = std::move(renamed);
    args->prefix = args->prefix_storage.c_str();
  }
  if (std::strlen(args->prefix) + std::strlen(args->suffix) > 974) {
    tarn_fatal("ERROR: Output file name too long.\n");
  }
  if (args->em->constrain_Fg < 0.0 || args->em->constrain_Fg > 1.0) {
    tarn_fatal("ERROR: Value for -g option neends to be from 0 to 1.\n");
  }
  if (args->em->constrain_Fg == 1.0) args->em->constrain_Fg = 1.0 - 0.0001;
  TARN_ERR = open_log(args);
  return ARGS_RUN;
}

}  // namespace tarn
