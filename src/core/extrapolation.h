#pragma once
// Squared extrapolation of the EM map. From three successive models of one
// start, x0, x1 = M(x0) and x2 = M(x1), with r = x1 - x0 and
// v = x2 - 2 x1 + x0, the step
//   x' = x0 + 2 a r + a^2 v,   a = sqrt(r'r / v'v),
// over the parameters the M-step updates (initial mean, H, F and R) jumps
// ahead along the path EM takes; a = 1 gives x2. a is held within
// [1, bound]: the bound grows by 4 each time a step that used it all was
// kept, and shrinks by 4 when one is turned down. The initial mean steps no
// further than its own ratio of |r| to |v|.

#include <cmath>

#include "core/model.h"

namespace tarn {

class Extrapolation {
 public:
  Extrapolation(int p, int max_k);

  // A new estimation: the bound back to 1, no best model.
  void restart() { bound_ = 1.0, at_bound_ = false, best_llh_ = -HUGE_VAL; }

  // The model of the highest likelihood evaluated so far.
  void keep_if_best(const StateSpaceModel& model, double llh) {
    if (llh > best_llh_) copy_model(model, &best_), best_llh_ = llh;
  }
  const StateSpaceModel& best() const { return best_; }
  double best_likelihood() const { return best_llh_; }

  // The models x0 and x1 of the cycle, copied in as the loop passes them.
  void keep_first(const StateSpaceModel& model) { copy_model(model, &first_); }
  void keep_second(const StateSpaceModel& model) { copy_model(model, &second_); }

  // With model holding x2: replaces it by x' and keeps x2, true; false, with
  // model unchanged, where the step would be x2 itself, or where x' leaves
  // the parameter space (a variance not positive, a value not finite). With
  // constrain_F, x' takes the diagonal of F from x2, where the M-step holds it.
  bool extrapolate(bool constrain_F, StateSpaceModel* model);
  // The likelihood of x' was not below that of x1: the step is kept.
  void accept();
  // It was: model goes back to x2.
  void reject(StateSpaceModel* model);

 private:
  StateSpaceModel first_;
  StateSpaceModel second_;
  StateSpaceModel plain_;  // x2, while x' is tried
  StateSpaceModel best_;
  double best_llh_ = -HUGE_VAL;
  double bound_ = 1.0;
  bool at_bound_ = false;
};

}  // namespace tarn
