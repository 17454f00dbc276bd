#pragma once
// The execution modes: how the job of a run is worked through. Each returns
// the error that ends the run; main prints it.

#include <cstdio>

#include "core/data_set.h"
#include "io/status.h"
#include "run/job.h"
#include "run/settings.h"

namespace tarn {

// What a mode works with; log is the stream of the run's log.
struct RunContext {
  const RunSettings& settings;
  const Job& job;
  const DataSet& data;
  std::FILE* log;
};

// One thread: every set of the job, one after the other.
Status run_single_mode(const RunContext& context);

// The one set of the job an array task's id picks.
Status run_array_task(const RunContext& context);

// A team of threads, each taking the next start of the job.
Status run_thread_mode(const RunContext& context);

}  // namespace tarn
