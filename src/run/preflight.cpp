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

// The scheduler mode's one set, as it picks it from the id.
bool scheduler_set(const Args& args, SetId* set) {
  const int total = args.n_dims * args.sets;
  if (args.id < 1 || args.id > total) return false;
  const int q = (args.id - 1) / args.sets;
  *set = {args.dims[static_cast<std::size_t>(q)], args.id % args.sets + 1};
  return true;
}

// Unlimited retries turn a start that cannot succeed into a run without end.
bool unlimited_retries(const Args& args) {
  return args.em->retry < 0;
}

bool dims_valid(const Args& args) {
  return std::all_of(args.dims.begin(), args.dims.begin() + args.n_dims,
                     [](int k) { return k >= 1; });
}

// Records of one estimating thread: two models, the tables over time, two
// sets of sums and the scratch, all for dimension k.
double records_bytes(const SSMData& data, int k, int constrain_F) {
  return 2.0 * model_bytes(data.p, k) + trajectory_bytes(k, data.T) +
         2.0 * sufficient_stats_bytes(data.p, k) + workspace_bytes(data.p, k, constrain_F != 0);
}

double data_bytes(const SSMData& data) {
  return 8.0 * static_cast<double>(data.Y.size()) +
         4.0 * static_cast<double>(data.missing_block.size() + data.sample_at_block.size());
}

// The dimension the mode makes its records for, and how many threads make
// them; false when it makes none (a job it refuses, or one past the id).
bool mode_records(const Args& args, int* k, double* threads) {
  *threads = 1.0;
  if (args.ssm_file != nullptr) return false;
  if (args.sge != 0) {
    SetId set{};
    if (!scheduler_set(args, &set) || set.k < 1) return false;
    *k = set.k;
    return true;
  }
  if (!dims_valid(args)) return false;
  *k = max_dimension(&args);
  if (args.threads == 1) return true;
  if (args.sets < 1 || args.iterations < 1) return false;
  *threads = args.threads > 0 ? args.threads : omp_get_max_threads();
  return true;
}

// The records the mode allocates, or 0 when it allocates none.
double mode_bytes(const Args& args, const SSMData& data) {
  int k = 0;
  double threads = 1.0;
  if (!mode_records(args, &k, &threads)) return 0.0;
  const double per_thread = records_bytes(data, k, args.em->constrain_F);
  if (args.sge != 0 || args.threads == 1) return per_thread;
  const double sets = static_cast<double>(args.n_dims) * args.sets;
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

void Findings::append(const Findings& other) {
  lines.insert(lines.end(), other.lines.begin(), other.lines.end());
  failed = failed || other.failed;
}

std::vector<SetId> planned_sets(const Args& args) {
  std::vector<SetId> sets;
  if (args.ssm_file != nullptr || args.iterations < 1) return sets;
  if (args.sge != 0) {
    SetId set{};
    if (scheduler_set(args, &set)) sets.push_back(set);
    return sets;
  }
  for (int d = 0; d < args.n_dims; ++d) {
    for (int s = 1; s <= args.sets; ++s) {
      const int sid = d * args.sets + s;
      // The single mode numbers a dim's sets from the id, the thread mode by
      // the remainder of the set id.
      const int set_no = args.threads == 1 ? s + args.id - 1 : sid % args.sets + 1;
      sets.push_back({args.dims[static_cast<std::size_t>(d)], set_no});
    }
  }
  return sets;
}

double bytes_per_time_point(const Args& args) {
  int k = 0;
  double threads = 1.0;
  if (!mode_records(args, &k, &threads)) return 0.0;
  return threads * (trajectory_bytes(k, 1) - trajectory_bytes(k, 0));
}

Findings check_options(const Args& args) {
  const EmSettings& em = *args.em;
  const InitialModelSettings& init = *args.init;
  struct Read {
    const char* names;
    double value;
    bool read;
  };
  // --H-SD and --ridge change nothing in an estimation, and stay unchecked.
  const Read options[] = {
      {"-c/--converge", em.converge, true},
      {"-g/--constrain-Fg", em.constrain_Fg, em.constrain_F != 0},
      {"--H-mean", init.H_mean, true},
      {"--F-min", init.F_min, true},
      {"--F-max", init.F_max, true},
      {"--mu", init.mu, true},
      {"--SD", init.SD, true},
  };
  Findings found;
  for (const Read& option : options) {
    if (option.read && !std::isfinite(option.value) && !found.failed) {
      char value[32];
      std::snprintf(value, sizeof value, "%g", option.value);
      found.fail(std::string("The value of ") + option.names + " is not a finite number: " + value +
                 ".");
    }
  }
  return found;
}

Findings check_table(const Args& args, const SSMData& data) {
  Findings found;
  for (const std::string& doubt : data.doubts) {
    if (found.failed) break;
    found.report(doubt, args.strict != 0);
  }
  if (!found.failed && !data.unfit_cells.empty()) {
    found.report(data.unfit_cells, unlimited_retries(args));
  }
  return found;
}

Findings check_objects(const Args& args, const SSMData& data) {
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
  found.report(text, unlimited_retries(args));
  return found;
}

Findings claim_result_sets(const Args& args, std::span<const SetId> sets, SetLocks* held) {
  Findings found;
  std::string error = check_output_folder(args.prefix);
  if (error.empty()) error = take_set_locks(args.prefix, args.suffix, sets, held);
  if (!error.empty()) {
    found.lines.push_back(error + "\n");
    found.failed = true;
  }
  return found;
}

Findings check_memory(const Args& args, const SSMData& data) {
  Findings found;
  if (args.ssm_file != nullptr || data.p < 1 || data.n_samples < 1) return found;
  const double records = mode_bytes(args, data);
  if (records <= 0.0) return found;
  const double need = records + data_bytes(data);
  const double limit = memory_limit_bytes();
  if (need > limit) {
    found.fail("The job needs about " + format_bytes(need) + " of memory (" +
               std::to_string(data.p) + " objects, " + std::to_string(data.T) +
               " time points, dimension up to " + std::to_string(max_dimension(&args)) +
               "), more than the " + format_bytes(limit) +
               " this run may use: use a smaller -d or fewer --threads, or fewer objects or time "
               "points.");
  }
  return found;
}

}  // namespace tarn
