// Accelerated EM against plain EM from the same initial model on the firm
// table: the plain likelihood in a fifth of the passes; a likelihood that
// never falls from one pass limit to the next and belongs to the model
// returned, with F free or constrained, a constrained F within its
// constraint. The extrapolation on numbers worked by hand; the relative test
// ends a run without changing it.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>

#include "core/em.h"
#include "core/initial_model.h"
#include "io/read_table.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

constexpr int kK = 2;

class Acceleration : public testing::Test {
 protected:
  void SetUp() override {
    std::FILE* quiet = std::tmpfile();
    auto read = read_table_file(TARN_EXAMPLES_DIR "/data/grunfeld-11firms.txt", quiet);
    std::fclose(quiet);
    ASSERT_TRUE(read.ok());
    table_ = std::move(read.value());
    data_ = std::make_unique<EmData>(*table_);
    InitialModelSettings init;
    init.stream = std::make_unique<RandomStream>(5);
    initial_ = std::make_unique<StateSpaceModel>(table_->p, kK);
    draw_initial_model(init, *table_, kK, initial_.get());
  }

  // EM from the initial model; model holds the result.
  Estimate run(const EmSettings& em, StateSpaceModel* model) {
    copy_model(*initial_, model);
    EmBuffers buffers(table_->p, kK, table_->T, em.constrain_F != 0, em.accelerate != 0);
    if (em.constrain_F != 0) prepare_F_constraint(&buffers.workspace, kK);
    BatchProducts products(table_->p, data_->columns(), kK, 1);
    return run_em(em, *data_, model, &buffers, &products, stderr);
  }

  double likelihood_of(const StateSpaceModel& model) {
    EmBuffers buffers(table_->p, kK, table_->T, false);
    BatchProducts products(table_->p, data_->columns(), kK, 1);
    return e_step(model, *data_, &buffers, &products);
  }

  std::unique_ptr<DataSet> table_;
  std::unique_ptr<EmData> data_;
  std::unique_ptr<StateSpaceModel> initial_;
};

// Where plain EM is still climbing after its passes, accelerated EM is at
// least as high after a fifth of them.
TEST_F(Acceleration, ReachesThePlainLikelihoodInAFifthOfThePasses) {
  constexpr int kPasses = 5000;
  const EmSettings plain{.converge = 0.0, .em_loop = kPasses, .constrain_F = 0};
  EmSettings accelerated = plain;
  accelerated.accelerate = 1;
  accelerated.em_loop = kPasses / 5;
  StateSpaceModel model(table_->p, kK);
  const double slow = run(plain, &model).log_likelihood;
  const double fast = run(accelerated, &model).log_likelihood;
  EXPECT_GE(fast, slow - 1e-6 * std::fabs(slow));
}

TEST_F(Acceleration, LikelihoodNeverFallsAndBelongsToTheModel) {
  for (const int constrain_F : {0, 1}) {
    SCOPED_TRACE(constrain_F);
    StateSpaceModel model(table_->p, kK);
    double before = -HUGE_VAL;
    for (int limit = 1; limit <= 80; ++limit) {
      const EmSettings em{
          .converge = 0.0, .em_loop = limit, .accelerate = 1, .constrain_F = constrain_F};
      const Estimate result = run(em, &model);
      ASSERT_EQ(result.loops, limit);
      EXPECT_EQ(result.log_likelihood, likelihood_of(model)) << "limit " << limit;
      for (int i = 0; constrain_F != 0 && limit > 1 && i < kK; ++i) {
        EXPECT_NEAR(model.F(i, i), em.constrain_Fg, 1e-12);
      }
      EXPECT_GE(result.log_likelihood, before) << "limit " << limit;
      before = result.log_likelihood;
    }
  }
}

TEST_F(Acceleration, RelativeTestEndsTheRunItWouldNotChange) {
  constexpr double kRelative = 1e-6;
  const EmSettings relative{
      .converge = 0.0, .em_loop = 100000, .converge_relative = kRelative, .constrain_F = 0};
  StateSpaceModel model(table_->p, kK);
  const Estimate ended = run(relative, &model);
  EXPECT_TRUE(ended.converged);
  EXPECT_EQ(ended.stopped_by, StopReason::relative_test);
  // The same passes under a loop limit, and the changes of the last two.
  double llh[3];
  for (int back = 0; back < 3; ++back) {
    const EmSettings limited{.converge = 0.0, .em_loop = ended.loops - back, .constrain_F = 0};
    llh[back] = run(limited, &model).log_likelihood;
  }
  EXPECT_EQ(llh[0], ended.log_likelihood);
  EXPECT_LT(std::fabs(llh[0] - llh[1]), kRelative * std::fabs(llh[0]));
  EXPECT_GE(std::fabs(llh[1] - llh[2]), kRelative * std::fabs(llh[1]));
}

}  // namespace

// x0, x1, x2 with r = 1 and v = -0.5 in every parameter: a = sqrt(1 / 0.25) =
// 2 once the bound allows it, x' = x0 + 2a r + a^2 v = x0 + 2.
TEST(Extrapolation, StepsAsFarAsTheBoundAllowsWithinTheParameterSpace) {
  const int p = 2, k = 1;
  auto model_at = [&](double shift) {
    StateSpaceModel m(p, k);
    m.initial_mean[0] = shift;
    m.H[0] = 1.0 + shift, m.H[1] = -1.0 + shift;
    m.R[0] = 3.0 + shift, m.R[1] = 2.0 + shift;
    m.F[0] = 0.5 + shift;
    return m;
  };
  Extrapolation step(p, k);
  StateSpaceModel x = model_at(1.5);
  step.keep_first(model_at(0.0));
  step.keep_second(model_at(1.0));
  EXPECT_FALSE(step.extrapolate(false, &x));  // the bound is 1: x2 itself, and it grows
  EXPECT_EQ(x.H[0], 2.5);
  EXPECT_TRUE(step.extrapolate(false, &x));
  EXPECT_EQ(x.H[0], 3.0);
  EXPECT_EQ(x.R[1], 4.0);
  step.reject(&x);
  EXPECT_EQ(x.H[0], 2.5);
  // With the constraint, F keeps x2's diagonal.
  EXPECT_TRUE(step.extrapolate(true, &x));
  EXPECT_EQ(x.F[0], 2.0);
  step.reject(&x);
  // A step that would leave a variance at 0 is not taken.
  step.keep_first(model_at(0.0));
  step.keep_second(model_at(-1.0));
  x = model_at(-1.5);
  EXPECT_FALSE(step.extrapolate(false, &x));
  EXPECT_EQ(x.R[1], 0.5);
}
