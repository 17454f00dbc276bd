// Tarn-SSM: estimation of linear-Gaussian state space models from replicated
// time courses with missing values. The run driver.

#include <xmmintrin.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <new>

#include "cli/args.h"
#include "core/data_set.h"
#include "io/log.h"
#include "io/memory_budget.h"
#include "io/read_table.h"
#include "io/status.h"
#include "linalg/blas.h"
#include "linalg/random_stream.h"
#include "run/apply_model.h"
#include "run/job.h"
#include "run/modes.h"
#include "run/preflight.h"
#include "run/timer.h"
#include "version.h"

namespace tarn {
namespace {

// Subnormal intermediate results count as 0.0 from here on.
void set_flush_to_zero() {
  constexpr unsigned kFlushToZero = 0x8000;
  constexpr unsigned kDenormalsAreZero = 0x0040;
  _mm_setcsr(_mm_getcsr() | kFlushToZero | kDenormalsAreZero);
}

void print_banner(std::FILE* log) {
  std::fprintf(log, "Tarn-SSM  version %s (%s)\n", TARN_VERSION, TARN_BUILD_TIME);
  std::fprintf(log, "%s\n\n", TARN_RIGHTS_LINE);
  std::fprintf(log, "This program comes with ABSOLUTELY NO WARRANTY.\n\n");
  std::fprintf(log, "Single process mode.\n");
  std::fflush(log);
}

Status run_mode(const RunContext& context) {
  const RunSettings& settings = context.settings;
  if (settings.model_file) {
    return apply_stored_model(
        settings.model_file->c_str(), context.data, settings.em.update_mu != 0, settings.id,
        {settings.prefix.c_str(), settings.suffix.c_str(), settings.each != 0, false, context.log});
  }
  if (settings.sge != 0) return run_array_task(context);
  if (settings.threads == 1) return run_single_mode(context);
  return run_thread_mode(context);
}

// Prints the warnings a check found; its error, the last line, is returned
// for main to print.
Status report(const Findings& found, std::FILE* log) {
  const std::size_t warnings = found.lines.size() - (found.failed ? 1 : 0);
  for (std::size_t i = 0; i < warnings; ++i) std::fputs(found.lines[i].c_str(), log);
  std::fflush(log);
  if (!found.failed) return {};
  const std::string& error = found.lines.back();
  return Status::error(error.substr(0, error.size() - 1));
}

// The input table, mean-shifted as asked; the checks of the table as read
// only where a set is estimated.
Result<std::unique_ptr<DataSet>> read_input(const RunSettings& settings, bool estimates,
                                            std::FILE* log) {
  const char* file = settings.input_file ? settings.input_file->c_str() : nullptr;
  Result<std::unique_ptr<DataSet>> table =
      read_table_file(file, log, {memory_limit_bytes(), bytes_per_time_point(settings)});
  if (!table.ok()) return table;
  if (estimates) {
    if (Status table_ok = report(check_table(settings, *table.value()), log); !table_ok.ok()) {
      return table_ok;
    }
  }
  if (settings.shift > 0) {
    std::fprintf(log, "Applying mean shift for the input data set.\n");
    shift_means(table.value().get(), settings.shift == 1 ? 1 : 0);
  }
  return table;
}

// Everything after the log is open; returns the error that ends the run.
Status run_with_log(RunSettings* settings, const Findings& value_findings, std::FILE* log) {
  print_banner(log);
  // seed + id, taken as an unsigned 32-bit value.
  const std::int64_t seed_sum = static_cast<std::int64_t>(settings->seed) + settings->id;
  settings->init.stream = std::make_unique<RandomStream>(static_cast<std::uint32_t>(seed_sum));

  const Job job = plan_job(*settings);
  const std::vector<SetId> sets = written_sets(settings->model_file ? Job{} : job);
  const bool estimates = !sets.empty();
  if (estimates) {
    if (Status values = report(value_findings, log); !values.ok()) return values;
  }
  Result<std::unique_ptr<DataSet>> read = read_input(*settings, estimates, log);
  if (!read.ok()) return read.status();
  const DataSet& data = *read.value();
  if (Status memory = report(check_memory(*settings, data), log); !memory.ok()) return memory;
  // Held until the process ends: no other run writes these sets meanwhile.
  SetLocks locks;
  if (estimates) {
    if (Status objects = report(check_objects(*settings, data), log); !objects.ok()) return objects;
    Status claimed = report(claim_result_sets(*settings, sets, &locks, log), log);
    if (!claimed.ok()) return claimed;
  }
  return run_mode({*settings, job, data, log});
}

int run(int argc, char** argv) {
  const Stopwatch clock;
  CommandLine line;
  const Result<bool> parsed = parse_command_line(argc, argv, &line);
  if (!parsed.ok()) {
    print_error(stderr, parsed.status().message());
    return 1;
  }
  if (!parsed.value()) return 0;
  const Result<std::FILE*> log = open_log(line.settings);
  if (!log.ok()) {
    print_error(stderr, log.status().message());
    return 1;
  }
  Status ran;
  try {
    ran = run_with_log(&line.settings, line.value_findings, log.value());
  } catch (const std::bad_alloc&) {
    ran = Status::error("ERROR: Out of memory.");
  }
  if (!ran.ok()) {
    print_error(log.value(), ran.message());
    return 1;
  }
  const double t = clock.seconds();
  std::fprintf(log.value(), "All time: %s\nX-ALL-TIME:\t%f\n", format_duration(t).c_str(), t);
  return 0;
}

}  // namespace
}  // namespace tarn

int main(int argc, char** argv) {
  tarn::set_flush_to_zero();
  // A file-size limit makes a write fail, which the writers report, rather
  // than end the process without a word.
  std::signal(SIGXFSZ, SIG_IGN);
  // Every BLAS call works on one thread; the thread mode runs calls side by side.
  openblas_set_num_threads(1);
  try {
    return tarn::run(argc, argv);
  } catch (const std::bad_alloc&) {
    tarn::print_error(stderr, "ERROR: Out of memory.");
    return 1;
  }
}
