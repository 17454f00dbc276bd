#include "core/em.h"
#include "io/log.h"
#include "io/model_files.h"
#include "io/read_table.h"
#include "run/em_starts.h"
#include "run/modes.h"
#include "run/records.h"

namespace tarn {

void single_set(const Args* args, const SSMData* data) {
  const EmSettings* em = args->em.get();
  const int total = args->n_dims * args->sets;
  std::fprintf(TARN_ERR, "***********************************\n");
  std::fprintf(TARN_ERR, "**   Single SGE Execution Mode   **\n");
  std::fprintf(TARN_ERR, "***********************************\n");
  std::fprintf(TARN_ERR, "  Total Sets = %d\n\n", total);
  std::fprintf(TARN_ERR, "  ID = %d\n", args->id);
  std::fflush(TARN_ERR);
  if (args->id > total) {
    std::fprintf(TARN_ERR, "WARNING: ID exceeded the total sets.\n");
    std::fprintf(TARN_ERR, "       : Going to quit.\n");
    return;
  }
  if (args->id < 1) tarn_fatal("ERROR: The job ID (-i) must be 1 or more: %d\n", args->id);
  print_table_summary(*data);
  if (const Status samples = check_samples(*data); !samples.ok())
    tarn_fatal("%s\n", samples.message().c_str());

  // Ids 1 .. sets work on dims[0], the next sets ids on dims[1], and so on.
  const int q = (args->id - 1) / args->sets;
  const int k = args->dims[q];
  const int set_id = q < args->n_dims ? args->id : 0;
  std::fprintf(TARN_ERR, "[JobID:%d] SGE Job dispatched. dim=%d, set ID=%d\n", args->id, k, set_id);
  std::fflush(TARN_ERR);
  if (k < 1) tarn_fatal("ERROR: State dimension must be 1 or more: %d\n", k);

  EstimationRecords rec(data, k, em->constrain_F);
  Workspace* work = &rec.buffers->workspace;
  if (em->constrain_F != 0) prepare_F_constraint(work, k);

  StartGuard guard(em->retry);
  std::fprintf(TARN_ERR, "Starting the SSM estimation.\n");
  std::fflush(TARN_ERR);
  Estimate result = SSM_EM_iterate(em, args->init.get(), args->iterations, data, k, &rec, &guard);
  std::fprintf(TARN_ERR, "Finished: dim=%d, likelihood=%f\n", k, result.log_likelihood);
  std::fflush(TARN_ERR);
  if (is_usable_likelihood(result.log_likelihood) && result.monotone) {
    const OutputOptions out{args->prefix, args->suffix, args->each != 0, args->state != 0,
                            TARN_ERR};
    const Status written = write_result_set(result, set_id % args->sets + 1, *data, out,
                                            &rec.buffers->trajectory, work);
    if (!written.ok()) tarn_fatal("%s\n", written.message().c_str());
  } else {
    std::fprintf(TARN_ERR, "Estimation failed for this set.\n");
    std::fflush(TARN_ERR);
  }
  std::fprintf(TARN_ERR, "\n");
  std::fflush(TARN_ERR);
}

}  // namespace tarn
