#pragma once
// The shared table of the thread mode: per set the best result so far, and a
// pool of models not held by any set.

#include <memory>
#include <vector>

#include "cli/args.h"
#include "core/data_set.h"
#include "core/em.h"

namespace tarn {

struct SetTable {
  SetTable(std::size_t n_sets, int max_k);
  int max_k;
  std::vector<double> best;  // per set id 1 .. n; entry 0 unused
  std::vector<int> finished;
  std::vector<Estimate> results;  // model null while the set holds no model
  std::vector<StateSpaceModel*> pool;
  std::vector<std::unique_ptr<StateSpaceModel>> models;  // every model ever made
};

// Compares a finished task with the best of its set and keeps a copy of the
// model when it is better.
void update(SetTable* table, int sid, const Estimate& result);

// Counts a finished task, logs it, updates the set, and writes the set's
// files when it was the set's last task. Runs under the lock.
void finish_task(SetTable* table, const Args* args, const SSMData* data, int sid, int thread_num,
                 const Estimate& result, Workspace* work, Trajectory* state_store);

}  // namespace tarn
