// Random initial models: which numbers of the stream land in H and F, the
// fixed parts, and R as the row variances of the data, replayed on a twin
// stream of the same seed.

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "cli/args.h"
#include "core/dense_reference.h"
#include "core/initial_model.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

using dense_ref::same_bits;

TEST(InitModel, DrawsReplayedOnATwinStream) {
  const int p = 3, n = 5, k = 3;
  // Row 1 has a missing cell, stored as 0.0.
  const std::vector<double> Y = {1.0, 2.0, -1.0, 3.0, 0.0, 0.5, -2.0, 4.0,
                                 2.5, 0.5, -1.0, 1.5, 4.0, 3.0, -0.5};
  auto init = SSMInit_new(), twin = SSMInit_new();
  RandomStream_new(init->stream.get(), 39);
  RandomStream_new(twin->stream.get(), 39);
  RandomStream* const twin_stream = twin->stream->get();
  init->H_mean = 2.5;
  init->H_SD = 0.0;  // read by nothing
  init->mu = 0.7;
  init->SD = 1.5;
  auto ssm = SSM_new(p, 5);  // a record for a larger k packs the smaller one from its start
  std::vector<double> H(k * p), F(k * k);
  for (int call = 0; call < 3; ++call) {
    SCOPED_TRACE(testing::Message() << "call " << call);
    // The third call has an empty F range: the uniform draw refuses and F
    // keeps what it held.
    if (call == 2) init->F_min = init->F_max = 0.5;
    SSM_init(ssm.get(), init.get(), p, k, Y.data(), n);
    RandomStream_gaussian(twin_stream, k * p, H.data(), 0.0, k);
    if (call < 2) RandomStream_uniform(twin_stream, k * k, F.data(), -1.5, 1.5);
    for (int i = 0; i < k * p; ++i) EXPECT_EQ(ssm->H[i], 2.5 + H[i]);
    EXPECT_TRUE(same_bits(ssm->F, F.data(), k * k));
    EXPECT_EQ(init->stream->get()->x, twin_stream->x);
    for (int i = 0; i < k; ++i) {
      EXPECT_EQ(ssm->exp[i], 0.7);
      EXPECT_EQ(ssm->Q[i], 1.0);
      for (int j = 0; j < k; ++j) EXPECT_EQ(ssm->var[i + j * k], i == j ? 2.25 : 0.0);
    }
    // Two-pass variance with divisor n_samples, the missing 0.0 counted.
    for (int i = 0; i < p; ++i) {
      double mean = 0.0, ss = 0.0;
      for (int s = 0; s < n; ++s) mean += Y[static_cast<std::size_t>(i + s * p)] / n;
      for (int s = 0; s < n; ++s) ss += std::pow(Y[static_cast<std::size_t>(i + s * p)] - mean, 2);
      EXPECT_NEAR(ssm->R[i], ss / n, 1e-12) << "row " << i;
    }
  }
}
