#include "core/initial_model.h"

#include "linalg/blas.h"
#include "linalg/matrix.h"
#include "linalg/random_stream.h"

namespace tarn {

void SSM_initial_R(double* R, int p, const double* Y, int n_samples) {
  const double s = 1.0 / n_samples;
  for (int i = 0; i < p; ++i) {
    double sum = 0.0;
    double sum_sq = 0.0;
    for (int j = 0; j < n_samples; ++j) {
      const double y = Y[i + static_cast<std::size_t>(j) * p];
      sum += y;
      sum_sq += y * y;
    }
    const double m = sum * s;
    const double q = sum_sq * s;
    R[i] = q - m * m;
  }
}

void SSM_init(SSM* ssm, const SSMInit* init, int p, int k, const double* Y, int n_samples) {
  RandomStream* stream = init->stream ? init->stream->get() : nullptr;
  dcopy_(&k, &init->mu, &Matrix_INT_ZERO, ssm->exp, &Matrix_INT_ONE);
  Matrix_clear(ssm->var, k, k);
  const double var0 = init->SD * init->SD;
  const int diag_step = k + 1;
  dcopy_(&k, &var0, &Matrix_INT_ZERO, ssm->var, &diag_step);
  RandomStream_gaussian(stream, k * p, ssm->H, init->H_mean, static_cast<double>(k));
  SSM_initial_R(ssm->R, p, Y, n_samples);
  RandomStream_uniform(stream, k * k, ssm->F, init->F_min, init->F_max);
  dcopy_(&k, &Matrix_DOUBLE_ONE, &Matrix_INT_ZERO, ssm->Q, &Matrix_INT_ONE);
}

}  // namespace tarn
