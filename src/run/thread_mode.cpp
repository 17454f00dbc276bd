#include <omp.h>

#include <vector>

#include "core/em.h"
#include "core/initial_model.h"
#include "io/log.h"
#include "io/model_files.h"
#include "io/read_table.h"
#include "run/modes.h"
#include "run/records.h"
#include "run/set_table.h"
#include "run/start_guard.h"

namespace tarn {

namespace {

// The ticket counters: which set and dim the next task belongs to.
struct Tickets {
  int set_id = 1;  // 0 once every ticket is given out
  int dim_index = 0;
  int iter = 0;
  int set_in_dim = 0;
};

// Takes the next ticket (under the lock): its set id, or 0 when none is left.
int take_ticket(Tickets* tk, const Args* args, int* k) {
  const int sid = tk->set_id;
  if (sid == 0) return 0;
  *k = args->dims[tk->dim_index];
  if (++tk->iter == args->iterations) {
    tk->iter = 0;
    ++tk->set_id;
    if (++tk->set_in_dim == args->sets) {
      tk->set_in_dim = 0;
      if (++tk->dim_index == args->n_dims) tk->set_id = 0;
    }
  }
  return sid;
}

// One task: attempts from fresh random models, retried as in the single mode.
Estimate run_task(const Args* args, const SSMData* data, EstimationRecords* rec, int k,
                  StartGuard* guard) {
  const EmSettings* em = args->em.get();
  int fails = 0;
  int tries = -1;
  Estimate result{};
  for (;;) {
    ++tries;
#pragma omp critical
    draw_initial_model(*args->init, *data, k, rec->ssm_a.get());
    result = run_em(*em, *data, rec->ssm_a.get(), rec->buffers.get(), TARN_ERR);
    if (em->retry >= 0 && em->retry <= tries) break;
    if (is_usable_likelihood(result.log_likelihood) && result.monotone) {
      guard->note_success();
      break;
    }
    fails = tries + 1;
    if (guard->gives_up(fails)) {
#pragma omp critical
      tarn_fatal("%s", StartGuard::message(k).c_str());
    }
    std::fprintf(TARN_ERR, "Estimation failed.  Retrying (%d)...\n", fails);
    std::fflush(TARN_ERR);
  }
  if (em->retry != -1 && fails >= em->retry) {
    std::fprintf(TARN_ERR, "WARNING: Retry count exceeded the limitation.\n");
    std::fflush(TARN_ERR);
  }
  return result;
}

}  // namespace

void thread(const Args* args, const SSMData* data) {
  std::fprintf(TARN_ERR, "*******************************\n");
  std::fprintf(TARN_ERR, "**   Thread Execution Mode   **\n");
  std::fprintf(TARN_ERR, "*******************************\n");
  std::fprintf(TARN_ERR, "Number of threads = %d\n", args->threads);
  omp_set_num_threads(args->threads);
  print_table_summary(*data);
  if (const Status samples = check_samples(*data); !samples.ok())
    tarn_fatal("%s\n", samples.message().c_str());
  const int max_k = max_dimension(args);
  std::fprintf(TARN_ERR, "Max dimemsion = %d\n", max_k);
  std::fprintf(TARN_ERR, "Total single tasks = %d\n", args->iterations * args->sets * args->n_dims);
  std::fflush(TARN_ERR);
  require_dimensions(args);
  if (args->sets < 1 || args->iterations < 1) {
    tarn_fatal("ERROR: The thread mode needs at least one set (-s) and one iteration (-n).\n");
  }

  const std::size_t n = static_cast<std::size_t>(args->n_dims) * args->sets;
  Tickets tickets;
  SetTable table(n, max_k);
  StartGuard guard(args->em->retry);

#pragma omp parallel default(shared)
  {
    const int me = omp_get_thread_num();
    // Private records for the largest dim; ssm_a is the working model.
    EstimationRecords rec(data, max_k, args->em->constrain_F);
    int prepared_k = -1;
    for (;;) {
      int k = 0;
      int sid = 0;
#pragma omp critical
      {
        sid = take_ticket(&tickets, args, &k);
#pragma omp flush(tickets)
      }
      if (sid == 0) break;
      if (args->em->constrain_F != 0 && k != prepared_k) {
        prepare_F_constraint(&rec.buffers->workspace, k);
        prepared_k = k;
      }
      Estimate result = run_task(args, data, &rec, k, &guard);
#pragma omp critical
      finish_task(&table, args, data, sid, me, result, &rec.buffers->workspace,
                  &rec.buffers->trajectory);
    }
  }
}

}  // namespace tarn
