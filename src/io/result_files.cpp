#include <cmath>
#include <cstdio>

#include "io/log.h"
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

// A value of R written with the given decimals keeps fewer than kLeastDigits
// significant digits when it is below 10^(kLeastDigits - 1 - decimals):
// data of a tiny scale write a model that cannot be read back and applied.
void warn_if_R_loses_digits(const double* R, int p, int decimals, const char* name) {
  const double least = std::pow(10.0, kLeastDigits - 1 - decimals);
  int lost = 0;
  double smallest = HUGE_VAL;
  for (int i = 0; i < p; ++i) {
    const double v = std::fabs(R[i]);
    if (v != 0.0 && v < least) {
      ++lost;
      smallest = std::fmin(smallest, v);
    }
  }
  if (lost == 0) return;
  std::fprintf(TARN_ERR,
               "WARNING: %d of the %d values of R written to %s keep fewer than %d significant "
               "digits (the smallest is %.3g): rescale the data, multiplying it by a power of "
               "ten, so that the model reads back as estimated.\n",
               lost, p, name, kLeastDigits, smallest);
  std::fflush(TARN_ERR);
}

// Formats the name of one result file; the caller checks the first name's length.
int result_name(char (&buf)[1024], const char* prefix, int k, int set, const char* label,
                const char* suffix) {
  return std::snprintf(buf, sizeof buf, "%s.D%03d.S%03d.%s.%s", prefix, k, set, label, suffix);
}

void require_fits(int len, StagedSet* files) {
  if (len < 0 || len >= 1024) {
    OutputFile_fail(files, "ERROR: Output prefix and/or postfix too long.");
  }
}

OutputFile open_result(const char* name, StagedSet* files) {
  OutputFile file;
  if (!OutputFile_open(&file, name)) OutputFile_fail(files, "ERROR: Failed to open file: ", name);
  return file;
}

void write_summary(const char* name, const Estimate* result, int k, int set, StagedSet* files) {
  OutputFile file = open_result(name, files);
  std::fprintf(file.fp, "%03d\t%03d\t%f\t%f\t%d\t%s\t%s\n", k, set, result->log_likelihood,
               result->bic, result->loops, result->monotone != 0 ? "Monotone" : "Not Monotone",
               result->converged != 0 ? "Converged" : "Not Converged");
  OutputFile_commit(&file, files);
}

}  // namespace

void SSMResult_output(const Estimate* result, const CanonicalModel* canonical, const char* prefix,
                      const char* suffix, int set, StagedSet* files) {
  const StateSpaceModel* ssm = &canonical->model;
  const int p = ssm->p();
  const int k = ssm->k();
  char name[1024];
  require_fits(result_name(name, prefix, k, set, "A", suffix), files);
  std::fprintf(TARN_ERR, "Outputting the result into a single file: %s\n", name);
  std::fflush(TARN_ERR);
  OutputFile file = open_result(name, files);
  warn_if_R_loses_digits(ssm->R.data(), p, kModelPrecision, name);
  write_model(ssm, p, k, file.fp);
  write_labelled_matrix(file.fp, "SSMResult::D", canonical->D.data(), k, p);
  write_labelled_matrix(file.fp, "SSMResult::L", canonical->L.data(), k, 1);
  OutputFile_commit(&file, files);

  result_name(name, prefix, k, set, "B", suffix);
  std::fprintf(TARN_ERR, "Outputting the summary file: %s\n", name);
  write_summary(name, result, k, set, files);
}

void SSMResult_output_matrix(const char* file_name, const double* matrix, int rows, int columns,
                             StagedSet* files) {
  OutputFile file = open_result(file_name, files);
  for (int i = 0; i < rows; ++i) put_row(file.fp, matrix + i, columns, rows, kEachPrecision, "  ");
  OutputFile_commit(&file, files);
}

void SSMResult_output_each(const Estimate* result, const CanonicalModel* canonical,
                           const char* prefix, const char* suffix, int set, StagedSet* files) {
  const StateSpaceModel* ssm = &canonical->model;
  const int p = ssm->p();
  const int k = ssm->k();
  char name[1024];
  require_fits(result_name(name, prefix, k, set, "*", suffix), files);
  std::fprintf(TARN_ERR, "Outputting files: %s\n", name);
  std::fflush(TARN_ERR);
  struct Part {
    const char* label;
    const double* values;
    int rows;
    int columns;
  };
  const Part parts[] = {{"H", ssm->H.data(), p, k},       {"R", ssm->R.data(), p, 1},
                        {"F", ssm->F.data(), k, k},       {"D", canonical->D.data(), k, p},
                        {"L", canonical->L.data(), k, 1}, {"x", ssm->initial_mean.data(), k, 1}};
  for (const Part& part : parts) {
    result_name(name, prefix, k, set, part.label, suffix);
    std::fprintf(TARN_ERR, "%s ...\n", name);
    if (part.values == ssm->R.data())
      warn_if_R_loses_digits(ssm->R.data(), p, kEachPrecision, name);
    SSMResult_output_matrix(name, part.values, part.rows, part.columns, files);
  }
  result_name(name, prefix, k, set, "B", suffix);
  std::fprintf(TARN_ERR, "%s ...\n", name);
  write_summary(name, result, k, set, files);
}

}  // namespace tarn
