#include "em/SSM_EM.h"
#include "kalman/Kalman.h"
#include "math/Matrix.h"
#include "math/SmallMatrix.h"
#include "math/blas.h"

void SSMSuffStat_calc(SSMSuffStat* each, const SSMState* state, const SSM* ssm, int p, int k,
                      int T, const int* sample_at_r, const double* Y, const int* const* missing,
                      double* /*vec_p*/, double* /*mat_pk*/, double* mat_k3, double* vec_k) {
  const int kk = k * k;
  const SSMState* s = state;
  SSMSuffStat_set_zero(each, p, k);
  Matrix_copy(each->x0, s->Xs[0], k, 1);
  for (int t = 0; t < T; ++t) {
    dger_(&k, &k, &Matrix_DOUBLE_ONE, s->Xs[t], &Matrix_INT_ONE, s->Xs[t], &Matrix_INT_ONE,
          each->xx_prev, &k);
    daxpy_(&kk, &Matrix_DOUBLE_ONE, s->Vs[t], &Matrix_INT_ONE, each->xx_prev, &Matrix_INT_ONE);
    dger_(&k, &k, &Matrix_DOUBLE_ONE, s->Xs[t + 1], &Matrix_INT_ONE, s->Xs[t], &Matrix_INT_ONE,
          each->xx_lag, &k);
    daxpy_(&kk, &Matrix_DOUBLE_ONE, s->Vlag[t], &Matrix_INT_ONE, each->xx_lag, &Matrix_INT_ONE);

    const int col = sample_at_r[t];
    if (col == -1) continue;
    const double* y = Y + static_cast<std::size_t>(col) * static_cast<std::size_t>(p);
    // yy += y^2 and yx += y Xs[t+1]', straight into the sums. A missing row
    // adds the 0.0 that Y holds there, and its conditional expectation below.
    for (int i = 0; i < p; ++i) each->yy[i] += y[i] * y[i];
    dger_(&p, &k, &Matrix_DOUBLE_ONE, y, &Matrix_INT_ONE, s->Xs[t + 1], &Matrix_INT_ONE, each->yx,
          &p);
    // P(t+1) = Vs[t+1] + Xs[t+1] Xs[t+1]'.
    Matrix_copy(mat_k3, s->Vs[t + 1], k, k);
    dger_(&k, &k, &Matrix_DOUBLE_ONE, s->Xs[t + 1], &Matrix_INT_ONE, s->Xs[t + 1],
          &Matrix_INT_ONE, mat_k3, &k);
    // Missing rows: R[m] + h P h' and h P, the expectations given what is observed.
    for (const int* m = missing[col]; *m != -1; ++m) {
      const double* h = ssm->H + *m;
      for (int i = 0; i < k; ++i) vec_k[i] = 0.0;
      for (int j = 0; j < k; ++j) {
        const double hj = h[static_cast<std::size_t>(j) * p];
        const double* column = mat_k3 + static_cast<std::size_t>(j) * k;
        for (int i = 0; i < k; ++i) vec_k[i] += hj * column[i];
      }
      double hPh = 0.0;
      for (int j = 0; j < k; ++j) hPh += h[static_cast<std::size_t>(j) * p] * vec_k[j];
      each->yy[*m] += ssm->R[*m] + hPh;
      double* yx_row = each->yx + *m;
      for (int j = 0; j < k; ++j) yx_row[static_cast<std::size_t>(j) * p] += vec_k[j];
    }
    daxpy_(&kk, &Matrix_DOUBLE_ONE, mat_k3, &Matrix_INT_ONE, each->xx_obs, &Matrix_INT_ONE);
  }
}

namespace {

// total += each, field by field in record order.
void add_suff_stat(SSMSuffStat* total, const SSMSuffStat* each, int p, int k) {
  const int kk = k * k;
  const int pk = p * k;
  daxpy_(&k, &Matrix_DOUBLE_ONE, each->x0, &Matrix_INT_ONE, total->x0, &Matrix_INT_ONE);
  daxpy_(&p, &Matrix_DOUBLE_ONE, each->yy, &Matrix_INT_ONE, total->yy, &Matrix_INT_ONE);
  daxpy_(&pk, &Matrix_DOUBLE_ONE, each->yx, &Matrix_INT_ONE, total->yx, &Matrix_INT_ONE);
  daxpy_(&kk, &Matrix_DOUBLE_ONE, each->xx_obs, &Matrix_INT_ONE, total->xx_obs, &Matrix_INT_ONE);
  daxpy_(&kk, &Matrix_DOUBLE_ONE, each->xx_lag, &Matrix_INT_ONE, total->xx_lag, &Matrix_INT_ONE);
  daxpy_(&kk, &Matrix_DOUBLE_ONE, each->xx_prev, &Matrix_INT_ONE, total->xx_prev,
         &Matrix_INT_ONE);
}

}  // namespace

double SSM_EM_estimate(const SSM* ssm, SSMState* state, SSMSuffStat* each, SSMSuffStat* total,
                       const SSMData* data, int k, SSMWork* work, double ridge) {
  const int p = data->p;
  const int T = data->T;
  SSMSuffStat_set_zero(total, p, k);
  double llh = 0.0;
  for (int r = 0; r < data->n_replicates; ++r) {
    const int* sample_at_r = data->sample_at[static_cast<std::size_t>(r)];
    llh += Kalman_filter(ssm, state, p, k, T, data->Y.data(), sample_at_r, data->missing.data(),
                         work);
    Kalman_smoother(state, k, T, work->vec_k, work->mat_k1, work->mat_k2);
    for (int t = 0; t < T; ++t) {
      Small_gemm('N', 'N', k, 1.0, state->J[t], state->Vs[t + 1], 0.0, state->Vlag[t]);
    }
    SSMSuffStat_calc(each, state, ssm, p, k, T, sample_at_r, data->Y.data(), data->missing.data(),
                     work->vec_p, work->mat_pk, work->mat_k3, work->vec_k);
    add_suff_stat(total, each, p, k);
  }
  // The ridge lands on the last replicate's sums, which the M-step never reads.
  if (ridge > 0.0) {
    for (int i = 0; i < k; ++i) {
      each->xx_obs[i + i * k] += ridge;
      each->xx_prev[i + i * k] += ridge;
    }
  }
  return llh;
}
