#include <omp.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <new>
#include <string>

#include "io/log_buffer.h"
#include "io/read_table.h"
#include "run/em_starts.h"
#include "run/modes.h"
#include "run/records.h"
#include "run/set_bests.h"
#include "run/set_end.h"

namespace tarn {

namespace {

// What the team shares; every member is read and written under the lock.
struct TeamState {
  std::size_t next_task = 0;  // tasks are the batches of the job's sets, set by set
  Status error;               // the first error of a thread: the run ends on it
};

// What the end of a set wrote to its log, and how it ended.
struct SetLog {
  std::string lines;
  Status status;
};

SetLog write_set(const RunContext& context, const Estimate* best, int number,
                 EstimationRecords* rec) {
  LogBuffer buffer;
  SetLog out;
  out.status = finish_set(context, best, number, rec->last, buffer.stream());
  out.lines = buffer.take();
  return out;
}

// The batch size of the team: as large as batch_size allows while the job
// still has a batch for every thread.
int team_batch_size(const StartContext& starts, const Job& job, int threads) {
  int batch = batch_size(starts.init, starts.em, job.starts);
  auto tasks = [&](int b) {
    return job.sets.size() * static_cast<std::size_t>((job.starts + b - 1) / b);
  };
  while (batch > 1 && tasks(batch) < static_cast<std::size_t>(threads)) --batch;
  return batch;
}

// The starts of a batch, in order, each as its set's next finished start:
// an attempt that fails is retried alone in the first record, which the
// starts before it no longer need. Returns the place's count of finished
// starts after the last, or the error that ends the run.
Result<int> finish_batch(const StartContext& starts, const PlannedSet& set, int place,
                         BatchOutcome* batch, EstimationRecords* rec, SetBests* bests) {
  const int me = omp_get_thread_num();
  int finished = 0;
  for (std::size_t b = 0; b < batch->results.size(); ++b) {
    Estimate attempt = batch->results[b];
    std::string lines = std::move(batch->logs[b]);
    for (int failed = 0;;) {
#pragma omp critical
      {
        std::fputs(lines.c_str(), starts.log);
        std::fflush(starts.log);
      }
      const Result<Verdict> verdict = judge_attempt(starts, set.k, attempt, &failed);
      if (!verdict.ok()) return verdict.status();
      rec->last = rec->buffers[failed > 0 ? 0 : b].get();
      if (verdict.value() == Verdict::kKept) break;
      StateSpaceModel* const first[] = {rec->working.front().get()};
      BatchOutcome again = run_batch(starts, set.k, first, rec);
      attempt = again.results.front();
      lines = std::move(again.logs.front());
    }
    bool stopped = false;
#pragma omp critical
    {
      stopped = starts.guard->stopped();
      if (!stopped) {
        finished = bests->add_start(place, me, attempt, starts.log);
        log_stop_reason(starts, set, finished, attempt);
      }
    }
    if (stopped) break;
  }
  return finished;
}

// A thread's part: it takes the next batch of starts of the job until none
// is left or the run has failed.
void work_through_tasks(const RunContext& context, const StartContext& starts, SetBests* bests,
                        TeamState* team) {
  const Job& job = context.job;
  const int batch = team_batch_size(starts, job, omp_get_num_threads());
  const std::size_t per_set = static_cast<std::size_t>((job.starts + batch - 1) / batch);
  const std::size_t n_tasks = job.sets.size() * per_set;
  // Private records for the largest dim.
  EstimationRecords rec(starts.data, max_dimension(job.dims), starts.em, batch);
  int prepared_k = -1;
  for (;;) {
    std::size_t task = n_tasks;
#pragma omp critical
    if (!starts.guard->stopped() && team->next_task < n_tasks) task = team->next_task++;
    if (task == n_tasks) break;
    const int place = static_cast<int>(task / per_set) + 1;
    const int first = static_cast<int>(task % per_set) * batch;
    const PlannedSet& set = job.sets[static_cast<std::size_t>(place - 1)];
    if (starts.em.constrain_F != 0 && set.k != prepared_k) {
      rec.prepare_F_constraint(set.k);
      prepared_k = set.k;
    }
    std::vector<StateSpaceModel*> models;
    for (int b = 0; b < std::min(batch, job.starts - first); ++b) {
      models.push_back(rec.working[static_cast<std::size_t>(b)].get());
    }
    BatchOutcome outcome = run_batch(starts, set.k, models, &rec);
    const Result<int> finished = finish_batch(starts, set, place, &outcome, &rec, bests);
    bool stop = false;
    bool set_done = false;
#pragma omp critical
    {
      if (!finished.ok() && !starts.guard->stopped()) {
        team->error = finished.status();
        starts.guard->stop();
      }
      stop = starts.guard->stopped();
      set_done = !stop && finished.value() == job.starts;
    }
    // The set's files are written outside the lock; its log lines are
    // gathered and printed together.
    if (set_done) {
      const SetLog set_log = write_set(context, bests->best_of(place), set.number, &rec);
#pragma omp critical
      {
        std::fputs(set_log.lines.c_str(), context.log);
        std::fflush(context.log);
        bests->release(place);
        if (!set_log.status.ok() && !starts.guard->stopped()) {
          team->error = set_log.status;
          starts.guard->stop();
        }
        stop = starts.guard->stopped();
      }
    }
    if (stop) break;
  }
}

}  // namespace

Status run_thread_mode(const RunContext& context) {
  const RunSettings& settings = context.settings;
  const Job& job = context.job;
  std::FILE* log = context.log;
  std::fprintf(log, "*******************************\n");
  std::fprintf(log, "**   Thread Execution Mode   **\n");
  std::fprintf(log, "*******************************\n");
  std::fprintf(log, "Number of threads = %d\n", settings.threads);
  omp_set_num_threads(settings.threads);
  print_table_summary(context.data, context.log);
  if (Status samples = check_samples(context.data); !samples.ok()) return samples;
  const int n_dims = static_cast<int>(job.dims.size());
  std::fprintf(log, "Max dimemsion = %d\n", max_dimension(job.dims));
  std::fprintf(log, "Total single tasks = %d\n", job.starts * job.sets_per_dim * n_dims);
  std::fflush(log);
  if (Status dims = require_dimensions(job.dims); !dims.ok()) return dims;
  if (job.sets_per_dim < 1 || job.starts < 1) {
    return Status::error(
        "ERROR: The thread mode needs at least one set (-s) and one iteration (-n).");
  }

  SetBests bests(job.sets.size(), max_dimension(job.dims));
  StartGuard guard(settings.em.retry);
  const EmData em_data(context.data);
  const StartContext starts{settings.em, settings.init, em_data, log, &guard, false};
  TeamState team;
#pragma omp parallel default(shared)
  {
    // An exception cannot leave the team: running out of memory ends the run
    // as any other error does.
    try {
      work_through_tasks(context, starts, &bests, &team);
    } catch (const std::bad_alloc&) {
#pragma omp critical
      if (!guard.stopped()) {
        team.error = Status::error("ERROR: Out of memory.");
        guard.stop();
      }
    }
  }
  return team.error;
}

}  // namespace tarn
