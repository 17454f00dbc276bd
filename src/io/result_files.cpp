#include <cmath>
#include <cstdio>

#include "io/matrix_text.h"
#include "io/model_file.h"
#include "io/output_file.h"
#include "io/result_writers.h"
#include "io/text_out.h"

namespace tarn {

namespace {

constexpr int kEachPrecision = 15;
constexpr int kModelPrecision = 18;
// Fewer significant digits than this in a written value of R lose the model.
constexpr int kLeastDigits = 6;
constexpr std::size_t kNameRoom = 1024;
constexpr std::size_t kSharedNameRoom = 256;

// A value of R written with the given decimals keeps fewer than kLeastDigits
// significant digits when it is below 10^(kLeastDigits - 1 - decimals):
// data of a tiny scale write a model that cannot be read back and applied.
void warn_if_R_loses_digits(std::FILE* log, const Matrix& R, int decimals,
                            const std::string& name) {
  const int p = static_cast<int>(R.size());
  const double least = std::pow(10.0, kLeastDigits - 1 - decimals);
  int lost = 0;
  double smallest = HUGE_VAL;
  for (int i = 0; i < p; ++i) {
    const double v = std::fabs(R.data()[i]);
    if (v != 0.0 && v < least) {
      ++lost;
      smallest = std::fmin(smallest, v);
    }
  }
  if (lost == 0) return;
  std::fprintf(log,
               "WARNING: %d of the %d values of R written to %s keep fewer than %d significant "
               "digits (the smallest is %.3g): rescale the data, multiplying it by a power of "
               "ten, so that the model reads back as estimated.\n",
               lost, p, name.c_str(), kLeastDigits, smallest);
  std::fflush(log);
}

Status too_long() {
  return Status::error("ERROR: Output prefix and/or postfix too long.");
}

Status write_summary(const std::string& name, const Estimate& result, const SetFiles& files,
                     StagedSet* staged) {
  OutputFile file;
  if (!file.open(name)) return Status::error("ERROR: Failed to open file: " + name);
  std::fprintf(file.stream(), "%03d\t%03d\t%f\t%f\t%d\t%s\t%s\n", files.k, files.set,
               result.log_likelihood, result.bic, result.loops,
               result.monotone ? "Monotone" : "Not Monotone",
               result.converged ? "Converged" : "Not Converged");
  return file.commit(staged);
}

// A column-major rows x columns matrix, "%.15f" separated by two spaces.
Status write_matrix(const std::string& name, const double* matrix, int rows, int columns,
                    StagedSet* staged) {
  OutputFile file;
  if (!file.open(name)) return Status::error("ERROR: Failed to open file: " + name);
  for (int i = 0; i < rows; ++i) {
    put_row(file.stream(), matrix + i, columns, rows, kEachPrecision, "  ");
  }
  return file.commit(staged);
}

Status write_combined(const Estimate& result, const CanonicalModel& canonical,
                      const SetFiles& files, StagedSet* staged) {
  std::FILE* log = files.options->log;
  const StateSpaceModel& ssm = canonical.model;
  const FileName name = result_file_name(files, "A");
  if (!name.fits) return too_long();
  std::fprintf(log, "Outputting the result into a single file: %s\n", name.text.c_str());
  std::fflush(log);
  OutputFile file;
  if (!file.open(name.text)) return Status::error("ERROR: Failed to open file: " + name.text);
  warn_if_R_loses_digits(log, ssm.R, kModelPrecision, name.text);
  write_model(&ssm, ssm.p(), ssm.k(), file.stream());
  write_labelled_matrix(file.stream(), "SSMResult::D", canonical.D.data(), ssm.k(), ssm.p());
  write_labelled_matrix(file.stream(), "SSMResult::L", canonical.L.data(), ssm.k(), 1);
  if (Status done = file.commit(staged); !done.ok()) return done;

  const std::string summary = result_file_name(files, "B").text;
  std::fprintf(log, "Outputting the summary file: %s\n", summary.c_str());
  return write_summary(summary, result, files, staged);
}

Status write_each(const Estimate& result, const CanonicalModel& canonical, const SetFiles& files,
                  StagedSet* staged) {
  std::FILE* log = files.options->log;
  const StateSpaceModel& ssm = canonical.model;
  const int p = ssm.p();
  const int k = ssm.k();
  const FileName pattern = result_file_name(files, "*");
  if (!pattern.fits) return too_long();
  std::fprintf(log, "Outputting files: %s\n", pattern.text.c_str());
  std::fflush(log);
  struct Part {
    const char* label;
    const Matrix& values;
    int rows;
    int columns;
  };
  const Part parts[] = {{"H", ssm.H, p, k},       {"R", ssm.R, p, 1},
                        {"F", ssm.F, k, k},       {"D", canonical.D, k, p},
                        {"L", canonical.L, k, 1}, {"x", ssm.initial_mean, k, 1}};
  for (const Part& part : parts) {
    const std::string name = result_file_name(files, part.label).text;
    std::fprintf(log, "%s ...\n", name.c_str());
    if (&part.values == &ssm.R) warn_if_R_loses_digits(log, ssm.R, kEachPrecision, name);
    Status done = write_matrix(name, part.values.data(), part.rows, part.columns, staged);
    if (!done.ok()) return done;
  }
  const std::string summary = result_file_name(files, "B").text;
  std::fprintf(log, "%s ...\n", summary.c_str());
  return write_summary(summary, result, files, staged);
}

}  // namespace

FileName result_file_name(const SetFiles& files, const char* label, int replicate, bool shared) {
  const OutputOptions& o = *files.options;
  char buf[kNameRoom];
  const std::size_t room = shared ? kSharedNameRoom : kNameRoom;
  int len = 0;
  if (shared) {
    len = std::snprintf(buf, room, "%s.%s.%d.%s", o.prefix, label, replicate, o.suffix);
  } else if (replicate > 0) {
    len = std::snprintf(buf, room, "%s.D%03d.S%03d.%s.%d.%s", o.prefix, files.k, files.set, label,
                        replicate, o.suffix);
  } else {
    len = std::snprintf(buf, room, "%s.D%03d.S%03d.%s.%s", o.prefix, files.k, files.set, label,
                        o.suffix);
  }
  return {buf, len >= 0 && static_cast<std::size_t>(len) < room};
}

Status write_result_files(const Estimate& result, const CanonicalModel& canonical,
                          const SetFiles& files, StagedSet* staged) {
  return files.options->each ? write_each(result, canonical, files, staged)
                             : write_combined(result, canonical, files, staged);
}

}  // namespace tarn
