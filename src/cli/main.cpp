// Tarn-SSM: estimation of linear-Gaussian state space models from replicated
// time courses with missing values. The run driver.

#include <xmmintrin.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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

void print_banner(const Args* args) {
  std::fprintf(TARN_ERR, "Tarn-SSM  version %s (%s)\n", TARN_VERSION, TARN_BUILD_TIME);
  std::fprintf(TARN_ERR, "%s\n\n", TARN_RIGHTS_LINE);
  std::fprintf(TARN_ERR, "This program comes with ABSOLUTELY NO WARRANTY.\n\n");
  if (args->nprocs == 1) {
    std::fprintf(TARN_ERR, "Single process mode.\n");
  } else if (args->rank == 0) {
    std::fprintf(TARN_ERR, "MPI mode: This is the root process.\n");
  } else {
    std::fprintf(TARN_ERR, "MPI mode: This is an execution process (rank=%d)\n", args->rank);
  }
  std::fflush(TARN_ERR);
}

Status run_mode(const Args* args, const SSMData* data) {
  if (args->ssm_file != nullptr) {
    return apply_stored_model(args->ssm_file, *data, args->em->update_mu != 0, args->id,
                              {args->prefix, args->suffix, args->each != 0, false, TARN_ERR});
  }
  if (args->sge != 0) {
    single_set(args, data);
  } else if (args->threads == 1) {
    single_one(args, data);
  } else {
    thread(args, data);
  }
  return {};
}

// Prints what a check found; false when the run is to end on it.
bool passes(const Findings& found) {
  for (const std::string& line : found.lines) std::fputs(line.c_str(), TARN_ERR);
  std::fflush(TARN_ERR);
  return !found.failed;
}

int run(int argc, char** argv) {
  const Stopwatch clock;
  TARN_ERR = stderr;

  const std::unique_ptr<Args> args = Args_new();
  if (const int status = parse_args(argc, argv, args.get()); status != ARGS_RUN) return status;
  print_banner(args.get());
  // seed + id + rank, taken as an unsigned 32-bit value.
  const std::int64_t seed_sum = static_cast<std::int64_t>(args->seed) + args->id + args->rank;
  args->init->stream = std::make_unique<RandomStream>(static_cast<std::uint32_t>(seed_sum));

  // The checks of an estimation run only where a set is to be estimated.
  const std::vector<SetId> sets = planned_sets(*args);
  const bool estimates = !sets.empty();
  if (estimates && !passes(check_options(*args))) return 1;

  std::unique_ptr<SSMData> data;
  if (args->rank == 0) {
    Result<std::unique_ptr<SSMData>> table =
        read_table_file(args->input_file, {memory_limit_bytes(), bytes_per_time_point(*args)});
    if (!table.ok()) {
      print_error(table.status().message());
      return 1;
    }
    data = std::move(table.value());
    if (estimates && !passes(check_table(*args, *data))) return 1;
    if (args->shift > 0) {
      std::fprintf(TARN_ERR, "Applying mean shift for the input data set.\n");
      SSMData_node_mean_shift(data.get(), args->shift == 1 ? 1 : 0);
    }
  }
  if (args->nprocs != 1) tarn_fatal("ERROR: MPI support not enabled.\n");
  if (!passes(check_memory(*args, *data))) return 1;
  if (estimates && !passes(check_objects(*args, *data))) return 1;
  // Held until the process ends: no other run writes these sets meanwhile.
  SetLocks locks;
  if (estimates && !passes(claim_result_sets(*args, sets, &locks))) return 1;

  if (const Status ran = run_mode(args.get(), data.get()); !ran.ok()) {
    print_error(ran.message());
    return 1;
  }

  const double t = clock.seconds();
  std::fprintf(TARN_ERR, "All time: %s\nX-ALL-TIME:\t%f\n", format_duration(t).c_str(), t);
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
    tarn::tarn_fatal("ERROR: Out of memory.\n");
  }
}
