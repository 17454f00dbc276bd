#include <array>
#include <cstdio>

#include "io/output_file.h"
#include "io/result_writers.h"
#include "io/text_out.h"
#include "linalg/blas.h"

namespace tarn {

namespace {

constexpr int kStatePrecision = 17;
constexpr int kDataPrecision = 15;

// e = H x.
void image_through_H(const StateSpaceModel& model, const double* x, double* e) {
  const int p = model.p();
  const int k = model.k();
  dgemv_("N", &p, &k, &blas::kOne, model.H.data(), &p, x, &blas::kIncOne, &blas::kZero, e,
         &blas::kIncOne);
}

// The p fields of replicate r at time index t: values, or "NAN" where missing.
void put_observed_row(std::FILE* fp, const DataSet& data, int r, int t) {
  const int p = data.p;
  const int s = data.sample_at[static_cast<std::size_t>(r)][t];
  const int* m = s == -1 ? nullptr : data.missing[static_cast<std::size_t>(s)];
  const double* y = s == -1 ? nullptr : data.Y.data() + static_cast<std::size_t>(s) * p;
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

// The three state tables as T rows each: Xp from entry 0, Xf and Xs from 1.
struct StateRows {
  const char* x_label;
  const char* y_label;
  const double* const* rows;
};

std::array<StateRows, 3> state_rows(const Trajectory& s) {
  return {{{"Xp", "Yp", s.predicted_mean.entries()},
           {"Xf", "Yf", s.filtered_mean.entries() + 1},
           {"Xs", "Ys", s.smoothed_mean.entries() + 1}}};
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
Status cannot_open(const std::string& name, bool error_prefix) {
  return Status::error((error_prefix ? "ERROR: Cannot open file: " : "Cannot open file: ") + name);
}

}  // namespace

StateWriter::StateWriter(const StateSpaceModel& model, const DataSet& data, const SetFiles& files,
                         StagedSet* staged)
    : model_(model),
      data_(data),
      files_(files),
      staged_(staged),
      image_(static_cast<std::size_t>(model.p())) {}

Status StateWriter::begin() {
  if (files_.options->each) return {};
  std::FILE* log = files_.options->log;
  const FileName name = result_file_name(files_, "K");
  if (!name.fits) return Status::error("ERROR: Output prefix and/or postfix too long.");
  std::fprintf(log, "Outputting the calculated state variables: %s\n", name.text.c_str());
  std::fflush(log);
  if (!combined_.open(name.text)) {
    std::fprintf(log, "WARNING: Cannot open file: %s\n", name.text.c_str());
  }
  return {};
}

Status StateWriter::write_replicate(int r, const Trajectory& trajectory) {
  if (files_.options->each) return write_each(r, trajectory);
  write_combined(r, trajectory);
  return {};
}

Status StateWriter::finish() {
  if (combined_.stream() == nullptr) return {};
  return combined_.commit(staged_);
}

void StateWriter::write_combined(int r, const Trajectory& trajectory) {
  std::FILE* fp = combined_.stream();
  const int k = model_.k();
  const int p = data_.p;
  const int T = data_.T;
  std::fprintf(fp, "# REPLICATE %d\n", r + 1);
  const auto tables = state_rows(trajectory);
  for (const StateRows& x : tables) {
    put_block(fp, x.x_label, T,
              [&](int t) { put_row(fp, x.rows[t], k, 1, kStatePrecision, "\t"); });
  }
  for (const StateRows& x : tables) {
    put_block(fp, x.y_label, T, [&](int t) {
      image_through_H(model_, x.rows[t], image_.data());
      put_row(fp, image_.data(), p, 1, kStatePrecision, "\t");
    });
  }
  put_block(fp, "Y", T, [&](int t) { put_observed_row(fp, data_, r, t); });
}

Status StateWriter::write_each(int r, const Trajectory& trajectory) {
  std::FILE* log = files_.options->log;
  const int k = model_.k();
  const int p = data_.p;
  const int T = data_.T;
  // Names that do not fit are cut (result_file_name).
  auto announce = [log](const std::string& name) {
    std::fprintf(log, "%s ...\n", name.c_str());
    std::fflush(log);
    return name;
  };
  const auto tables = state_rows(trajectory);
  for (const bool image : {false, true}) {
    for (const StateRows& x : tables) {
      const std::string name =
          announce(result_file_name(files_, image ? x.y_label : x.x_label, r + 1).text);
      OutputFile file;
      if (!file.open(name)) return cannot_open(name, true);
      for (int t = 0; t < T; ++t) {
        const double* row = x.rows[t];
        if (image) image_through_H(model_, x.rows[t], image_.data());
        put_row(file.stream(), image ? image_.data() : row, image ? p : k, 1, kStatePrecision,
                "\t");
      }
      if (Status done = file.commit(staged_); !done.ok()) return done;
    }
  }
  const std::string name = announce(result_file_name(files_, "Y", r + 1, true).text);
  OutputFile file;
  if (!file.open(name)) return cannot_open(name, false);
  for (int t = 0; t < T; ++t) put_observed_row(file.stream(), data_, r, t);
  return file.commit_at_once();
}

}  // namespace tarn
