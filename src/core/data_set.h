#pragma once
// The input table: p objects by n_samples data columns, with the per-sample
// lists of missing rows and the replicate/time map of the columns.

#include <memory>
#include <string>
#include <vector>

#include "io/memory_budget.h"

namespace tarn {

struct SSMData {
  std::vector<double> Y;  // p x n_samples, column-major; missing cells hold 0.0
  int n_samples = 0;
  int p = 0;
  int T = 0;
  int n_replicates = 0;
  // sample_at[r][t - 1]: column of replicate r at time t, or -1.
  std::vector<int*> sample_at;
  // missing[s]: ascending rows missing in column s, ended by -1.
  std::vector<int*> missing;

  std::vector<int> sample_at_block;
  std::vector<int> missing_block;

  // Where each object came from: its row name and its line in the file.
  std::vector<std::string> names;
  std::vector<int> lines;
  // Cells and labels the reader took in a way the file's author may not have
  // meant (an empty cell, text after a number, a repeated column...), one
  // sentence per kind, without the WARNING/ERROR word in front.
  std::vector<std::string> doubts;
  // Cells no estimation can work with (infinite, or too large to square), in
  // one sentence, or empty.
  std::string unfit_cells;
};

// What reading may take: the memory the run may use, and the bytes that each
// time point of the table adds to the run beyond the table (its filters'
// tables).
struct ReadBudget {
  double memory_bytes = memory_limit_bytes();
  double bytes_per_time_point = 0.0;
};

// Reads the table from the named file, or from standard input for null.
// Ends the process on malformed input, and on a time grid that does not fit
// the budget, before allocating it.
std::unique_ptr<SSMData> read_file(const char* file_name, const ReadBudget& budget = {});

// Writes the "--- INPUT DATA ---" report to the log.
void SSMData_print_summary(const SSMData* data);

// Ends the process when the table has no object or no sample to work on.
void SSMData_require_samples(const SSMData* data);

// Centres every object: over each replicate (each_replicate = 1) or over all
// samples (each_replicate = 0). Missing cells are left alone.
void SSMData_node_mean_shift(SSMData* data, int each_replicate);

// "name (line n)" of object i, for messages.
std::string SSMData_object_label(const SSMData* data, int i);

}  // namespace tarn
