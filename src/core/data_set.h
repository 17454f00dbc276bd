#pragma once
// The input table: p objects by n_samples data columns, with the per-sample
// lists of missing rows and the replicate/time map of the columns.

#include <memory>
#include <string>
#include <vector>

namespace tarn {

struct DataSet {
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

// Centres every object: over each replicate (each_replicate = 1) or over all
// samples (each_replicate = 0). Missing cells are left alone.
void shift_means(DataSet* data, int each_replicate);

}  // namespace tarn
