// Random initial models: which numbers of the stream land in H and F, the
// fixed parts, and R as the row variances of the data, replayed on a twin
// stream of the same seed.

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "Args.h"
#include "kalman/dense_reference.h"
#include "model/SSM_init.h"

using dense_ref::same_bits;

namespace {

constexpr int kP = 3, kN = 5;
// Row 1 has a missing cell, stored as 0.0.
const std::vector<double> kY = {1.0, 2.0, -1.0, 3.0, 0.0, 0.5, -2.0, 4.0,
                                2.5, 0.5, -1.0, 1.5, 4.0, 3.0, -0.5};

std::unique_ptr<SSMInit> seeded(std::uint32_t seed) {
  auto init = SSMInit_new();
  RandomStream_new(init->stream.get(), seed);
  return init;
}

RandomStream* stream(const std::unique_ptr<SSMInit>& init) {
  return init->stream->get();
}

}  // namespace

TEST(InitModel, DrawsHThenFThenHThenF) {
  const int k = 4;
  auto init = seeded(39), twin = seeded(39);
  auto ssm = SSM_new(kP, 5);  // a record for a larger k packs the smaller one from its start
  for (int call = 0; call < 2; ++call) {
    SSM_init(ssm.get(), init.get(), kP, k, kY.data(), kN);
    // The first element is 4 times the first standard Gaussian.
    EXPECT_TRUE(call == 1 || std::fabs(ssm->H[0] + 22.03) < 0.01) << ssm->H[0];
    std::vector<double> H(k * kP), F(k * k);
    RandomStream_gaussian(stream(twin), k * kP, H.data(), 0.0, k);
    RandomStream_uniform(stream(twin), k * k, F.data(), -1.5, 1.5);
    EXPECT_TRUE(same_bits(ssm->H, H.data(), k * kP)) << "call " << call;
    EXPECT_TRUE(same_bits(ssm->F, F.data(), k * k)) << "call " << call;
    EXPECT_EQ(stream(init)->x, stream(twin)->x);
  }
  // k = p = 1: the first raw value makes H, the second F.
  auto one = seeded(39);
  SSM_init(ssm.get(), one.get(), 1, 1, kY.data(), kN);
  EXPECT_EQ(stream(one)->x, 22707093u);
  EXPECT_NEAR(ssm->F[0], 1.5 * 0.1338179005001754, 1e-15);
}

TEST(InitModel, HSDIsIgnoredAndHMeanShifts) {
  const int k = 2;
  auto base = seeded(500), no_sd = seeded(500), shifted = seeded(500);
  no_sd->H_SD = 0.0;
  shifted->H_mean = 2.5;
  auto a = SSM_new(kP, k), b = SSM_new(kP, k), c = SSM_new(kP, k);
  SSM_init(a.get(), base.get(), kP, k, kY.data(), kN);
  SSM_init(b.get(), no_sd.get(), kP, k, kY.data(), kN);
  SSM_init(c.get(), shifted.get(), kP, k, kY.data(), kN);
  EXPECT_TRUE(same_bits(a->H, b->H, k * kP));
  for (int i = 0; i < k * kP; ++i) EXPECT_EQ(c->H[i], 2.5 + a->H[i]);
  EXPECT_TRUE(same_bits(a->F, c->F, k * k));
}

TEST(InitModel, FixedPartsRowVariancesAndEmptyFRange) {
  const int k = 3;
  auto init = seeded(8), twin = seeded(8);
  init->mu = 0.7;
  init->SD = 1.5;
  init->F_min = init->F_max = 0.5;  // the uniform draw refuses
  auto ssm = SSM_new(kP, k);
  for (int i = 0; i < k * k; ++i) ssm->F[i] = -7.0;
  SSM_init(ssm.get(), init.get(), kP, k, kY.data(), kN);
  const std::vector<double> R_first(ssm->R.get(), ssm->R.get() + kP);
  SSM_init(ssm.get(), init.get(), kP, k, kY.data(), kN);
  for (int i = 0; i < k; ++i) {
    EXPECT_EQ(ssm->exp[i], 0.7);
    EXPECT_EQ(ssm->Q[i], 1.0);
    for (int j = 0; j < k; ++j) EXPECT_EQ(ssm->var[i + j * k], i == j ? 2.25 : 0.0);
  }
  for (int i = 0; i < k * k; ++i) EXPECT_EQ(ssm->F[i], -7.0);
  // The stream moved by k p per call, for H alone.
  std::vector<double> skip(2 * k * kP);
  RandomStream_uniform(stream(twin), 2 * k * kP, skip.data(), 0.0, 1.0);
  EXPECT_EQ(stream(init)->x, stream(twin)->x);
  // Two-pass variance with divisor n_samples, the missing 0.0 counted.
  for (int i = 0; i < kP; ++i) {
    double mean = 0.0, ss = 0.0;
    for (int s = 0; s < kN; ++s) mean += kY[static_cast<std::size_t>(i + s * kP)] / kN;
    for (int s = 0; s < kN; ++s) ss += std::pow(kY[static_cast<std::size_t>(i + s * kP)] - mean, 2);
    EXPECT_NEAR(ssm->R[i], ss / kN, 1e-12) << "row " << i;
    EXPECT_EQ(ssm->R[i], R_first[static_cast<std::size_t>(i)]) << "row " << i;
  }
}
