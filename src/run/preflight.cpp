#include "run/preflight.h"

#include <omp.h>

#include <algorithm>
#include <cmath>

#include "core/em.h"
#include "core/initial_model.h"
#include "io/memory_budget.h"
#include "io/read_table.h"
#include "run/records.h"

namespace tarn {

namespace {

// Objects named in a message; the rest are counted.
constexpr int kObjectsNamed = 5;

// Unlimited retries turn a start that cannot succeed into a run without end.
bool unlimited_retries(const RunSettings& settings) {
  return settings.em.retry < 0;
}

// The table, and what the products read of it.
double data_bytes(const DataSet& data) {
  return 8.0 * static_cast<double>(data.Y.size()) +
         4.0 * static_cast<double>(data.missing_block.size() + data.sample_at_block.size()) +
         em_data_bytes(data);
}

// The dimension the mode makes its records for, and how many threads make
// them; false when it makes none (a job it refuses, or one past the id).
bool mode_records(const RunSettings& settings, int* k, double* threads) {
  *threads = 1.0;
  if (settings.model_file) return false;
  const Job job = plan_job(settings);
  if (settings.sge != 0) {
    if (job.sets.empty() || job.sets.front().k < 1) return false;
    *k = job.sets.front().k;
    return true;
  }
  if (!require_dimensions(job.dims).ok()) return false;
  *k = max_dimension(job.dims);
  if (settings.threads == 1) return true;
  if (settings.sets < 1 || settings.iterations < 1) return false;
  *threads = settings.threads > 0 ? settings.threads : omp_get_max_threads();
  return true;
}

// The records the mode allocates, or 0 when it allocates none.
double mode_bytes(const RunSettings& settings, const DataSet& data) {
  int k = 0;
  double threads = 1.0;
  if (!mode_records(settings, &k, &threads)) return 0.0;
  const double per_thread = records_bytes(
      data, k, settings.em, batch_size(settings.init, settings.em, settings.iterations));
  if (settings.sge != 0 || settings.threads == 1) return per_thread;
  const double sets = static_cast<double>(settings.dims.size()) * settings.sets;
  return threads * per_thread + std::min(threads, sets) * model_bytes(data.p, k);
}

}  // namespace

void Findings::warn(const std::string& text) {
  lines.push_back("WARNING: " + text + "\n");
}

void Findings::fail(const std::string& text) {
  lines.push_back("ERROR: " + text + "\n");
  failed = true;
}

void Findings::report(const std::string& text, bool as_error) {
  if (as_error) {
    fail(text);
  } else {
    warn(text);
  }
}

double bytes_per_time_point(const RunSettings& settings) {
  int k = 0;
  double threads = 1.0;
  if (!mode_records(settings, &k, &threads)) return 0.0;
  return threads * (trajectory_bytes(k, 1) - trajectory_bytes(k, 0));
}

Findings check_table(const RunSettings& settings, const DataSet& data) {
  Findings found;
  for (const std::string& doubt : data.doubts) {
    if (found.failed) break;
    found.report(doubt, settings.strict != 0);
  }
  if (!found.failed && !data.unfit_cells.empty()) {
    found.report(data.unfit_cells, unlimited_retries(settings));
  }
  return found;
}

Findings check_objects(const RunSettings& settings, const DataSet& data) {
  Findings found;
  if (data.p < 1 || data.n_samples < 1) return found;  // the mode refuses such a table
  std::vector<double> R(static_cast<std::size_t>(data.p));
  compute_initial_R(data, R);
  std::vector<int> bad;
  for (int i = 0; i < data.p; ++i) {
    const double r = R[static_cast<std::size_t>(i)];
    if (!(r > 0.0 && std::isfinite(r))) bad.push_back(i);
  }
  if (bad.empty()) return found;
  const int n = static_cast<int>(bad.size());
  std::string text = std::to_string(n) + (n == 1 ? " object has" : " objects have") +
                     " no positive, finite variance to start from (no observed value, a single "
                     "one, constant values, or values too large): ";
  for (int j = 0; j < std::min(n, kObjectsNamed); ++j) {
    text += (j > 0 ? ", " : "") + object_label(data, bad[static_cast<std::size_t>(j)]);
  }
  if (n > kObjectsNamed) text += " and " + std::to_string(n - kObjectsNamed) + " more";
  text += ". Every start fails on such an object: remove these rows, or try another --shift.";
  found.report(text, unlimited_retries(settings));
  return found;
}

Findings claim_result_sets(const RunSettings& settings, std::span<const SetId> sets, SetLocks* held,
                           std::FILE* log) {
  Findings found;
  std::string error = check_output_folder(settings.prefix.c_str());
  if (error.empty())
    error = take_set_locks(settings.prefix.c_str(), settings.suffix.c_str(), sets, held, log);
  if (!error.empty()) {
    found.lines.push_back(error + "\n");
    found.failed = true;
  }
  return found;
}

Findings check_memory(const RunSettings& settings, const DataSet& data) {
  Findings found;
  if (settings.model_file || data.p < 1 || data.n_samples < 1) return found;
  const double records = mode_bytes(settings, data);
  if (records <= 0.0) return found;
  const double need = records + data_bytes(data);
  const double limit = memory_limit_bytes();
  if (need > limit) {
    found.fail("The job needs about " + format_bytes(need) + " of memory (" +
               std::to_string(data.p) + " objects, " + std::to_string(data.T) +
               " time points, dimension up to " + std::to_string(max_dimension(settings.dims)) +
               "), more than the " + format_bytes(limit) +
               " this run may use: use a smaller -d or fewer --threads, or fewer objects or time "
               "points.");
  }
  return found;
}

}  // namespace tarn
