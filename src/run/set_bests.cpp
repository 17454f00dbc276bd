#include "run/set_bests.h"

#include <cfloat>

namespace tarn {

SetBests::SetBests(std::size_t n_sets, int max_k)
    : max_k_(max_k),
      best_(n_sets + 1, -DBL_MAX),
      finished_(n_sets + 1, 0),
      results_(n_sets + 1, Estimate{0.0, 0.0, false, false, 0, nullptr}) {}

void SetBests::keep_if_best(int place, const Estimate& result, std::FILE* log) {
  if (!(is_usable_likelihood(result.log_likelihood) && result.log_likelihood > best_[place]))
    return;
  best_[place] = result.log_likelihood;
  std::fprintf(log, "Best likelihood updated for set id = %d.\n", place);
  std::fflush(log);
  StateSpaceModel* holder = results_[place].model;
  if (holder == nullptr && !pool_.empty()) {
    holder = pool_.back();
    pool_.pop_back();
  }
  if (holder == nullptr) {
    // A model that cannot be made throws std::bad_alloc; none is ever null.
    models_.push_back(std::make_unique<StateSpaceModel>(result.model->p(), max_k_));
    holder = models_.back().get();
  }
  copy_model(*result.model, holder);
  results_[place] = result;
  results_[place].model = holder;
}

int SetBests::add_start(int place, int thread_num, const Estimate& result, std::FILE* log) {
  const int done = ++finished_[place];
  std::fprintf(log, "{%d} set=%d, dim=%d, likelihood=%f, loops=%d, finished=%d\n", thread_num,
               place, result.model->k(), result.log_likelihood, result.loops, done);
  keep_if_best(place, result, log);
  std::fflush(log);
  return done;
}

const Estimate* SetBests::best_of(int place) const {
  return results_[place].model != nullptr ? &results_[place] : nullptr;
}

void SetBests::release(int place) {
  if (results_[place].model == nullptr) return;
  pool_.push_back(results_[place].model);
  results_[place].model = nullptr;
}

}  // namespace tarn
