#pragma once
// The job of a run: which sets it estimates, of which dimension, under which
// number in the file names, and in which order. Every mode works through
// (its part of) this one list; each set takes `starts` random starts.

#include <span>
#include <vector>

#include "io/set_lock.h"
#include "io/status.h"
#include "run/settings.h"

namespace tarn {

struct PlannedSet {
  int k;          // state dimension
  int dim_index;  // position of k in the dims of the run
  int number;     // the set number in the file names
};

struct Job {
  std::vector<int> dims;
  int sets_per_dim = 0;
  int starts = 0;
  std::vector<PlannedSet> sets;  // in the order they are started
};

// The single and thread modes plan every dim and set; the array mode the one
// set its id picks (none when the id is outside the job).
Job plan_job(const RunSettings& settings);

// The sets whose files the run writes, for their locks: none when no start is
// run.
std::vector<SetId> written_sets(const Job& job);

// The largest of dims, searched from -2147483647.
int max_dimension(std::span<const int> dims);

// An error for the first dimension below 1.
Status require_dimensions(std::span<const int> dims);

}  // namespace tarn
