#pragma once
// What a run is asked to do, as the command line leaves it.

#include <optional>
#include <string>
#include <vector>

#include "core/options.h"

namespace tarn {

struct RunSettings {
  int id = 1;  // tells concurrent runs apart; the task of an array job
  int seed = 38;
  std::vector<int> dims{4};  // state dimensions, in the order they are run
  int sets = 1;              // sets estimated per dimension
  int iterations = 100;      // random starts per set
  std::string prefix = "result";
  std::string suffix = "dat";
  int each = 0;                           // one file per matrix
  std::optional<std::string> input_file;  // standard input when absent
  int log_mode = 0;                       // 0 auto, 1 file, 2 standard error, else none
  int sge = 0;                            // one task of an array job
  EmSettings em;
  InitialModelSettings init;
  std::optional<std::string> model_file;  // --ssm: the apply mode
  int state = 1;                          // write the state variables
  int shift = 1;                          // 0 none, 1 per replicate, 2 over all
  int threads = 1;
  int strict = 0;  // doubtful readings of the table are errors
};

}  // namespace tarn
