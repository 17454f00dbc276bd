#include <cstdio>

#include "core/kalman.h"
#include "io/log.h"
#include "io/output_file.h"
#include "io/result_writers.h"
#include "io/text_out.h"
#include "linalg/blas.h"

namespace tarn {

namespace {

constexpr int kStatePrecision = 17;
constexpr int kDataPrecision = 15;

// e = H x.
void image_through_H(const double* H, const double* x, int p, int k, double* e) {
  dgemv_("N", &p, &k, &blas::kOne, H, &p, x, &blas::kIncOne, &blas::kZero, e, &blas::kIncOne);
}

// The p fields of replicate r at time index t: values, or "NAN" where missing.
void put_observed_row(std::FILE* fp, const SSMData* data, int r, int t) {
  const int p = data->p;
  const int s = data->sample_at[static_cast<std::size_t>(r)][t];
  const int* m = s == -1 ? nullptr : data->missing[static_cast<std::size_t>(s)];
  const double* y = s == -1 ? nullptr : data->Y.data() + static_cast<std::size_t>(s) * p;
  for (int j = 0; j < p; ++j) {
    if (j > 0) fputc_unlocked('\t', fp);
    if (s == -1 || *m == j) {
      std::fputs("NAN", fp);
      if (s != -1) ++m;
    } else {
      put_fixed(fp, y[j], kDataPrecision);
    }
  }
  fputc_unlocked('\n', fp);
}

void filter_and_smooth(const StateSpaceModel* ssm, const SSMData* data, Trajectory* state,
                       Workspace* work, int r) {
  run_filter(*ssm, replicate_view(*data, r), state, work);
  run_smoother(state, work);
}

// "# label" block of the combined file: T rows "t\tv1\tv2...", then "\n\n".
template <typename Row>
void put_block(std::FILE* fp, const char* label, int T, Row row) {
  std::fprintf(fp, "# %s\n", label);
  for (int t = 0; t < T; ++t) {
    std::fprintf(fp, "%d\t", t + 1);
    row(t);
  }
  std::fputs("\n\n", fp);
}

// The state files fail with "ERROR: Cannot open file", the data file with
// the same words but no "ERROR: " in front.
OutputFile open_or_die(const char* name, bool error_prefix, StagedSet* files) {
  OutputFile file;
  if (!OutputFile_open(&file, name)) {
    OutputFile_fail(files, error_prefix ? "ERROR: Cannot open file: " : "Cannot open file: ", name);
  }
  return file;
}

}  // namespace

void Kalman_apply_output(const StateSpaceModel* ssm, int k, const SSMData* data, Trajectory* state,
                         Workspace* work, const char* prefix, const char* suffix, int set,
                         int /*output_option*/, StagedSet* files) {
  char name[1024];
  const int len = std::snprintf(name, sizeof name, "%s.D%03d.S%03d.K.%s", prefix, k, set, suffix);
  if (len < 0 || len >= static_cast<int>(sizeof name)) {
    OutputFile_fail(files, "ERROR: Output prefix and/or postfix too long.");
  }
  std::fprintf(TARN_ERR, "Outputting the calculated state variables: %s\n", name);
  std::fflush(TARN_ERR);
  OutputFile file;
  if (!OutputFile_open(&file, name)) {
    std::fprintf(TARN_ERR, "WARNING: Cannot open file: %s\n", name);
    return;
  }
  std::FILE* fp = file.fp;
  const int p = data->p;
  const int T = data->T;
  const double* H = ssm->H.data();
  const Trajectory* s = state;
  for (int r = 0; r < data->n_replicates; ++r) {
    std::fprintf(fp, "# REPLICATE %d\n", r + 1);
    filter_and_smooth(ssm, data, state, work, r);
    auto x_row = [&](const StateTable& x, int offset) {
      return
          [&x, offset, fp, k](int t) { put_row(fp, x[t + offset], k, 1, kStatePrecision, "\t"); };
    };
    auto hx_row = [&](const StateTable& x, int offset) {
      return [&x, offset, fp, H, p, k, work](int t) {
        image_through_H(H, x[t + offset], p, k, work->innovation.data());
        put_row(fp, work->innovation.data(), p, 1, kStatePrecision, "\t");
      };
    };
    put_block(fp, "Xp", T, x_row(s->predicted_mean, 0));
    put_block(fp, "Xf", T, x_row(s->filtered_mean, 1));
    put_block(fp, "Xs", T, x_row(s->smoothed_mean, 1));
    put_block(fp, "Yp", T, hx_row(s->predicted_mean, 0));
    put_block(fp, "Yf", T, hx_row(s->filtered_mean, 1));
    put_block(fp, "Ys", T, hx_row(s->smoothed_mean, 1));
    put_block(fp, "Y", T, [&](int t) { put_observed_row(fp, data, r, t); });
  }
  OutputFile_commit(&file, files);
}

void SSMState_output(const char* file_name, const double* const* x, int k, int T,
                     StagedSet* files) {
  OutputFile file = open_or_die(file_name, true, files);
  for (int t = 0; t < T; ++t) put_row(file.fp, x[t], k, 1, kStatePrecision, "\t");
  OutputFile_commit(&file, files);
}

void SSM_output_Hx(const char* file_name, const double* H, const double* const* x, int p, int k,
                   int T, double* buffer, StagedSet* files) {
  OutputFile file = open_or_die(file_name, true, files);
  for (int t = 0; t < T; ++t) {
    image_through_H(H, x[t], p, k, buffer);
    put_row(file.fp, buffer, p, 1, kStatePrecision, "\t");
  }
  OutputFile_commit(&file, files);
}

void SSMData_output(const SSMData* data, const char* file_name, int r, StagedSet* files) {
  OutputFile file = open_or_die(file_name, false, files);
  for (int t = 0; t < data->T; ++t) put_observed_row(file.fp, data, r, t);
  OutputFile_commit_beside(&file, files);
}

void Kalman_apply_output_each(const StateSpaceModel* ssm, int k, const SSMData* data,
                              Trajectory* state, Workspace* work, const char* prefix,
                              const char* suffix, int set, int /*output_option*/,
                              StagedSet* files) {
  const int p = data->p;
  const int T = data->T;
  const Trajectory* s = state;
  for (int r = 0; r < data->n_replicates; ++r) {
    filter_and_smooth(ssm, data, state, work, r);
    // Names that do not fit their buffer are cut at its end.
    auto name_of = [&](char* buf, std::size_t size, const char* label) {
      std::snprintf(buf, size, "%s.D%03d.S%03d.%s.%d.%s", prefix, k, set, label, r + 1, suffix);
      std::fprintf(TARN_ERR, "%s ...\n", buf);
      std::fflush(TARN_ERR);
    };
    const double* const* tables[] = {s->predicted_mean.entries(), s->filtered_mean.entries() + 1,
                                     s->smoothed_mean.entries() + 1};
    const char* x_labels[] = {"Xp", "Xf", "Xs"};
    const char* y_labels[] = {"Yp", "Yf", "Ys"};
    char name[1024];
    for (int q = 0; q < 3; ++q) {
      name_of(name, sizeof name, x_labels[q]);
      SSMState_output(name, tables[q], k, T, files);
    }
    for (int q = 0; q < 3; ++q) {
      name_of(name, sizeof name, y_labels[q]);
      SSM_output_Hx(name, ssm->H.data(), tables[q], p, k, T, work->innovation.data(), files);
    }
    char data_name[256];
    std::snprintf(data_name, sizeof data_name, "%s.%s.%d.%s", prefix, "Y", r + 1, suffix);
    std::fprintf(TARN_ERR, "%s ...\n", data_name);
    std::fflush(TARN_ERR);
    SSMData_output(data, data_name, r, files);
  }
}

}  // namespace tarn
