#pragma once
// The thread mode's record of its sets: per set the finished starts and a
// copy of the best model so far, the copies drawn from a pool of models that
// no set holds.

#include <cstdio>
#include <memory>
#include <vector>

#include "core/em.h"

namespace tarn {

class SetBests {
 public:
  SetBests(std::size_t n_sets, int max_k);

  // Counts a finished start of set place (1 .. n), logs it and keeps a copy
  // of its model when it is the best of the set; returns the starts of the
  // set finished so far.
  int add_start(int place, int thread_num, const Estimate& result, std::FILE* log);

  // The best of the set, or null when no start gave a usable one.
  const Estimate* best_of(int place) const;

  // The set is done: its model goes back to the pool.
  void release(int place);

 private:
  void keep_if_best(int place, const Estimate& result, std::FILE* log);

  int max_k_;
  std::vector<double> best_;  // per place 1 .. n; entry 0 unused
  std::vector<int> finished_;
  std::vector<Estimate> results_;  // model null while the set holds no model
  std::vector<StateSpaceModel*> pool_;
  std::vector<std::unique_ptr<StateSpaceModel>> models_;  // every model ever made
};

}  // namespace tarn
