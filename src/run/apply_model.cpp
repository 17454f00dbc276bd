#include "run/apply_model.h"

#include "core/kalman.h"
#include "io/log.h"
#include "io/memory_budget.h"
#include "io/model_file.h"
#include "io/read_table.h"
#include "io/result_writers.h"
#include "linalg/blas.h"

namespace tarn {

namespace {

// One filter and smoother sweep over the replicates under the stored model,
// accumulating w Xs[0] in the smoother's state_difference, so that each
// replicate's sweep leaves Xs[1] - Xp[0] there before the addition.
void estimate_initial_state(StateSpaceModel* ssm, int k, const SSMData* data, Trajectory* state,
                            Workspace* work) {
  std::fprintf(TARN_ERR,
               "Applying Kalman filter and smoother for estimating the initial state variable.\n");
  std::fflush(TARN_ERR);
  double* sum = work->state_difference.data();
  std::fill_n(sum, k, 0.0);
  const double w = 1.0 / data->n_replicates;
  for (int r = 0; r < data->n_replicates; ++r) {
    run_filter(*ssm, replicate_view(*data, r), state, work);
    run_smoother(state, work);
    daxpy_(&k, &w, state->smoothed_mean[0], &blas::kIncOne, sum, &blas::kIncOne);
  }
  std::copy_n(sum, k, ssm->initial_mean.data());
}

// The filter's tables over every time point and its scratch must fit in the
// memory the run may use before they are allocated.
void require_memory(int p, int k, const SSMData* data) {
  const double need = trajectory_bytes(k, data->T) + workspace_bytes(p, k, false) +
                      2.0 * model_bytes(p, k) + 8.0 * static_cast<double>(data->Y.size());
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

  auto state = std::make_unique<Trajectory>(k, data->T);
  auto work = std::make_unique<Workspace>(p, k, false);
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
