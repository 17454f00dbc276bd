#include <cfloat>
#include <cmath>

#include "core/em.h"

namespace tarn {

bool is_usable_likelihood(double value) {
  return std::isnormal(value);
}

namespace {

// BIC = -2 llh + log(n_samples) m, m the number of free parameters.
double bic_of(double llh, int p, int k, const EmSettings& settings, int n_samples) {
  double m = static_cast<double>((k + 1) * p) + static_cast<double>(k * k + k) * 0.5;
  if (settings.update_mu != 0) m += static_cast<double>(k);
  return llh * -2.0 + std::log(n_samples) * m;
}

}  // namespace

Estimate run_em(const EmSettings& settings, const EmData& data, StateSpaceModel* model,
                EmBuffers* buffers, BatchProducts* products, std::FILE* log) {
  int i = 0;
  double prev = -DBL_MAX;
  bool monotone = true;
  double llh = 0.0;
  bool converged = false;
  for (;;) {
    llh = e_step(*model, data, buffers, products);
    if (i > settings.em_loop / 10 && std::isnan(llh)) {
      converged = false;
      break;
    }
    double diff = llh - prev;
    if (settings.abs_converge != 0) diff = std::fabs(diff);
    if (diff < 0.0) monotone = false;
    if (!std::isnan(llh) && settings.converge > diff) {
      converged = true;
      break;
    }
    if (i == settings.em_loop - 1) {
      converged = false;
      break;
    }
    m_step(settings, data.table(), buffers->total_sums, model, &buffers->workspace);
    prev = llh;
    ++i;
    if (settings.verbose >= 2) {
      std::fprintf(log, "(%d) llh = %f\n", i, llh);
      std::fflush(log);
    }
  }
  if (settings.verbose > 0) {
    std::fprintf(log, "SSM_EM_algo(): Estimation finished. llh=%f\n", llh);
    std::fflush(log);
  }
  const double bic = bic_of(llh, data.p(), model->k(), settings, data.table().n_samples);
  return Estimate{llh, bic, monotone, converged, i + 1, model};
}

}  // namespace tarn
