#include "io/read_table.h"
#include "run/em_starts.h"
#include "run/modes.h"
#include "run/records.h"
#include "run/set_end.h"
#include "run/timer.h"

namespace tarn {

namespace {

Status run_dimension(const RunContext& context, int dim_index, const StartContext& starts,
                     EstimationRecords* rec) {
  const Job& job = context.job;
  const int k = job.dims[static_cast<std::size_t>(dim_index)];
  std::FILE* log = context.log;
  std::fprintf(log, "========================================\n");
  std::fprintf(log, "= Start the loop for dim=%d\n", k);
  std::fflush(log);
  if (starts.em.constrain_F != 0) rec->prepare_F_constraint(k);
  int s = 0;
  for (const PlannedSet& set : job.sets) {
    if (set.dim_index != dim_index) continue;
    std::fprintf(log, "Set %d...\n", ++s);
    std::fflush(log);
    const Stopwatch clock;
    const Result<Estimate> result = estimate_set(starts, set, job.starts, rec);
    if (!result.ok()) return result.status();
    const double t = clock.seconds();
    std::fprintf(log, "Finished: dim=%d, likelihood=%f\n", k, result->log_likelihood);
    std::fprintf(log, "%s\nX-SINGLE-TIME:\t%f\n", format_duration(t).c_str(), t);
    std::fflush(log);
    const bool usable = is_usable_likelihood(result->log_likelihood) && result->monotone;
    if (Status written =
            finish_set(context, usable ? &result.value() : nullptr, set.number, rec->last, log);
        !written.ok())
      return written;
  }
  return {};
}

}  // namespace

Status run_single_mode(const RunContext& context) {
  const RunSettings& settings = context.settings;
  std::FILE* log = context.log;
  std::fprintf(log, "*******************************\n");
  std::fprintf(log, "**   Single Execution Mode   **\n");
  std::fprintf(log, "*******************************\n");
  print_table_summary(context.data, context.log);
  if (Status samples = check_samples(context.data); !samples.ok()) return samples;
  const int max_k = max_dimension(context.job.dims);
  std::fprintf(log, "Max dimemsion = %d\n", max_k);
  if (Status dims = require_dimensions(context.job.dims); !dims.ok()) return dims;

  const EmData em_data(context.data);
  EstimationRecords rec(em_data, max_k, settings.em,
                        batch_size(settings.init, settings.em, context.job.starts));
  StartGuard guard(settings.em.retry);
  const StartContext starts{settings.em, settings.init, em_data, log, &guard, true};
  const int n_dims = static_cast<int>(context.job.dims.size());
  for (int d = 0; d < n_dims; ++d) {
    if (Status done = run_dimension(context, d, starts, &rec); !done.ok()) return done;
  }
  std::fprintf(log, "Going to exit.\n");
  return {};
}

}  // namespace tarn
