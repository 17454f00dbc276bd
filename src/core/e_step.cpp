#include "core/em.h"
#include "core/kalman.h"
#include "linalg/blas.h"
#include "linalg/matrix.h"
#include "linalg/small_matrix.h"

namespace tarn {

namespace {

using small::at;
using small::dim;

// yy += y^2 and yx += y x', one pass over the rows.
template <int K>
void add_sample(int p, int k_, const double* __restrict y, const double* __restrict x,
                double* __restrict yy, double* __restrict yx) {
  const int k = dim<K>(k_);
  for (int i = 0; i < p; ++i) {
    yy[i] += y[i] * y[i];
    for (int j = 0; j < k; ++j) yx[at(i, j, p)] += y[i] * x[j];
  }
}

template <int K>
void suff_stat(SSMSuffStat* each, const SSMState* s, const SSM* ssm, int p, int k_, int T,
               const int* sample_at_r, const double* Y, const int* const* missing, double* P,
               double* vec_k) {
  const int k = dim<K>(k_);
  const int kk = k * k;
  SSMSuffStat_set_zero(each, p, k);
  small::copy(k, s->Xs[0], each->x0);
  for (int t = 0; t < T; ++t) {
    small::ger<K>(k, 1.0, s->Xs[t], s->Xs[t], each->xx_prev);
    small::axpy(kk, 1.0, s->Vs[t], each->xx_prev);
    small::ger<K>(k, 1.0, s->Xs[t + 1], s->Xs[t], each->xx_lag);
    small::axpy(kk, 1.0, s->Vlag[t], each->xx_lag);

    const int col = sample_at_r[t];
    if (col == -1) continue;
    const double* y = Y + static_cast<std::size_t>(col) * static_cast<std::size_t>(p);
    // Straight into the sums: a missing row adds the 0.0 that Y holds there,
    // and its conditional expectation below.
    add_sample<K>(p, k, y, s->Xs[t + 1], each->yy, each->yx);
    // P(t+1) = Vs[t+1] + Xs[t+1] Xs[t+1]'.
    small::copy(kk, s->Vs[t + 1], P);
    small::ger<K>(k, 1.0, s->Xs[t + 1], s->Xs[t + 1], P);
    // Missing rows: R[m] + h P h' and h P, the expectations given what is observed.
    for (const int* m = missing[col]; *m != -1; ++m) {
      const double* h = ssm->H + *m;
      small::gemv<K>(k, 1.0, P, h, static_cast<std::size_t>(p), 0.0, vec_k);
      each->yy[*m] += ssm->R[*m] + small::dot(k, h, static_cast<std::size_t>(p), vec_k);
      double* yx_row = each->yx + *m;
      for (int j = 0; j < k; ++j) yx_row[at(0, j, p)] += vec_k[j];
    }
    small::axpy(kk, 1.0, P, each->xx_obs);
  }
}

// total += each, field by field in record order.
void add_suff_stat(SSMSuffStat* total, const SSMSuffStat* each, int p, int k) {
  const int kk = k * k;
  const int pk = p * k;
  daxpy_(&k, &Matrix_DOUBLE_ONE, each->x0, &Matrix_INT_ONE, total->x0, &Matrix_INT_ONE);
  daxpy_(&p, &Matrix_DOUBLE_ONE, each->yy, &Matrix_INT_ONE, total->yy, &Matrix_INT_ONE);
  daxpy_(&pk, &Matrix_DOUBLE_ONE, each->yx, &Matrix_INT_ONE, total->yx, &Matrix_INT_ONE);
  daxpy_(&kk, &Matrix_DOUBLE_ONE, each->xx_obs, &Matrix_INT_ONE, total->xx_obs, &Matrix_INT_ONE);
  daxpy_(&kk, &Matrix_DOUBLE_ONE, each->xx_lag, &Matrix_INT_ONE, total->xx_lag, &Matrix_INT_ONE);
  daxpy_(&kk, &Matrix_DOUBLE_ONE, each->xx_prev, &Matrix_INT_ONE, total->xx_prev, &Matrix_INT_ONE);
}

}  // namespace

void SSMSuffStat_calc(SSMSuffStat* each, const SSMState* state, const SSM* ssm, int p, int k, int T,
                      const int* sample_at_r, const double* Y, const int* const* missing,
                      double* /*vec_p*/, double* /*mat_pk*/, double* mat_k3, double* vec_k) {
  small::with_fixed_size(k, [&](auto fixed) {
    suff_stat<decltype(fixed)::value>(each, state, ssm, p, k, T, sample_at_r, Y, missing, mat_k3,
                                      vec_k);
  });
}

double SSM_EM_estimate(const SSM* ssm, SSMState* state, SSMSuffStat* each, SSMSuffStat* total,
                       const SSMData* data, int k, SSMWork* work, double ridge) {
  const int p = data->p;
  const int T = data->T;
  SSMSuffStat_set_zero(total, p, k);
  double llh = 0.0;
  for (int r = 0; r < data->n_replicates; ++r) {
    const int* sample_at_r = data->sample_at[static_cast<std::size_t>(r)];
    llh +=
        Kalman_filter(ssm, state, p, k, T, data->Y.data(), sample_at_r, data->missing.data(), work);
    Kalman_smoother(state, k, T, work->vec_k, work->mat_k1, work->mat_k2);
    small::with_fixed_size(k, [&](auto fixed) {
      for (int t = 0; t < T; ++t) {
        small::gemm<decltype(fixed)::value, false, false>(k, 1.0, state->J[t], state->Vs[t + 1],
                                                          0.0, state->Vlag[t]);
      }
    });
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

}  // namespace tarn
