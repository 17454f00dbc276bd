#include "run/apply_model.h"

#include "core/kalman.h"
#include "io/log.h"
#include "io/memory_budget.h"
#include "io/model_file.h"
#include "io/read_table.h"
#include "io/result_writers.h"
#include "linalg/blas.h"
#include "linalg/matrix.h"

namespace tarn {

namespace {

// One filter and smoother sweep over the replicates under the stored model,
// accumulating w Xs[0] in vec_k. The smoother uses vec_k as its scratch too,
// so each replicate's sweep leaves Xs[1] - Xp[0] there before the addition.
void estimate_initial_state(SSM* ssm, int k, const SSMData* data, SSMState* state, SSMWork* work) {
  std::fprintf(TARN_ERR,
               "Applying Kalman filter and smoother for estimating the initial state variable.\n");
  std::fflush(TARN_ERR);
  Matrix_clear(work->vec_k, k, 1);
  const double w = 1.0 / data->n_replicates;
  for (int r = 0; r < data->n_replicates; ++r) {
    Kalman_filter(ssm, state, data->p, k, data->T, data->Y.data(),
                  data->sample_at[static_cast<std::size_t>(r)], data->missing.data(), work);
    Kalman_smoother(state, k, data->T, work->vec_k, work->mat_k1, work->mat_k2);
    daxpy_(&k, &w, state->Xs[0], &Matrix_INT_ONE, work->vec_k, &Matrix_INT_ONE);
  }
  Matrix_copy(ssm->exp, work->vec_k, k, 1);
}

// The filter's tables over every time point and its scratch must fit in the
// memory the run may use before they are allocated.
void require_memory(int p, int k, const SSMData* data) {
  const double need = SSMState_bytes(k, data->T) + SSMWork_bytes(p, k, 0) + 2.0 * SSM_bytes(p, k) +
                      8.0 * static_cast<double>(data->Y.size());
  const double limit = memory_limit_bytes();
  if (need > limit) {
    tarn_fatal(
        "ERROR: The job needs about %s of memory (%d objects, %d time points, dimension %d), "
        "more than the %s this run may use.\n",
        format_bytes(need).c_str(), p, data->T, k, format_bytes(limit).c_str());
  }
}

}  // namespace

Status apply_Kalman(const char* ssm_file, const SSMData* data, int update_mu, const char* prefix,
                    const char* suffix, int id, int each, int output_option) {
  std::fprintf(TARN_ERR, "Reading the SSM model parameters from the file: %s\n", ssm_file);
  std::fflush(TARN_ERR);
  Result<StoredModel> model = read_model_file(ssm_file);
  if (!model.ok()) return model.status();
  const int p = model->p;
  const int k = model->k;
  const auto& ssm = model->ssm;
  std::fprintf(TARN_ERR, "  Done. p = %d, dim = %d.\n", p, k);
  std::fflush(TARN_ERR);
  if (p != data->p) {
    std::fprintf(TARN_ERR, "ERROR: Number of objects inconsistent.\n");
    tarn_fatal("     :  input data: %d  vs  input SSM: %d\n", data->p, p);
  }
  print_table_summary(*data);
  if (Status samples = check_samples(*data); !samples.ok()) return samples;
  if (k < 1) tarn_fatal("ERROR: State dimension must be 1 or more: %d\n", k);
  if (Status usable = check_usable(model.value()); !usable.ok()) return usable;
  require_memory(p, k, data);

  auto state = SSMState_new(k, data->T);
  auto work = SSMWork_new(p, k, data->n_samples, 0);
  if (update_mu != 0) estimate_initial_state(ssm.get(), k, data, state.get(), work.get());
  std::fprintf(TARN_ERR, "Calculating state variables and outputting files...\n");
  std::fflush(TARN_ERR);
  if (each != 0) {
    Kalman_apply_output_each(ssm.get(), k, data, state.get(), work.get(), prefix, suffix, id,
                             output_option);
  } else {
    Kalman_apply_output(ssm.get(), k, data, state.get(), work.get(), prefix, suffix, id,
                        output_option);
  }
  return {};
}

}  // namespace tarn
