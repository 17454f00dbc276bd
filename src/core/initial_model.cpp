#include "core/initial_model.h"

#include "linalg/blas.h"

namespace tarn {

void compute_initial_R(const DataSet& data, std::span<double> R) {
  const int p = data.p;
  const int n_samples = data.n_samples;
  const double s = 1.0 / n_samples;
  for (int i = 0; i < p; ++i) {
    double sum = 0.0;
    double sum_sq = 0.0;
    for (int j = 0; j < n_samples; ++j) {
      const double y = data.Y[i + static_cast<std::size_t>(j) * p];
      sum += y;
      sum_sq += y * y;
    }
    const double m = sum * s;
    const double q = sum_sq * s;
    R[static_cast<std::size_t>(i)] = q - m * m;
  }
}

void draw_initial_model(const InitialModelSettings& settings, const DataSet& data, int k,
                        StateSpaceModel* model) {
  model->set_state_dimension(k);
  RandomStream& stream = *settings.stream;
  dcopy_(&k, &settings.mu, &blas::kIncZero, model->initial_mean.data(), &blas::kIncOne);
  model->initial_cov.set_zero();
  const double var0 = settings.SD * settings.SD;
  const int diag_step = k + 1;
  dcopy_(&k, &var0, &blas::kIncZero, model->initial_cov.data(), &diag_step);
  stream.gaussian(std::span(model->H.data(), model->H.size()), settings.H_mean,
                  static_cast<double>(k));
  compute_initial_R(data, std::span(model->R.data(), model->R.size()));
  stream.uniform(std::span(model->F.data(), model->F.size()), settings.F_min, settings.F_max);
  dcopy_(&k, &blas::kOne, &blas::kIncZero, model->Q.data(), &blas::kIncOne);
}

}  // namespace tarn
