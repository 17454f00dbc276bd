#include <string>

#include "io/read_table.h"
#include "run/em_starts.h"
#include "run/modes.h"
#include "run/records.h"
#include "run/set_end.h"

namespace tarn {

Status run_array_task(const RunContext& context) {
  const RunSettings& settings = context.settings;
  std::FILE* log = context.log;
  const int total = static_cast<int>(context.job.dims.size()) * context.job.sets_per_dim;
  std::fprintf(log, "***********************************\n");
  std::fprintf(log, "**   Single SGE Execution Mode   **\n");
  std::fprintf(log, "***********************************\n");
  std::fprintf(log, "  Total Sets = %d\n\n", total);
  std::fprintf(log, "  ID = %d\n", settings.id);
  std::fflush(log);
  if (settings.id > total) {
    std::fprintf(log, "WARNING: ID exceeded the total sets.\n");
    std::fprintf(log, "       : Going to quit.\n");
    return {};
  }
  if (settings.id < 1) {
    return Status::error("ERROR: The job ID (-i) must be 1 or more: " +
                         std::to_string(settings.id));
  }
  print_table_summary(context.data, context.log);
  if (Status samples = check_samples(context.data); !samples.ok()) return samples;

  const PlannedSet& set = context.job.sets.front();
  const int k = set.k;
  std::fprintf(log, "[JobID:%d] SGE Job dispatched. dim=%d, set ID=%d\n", settings.id, k,
               settings.id);
  std::fflush(log);
  if (Status dims = require_dimensions({&k, 1}); !dims.ok()) return dims;

  const EmData em_data(context.data);
  EstimationRecords rec(em_data, k, settings.em,
                        batch_size(settings.init, settings.em, context.job.starts));
  if (settings.em.constrain_F != 0) rec.prepare_F_constraint(k);
  StartGuard guard(settings.em.retry);
  const StartContext starts{settings.em, settings.init, em_data, log, &guard, true};
  std::fprintf(log, "Starting the SSM estimation.\n");
  std::fflush(log);
  const Result<Estimate> result = estimate_set(starts, set, context.job.starts, &rec);
  if (!result.ok()) return result.status();
  std::fprintf(log, "Finished: dim=%d, likelihood=%f\n", k, result->log_likelihood);
  std::fflush(log);
  const bool usable = is_usable_likelihood(result->log_likelihood) && result->monotone;
  if (Status written =
          finish_set(context, usable ? &result.value() : nullptr, set.number, rec.last, log);
      !written.ok())
    return written;
  std::fprintf(log, "\n");
  std::fflush(log);
  return {};
}

}  // namespace tarn
