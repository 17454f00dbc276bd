#include "core/em.h"
#include "io/log.h"
#include "io/model_files.h"
#include "io/read_table.h"
#include "run/em_starts.h"
#include "run/modes.h"
#include "run/records.h"
#include "run/timer.h"

namespace tarn {

void single_one(const Args* args, const SSMData* data) {
  const EmSettings* em = args->em.get();
  std::fprintf(TARN_ERR, "*******************************\n");
  std::fprintf(TARN_ERR, "**   Single Execution Mode   **\n");
  std::fprintf(TARN_ERR, "*******************************\n");
  print_table_summary(*data);
  if (const Status samples = check_samples(*data); !samples.ok())
    tarn_fatal("%s\n", samples.message().c_str());
  const int max_k = max_dimension(args);
  std::fprintf(TARN_ERR, "Max dimemsion = %d\n", max_k);
  require_dimensions(args);

  EstimationRecords rec(data, max_k, em->constrain_F);
  Workspace* work = &rec.buffers->workspace;
  Stopwatch clock;
  StartGuard guard(em->retry);

  for (int d = 0; d < args->n_dims; ++d) {
    const int k = args->dims[d];
    std::fprintf(TARN_ERR, "========================================\n");
    std::fprintf(TARN_ERR, "= Start the loop for dim=%d\n", k);
    std::fflush(TARN_ERR);
    if (em->constrain_F != 0) prepare_F_constraint(work, k);
    for (int s = 1; s <= args->sets; ++s) {
      std::fprintf(TARN_ERR, "Set %d...\n", s);
      std::fflush(TARN_ERR);
      clock.restart();
      Estimate result =
          SSM_EM_iterate(em, args->init.get(), args->iterations, data, k, &rec, &guard);
      const double t = clock.seconds();
      std::fprintf(TARN_ERR, "Finished: dim=%d, likelihood=%f\n", k, result.log_likelihood);
      std::fprintf(TARN_ERR, "%s\nX-SINGLE-TIME:\t%f\n", format_duration(t).c_str(), t);
      std::fflush(TARN_ERR);
      if (is_usable_likelihood(result.log_likelihood) && result.monotone) {
        const OutputOptions out{args->prefix, args->suffix, args->each != 0, args->state != 0,
                                TARN_ERR};
        const Status written =
            write_result_set(result, s + args->id - 1, *data, out, &rec.buffers->trajectory, work);
        if (!written.ok()) tarn_fatal("%s\n", written.message().c_str());
      } else {
        std::fprintf(TARN_ERR, "Estimation failed for this set.\n");
        std::fflush(TARN_ERR);
      }
    }
  }
  std::fprintf(TARN_ERR, "Going to exit.\n");
}

}  // namespace tarn
