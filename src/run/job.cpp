#include "run/job.h"

#include <algorithm>
#include <string>

namespace tarn {

namespace {

// Ids 1 .. sets work on dims[0], the next sets ids on dims[1], and so on.
void plan_array_task(const RunSettings& settings, Job* job) {
  const int total = static_cast<int>(settings.dims.size()) * settings.sets;
  if (settings.id < 1 || settings.id > total) return;
  const int q = (settings.id - 1) / settings.sets;
  job->sets.push_back(
      {settings.dims[static_cast<std::size_t>(q)], q, settings.id % settings.sets + 1});
}

}  // namespace

Job plan_job(const RunSettings& settings) {
  Job job{settings.dims, settings.sets, settings.iterations, {}};
  if (settings.sge != 0) {
    plan_array_task(settings, &job);
    return job;
  }
  const int n_dims = static_cast<int>(settings.dims.size());
  for (int d = 0; d < n_dims; ++d) {
    for (int s = 1; s <= settings.sets; ++s) {
      // The single mode numbers a dim's sets from the id, the thread mode by
      // the remainder of the set's place in the job.
      const int place = d * settings.sets + s;
      const int number = settings.threads == 1 ? s + settings.id - 1 : place % settings.sets + 1;
      job.sets.push_back({settings.dims[static_cast<std::size_t>(d)], d, number});
    }
  }
  return job;
}

std::vector<SetId> written_sets(const Job& job) {
  std::vector<SetId> sets;
  if (job.starts < 1) return sets;
  for (const PlannedSet& set : job.sets) sets.push_back({set.k, set.number});
  return sets;
}

int max_dimension(std::span<const int> dims) {
  int max_k = -2147483647;
  for (const int k : dims) max_k = std::max(max_k, k);
  return max_k;
}

Status require_dimensions(std::span<const int> dims) {
  for (const int k : dims) {
    if (k < 1)
      return Status::error("ERROR: State dimension must be 1 or more: " + std::to_string(k));
  }
  return {};
}

}  // namespace tarn
