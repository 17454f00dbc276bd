#include "run/apply_model.h"

#include <algorithm>
#include <memory>
#include <string>

#include "core/kalman.h"
#include "io/memory_budget.h"
#include "io/model_file.h"
#include "io/read_table.h"
#include "io/result_set.h"
#include "linalg/blas.h"
#include "run/job.h"

namespace tarn {

namespace {

// One filter and smoother sweep over the replicates under the stored model,
// accumulating w Xs[0] in the smoother's vector_scratch, so that each
// replicate's sweep leaves Xs[1] - Xp[0] there before the addition.
void estimate_initial_state(std::FILE* log, const DataSet& data, Trajectory* state, Workspace* work,
                            StateSpaceModel* ssm) {
  std::fprintf(log,
               "Applying Kalman filter and smoother for estimating the initial state variable.\n");
  std::fflush(log);
  const int k = ssm->k();
  double* sum = work->vector_scratch.data();
  std::fill_n(sum, k, 0.0);
  const double w = 1.0 / data.n_replicates;
  for (int r = 0; r < data.n_replicates; ++r) {
    run_filter(*ssm, replicate_view(data, r), state, work);
    run_smoother(state, work);
    daxpy_(&k, &w, state->smoothed_mean[0], &blas::kIncOne, sum, &blas::kIncOne);
  }
  std::copy_n(sum, k, ssm->initial_mean.data());
}

// The filter's tables over every time point and its scratch must fit in the
// memory the run may use before they are allocated.
Status check_memory(int p, int k, const DataSet& data) {
  const double need = trajectory_bytes(k, data.T) + workspace_bytes(p, k, false) +
                      2.0 * model_bytes(p, k) + 8.0 * static_cast<double>(data.Y.size());
  const double limit = memory_limit_bytes();
  if (need <= limit) return {};
  return Status::error("ERROR: The job needs about " + format_bytes(need) + " of memory (" +
                       std::to_string(p) + " objects, " + std::to_string(data.T) +
                       " time points, dimension " + std::to_string(k) + "), more than the " +
                       format_bytes(limit) + " this run may use.");
}

// The model read must fit the data and the memory before anything is run.
Status check_fit(const StoredModel& model, const DataSet& data, std::FILE* log) {
  if (model.p != data.p) {
    return Status::error("ERROR: Number of objects inconsistent.\n     :  input data: " +
                         std::to_string(data.p) + "  vs  input SSM: " + std::to_string(model.p));
  }
  print_table_summary(data, log);
  if (Status samples = check_samples(data); !samples.ok()) return samples;
  if (Status dims = require_dimensions(std::span(&model.k, 1)); !dims.ok()) return dims;
  if (Status usable = check_usable(model); !usable.ok()) return usable;
  return check_memory(model.p, model.k, data);
}

}  // namespace

Status apply_stored_model(const char* model_file, const DataSet& data, bool update_mu, int id,
                          const OutputOptions& options) {
  std::FILE* log = options.log;
  std::fprintf(log, "Reading the SSM model parameters from the file: %s\n", model_file);
  std::fflush(log);
  Result<StoredModel> model = read_model_file(model_file);
  if (!model.ok()) return model.status();
  const int k = model->k;
  std::fprintf(log, "  Done. p = %d, dim = %d.\n", model->p, k);
  std::fflush(log);
  if (Status fits = check_fit(model.value(), data, log); !fits.ok()) return fits;

  StateSpaceModel& ssm = *model->ssm;
  auto state = std::make_unique<Trajectory>(k, data.T);
  auto work = std::make_unique<Workspace>(data.p, k, false);
  if (update_mu) estimate_initial_state(log, data, state.get(), work.get(), &ssm);
  std::fprintf(log, "Calculating state variables and outputting files...\n");
  std::fflush(log);
  const SetFiles files{&options, k, id};
  StateWriter writer(ssm, data, files, nullptr);
  Status done = writer.begin();
  if (done.ok()) done = write_states(ssm, data, &writer, state.get(), work.get());
  if (done.ok()) done = writer.finish();
  return done;
}

}  // namespace tarn
