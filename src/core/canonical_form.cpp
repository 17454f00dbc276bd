#include "core/canonical_form.h"

#include <algorithm>
#include <cmath>

#include "linalg/blas.h"
#include "linalg/small_matrix.h"

namespace tarn {

namespace {

// Rotates model in place and fills L with the squared singular values; leaves
// sqrt(R) in sqrt_R.
void rotate(StateSpaceModel* model, double* sqrt_R, Matrix* L, Workspace* w) {
  int p = model->p();
  int k = model->k();
  double* H = model->H.data();
  double* singular_values = w->vector_scratch.data();
  double* Vt = w->square_a.data();
  double* scratch = w->svd_work.get();
  for (int i = 0; i < p; ++i) sqrt_R[i] = std::sqrt(model->R[i]);
  for (int j = 0; j < k; ++j) {
    for (int i = 0; i < p; ++i) H[i + static_cast<std::size_t>(j) * p] /= sqrt_R[i];
  }
  // H <- U (left singular vectors), singular_values <- S, Vt <- V'.
  int info = 0;
  dgesvd_("O", "A", &p, &k, H, &p, singular_values, nullptr, &p, Vt, &k, scratch, &w->svd_lwork,
          &info);
  for (int j = 0; j < k; ++j) {
    double* column = H + static_cast<std::size_t>(j) * p;
    for (int i = 0; i < p; ++i) column[i] *= sqrt_R[i];
    for (int i = 0; i < p; ++i) column[i] *= singular_values[j];
  }
  // F <- V' F V, initial_mean <- V' initial_mean.
  double* F = model->F.data();
  gemm_small('N', 'N', k, 1.0, Vt, F, 0.0, scratch);
  gemm_small('N', 'T', k, 1.0, scratch, Vt, 0.0, F);
  dgemv_("N", &k, &k, &blas::kOne, Vt, &k, model->initial_mean.data(), &blas::kIncOne, &blas::kZero,
         scratch, &blas::kIncOne);
  std::copy_n(scratch, k, model->initial_mean.data());
  for (int j = 0; j < k; ++j) (*L)[j] = singular_values[j] * singular_values[j];
}

// D(j, i) = H(i, j) / (L[j] * sqrt_R[i]).
void form_module(const StateSpaceModel& model, const Matrix& L, const double* sqrt_R, Matrix* D) {
  int p = model.p();
  const int k = model.k();
  for (int j = 0; j < k; ++j) {
    dcopy_(&p, model.H.col(j), &blas::kIncOne, D->data() + j, &k);
  }
  for (int i = 0; i < p; ++i) {
    double* column = D->col(i);
    for (int j = 0; j < k; ++j) column[j] /= L[j];
  }
  for (int i = 0; i < p; ++i) {
    double* column = D->col(i);
    const double scale = 1.0 / sqrt_R[i];
    for (int j = 0; j < k; ++j) column[j] *= scale;
  }
}

}  // namespace

CanonicalModel to_canonical_form(const StateSpaceModel& model, Workspace* work) {
  const int p = model.p();
  const int k = model.k();
  CanonicalModel canonical{StateSpaceModel(p, k), Matrix(k, p), Matrix(k, 1)};
  copy_model(model, &canonical.model);
  double* sqrt_R = work->innovation.data();
  rotate(&canonical.model, sqrt_R, &canonical.L, work);
  form_module(canonical.model, canonical.L, sqrt_R, &canonical.D);
  return canonical;
}

Matrix information_matrix_as_module(const StateSpaceModel& model) {
  const int p = model.p();
  const int k = model.k();
  Matrix D(p, k);
  for (int j = 0; j < k; ++j) {
    const double* h = model.H.col(j);
    double* rh = D.col(j);
    for (int i = 0; i < p; ++i) rh[i] = h[i] / model.R[i];
  }
  D.reshape(k, p);
  return D;
}

}  // namespace tarn
