#pragma once
// The run configuration and the table-driven command-line parser.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/options.h"

namespace tarn {

struct Args {
  int id = 1;
  int seed = 38;
  std::vector<int> dims{4};
  int n_dims = 1;
  int sets = 1;
  int iterations = 100;
  const char* prefix = "result";
  const char* suffix = "dat";
  int each = 0;
  const char* input_file = nullptr;
  int log_mode = 0;
  int sge = 0;
  std::unique_ptr<EmSettings> em;
  std::unique_ptr<InitialModelSettings> init;
  int gsl = 0;    // accepted and stored, read by nothing
  int debug = 0;  // accepted and stored, read by nothing
  int rank = 0;
  int nprocs = 1;
  const char* ssm_file = nullptr;
  int state = 1;
  int shift = 1;
  int proc_file = 0;
  int threads = 1;
  const void* log_by_id = nullptr;
  int output_option = 0;
  int strict = 0;     // --strict: doubtful readings of the table are errors
  int show_help = 0;  // -h was given: the run prints the help and ends

  std::string prefix_storage;  // owns prefix once -P has rewritten it
};

std::unique_ptr<Args> Args_new();

// One row of an option table; a row with a null key ends the table.
struct ArgOption {
  const char* key;
  int type;    // 0 int, 1 double, 2 string, 3 string list, 4 flag, 5 on/off, 6 int ranges, 7 help
  void* dest;  // int*, double*, const char**, std::vector<char*>*, std::vector<int>*
  int* aux;    // count of a string list or of int ranges
};

// Result codes of ParseArgs_parse.
enum {
  PARSE_OK = 0,
  PARSE_NO_KEY = -1,
  PARSE_NEEDS_VALUE = -2,
  PARSE_FLAG_WITH_VALUE = -3,
  PARSE_BAD_SWITCH = -4,
  PARSE_HELP = 1,  // the help was asked for: the scan stops here
};

// What ParseArgs_set returns when the help was asked for.
constexpr int ARGS_HELP = -1;

extern const char* const ARGS_WITHOUT_KEY;

int ParseArgs_parse(ArgOption* table, const char* key, char* value);
// 0 when all words were taken, ARGS_HELP when the help was asked for, or the
// positive index of the word to complain about.
int ParseArgs_set(ArgOption* table, int argc, char** argv);
void ParseArgs_error(int code, const char* key);

// What parse_args leaves the run to do.
constexpr int ARGS_RUN = -1;

// Fills args from the command line, checks it, opens the log and points
// TARN_ERR at it. Returns ARGS_RUN, or the exit status of a run that ends
// here: 0 after the help (-h, or a rejected command line with its error).
int parse_args(int argc, char** argv, Args* args);

void print_help(std::FILE* out);

// The rights line shared by the banner and the help text.
extern const char* const TARN_RIGHTS_LINE;

}  // namespace tarn
