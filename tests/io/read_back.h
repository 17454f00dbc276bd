#pragma once
// Reading back what tarnssm wrote: the input table centred per replicate by a
// reader of our own, the combined state-variable file and a check of its rows
// against the textbook filter and smoother.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/dense_reference.h"
#include "io/model_file.h"
#include "run_binary.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace out_test {

using Rows = std::vector<std::vector<std::string>>;

inline const std::string kSim = TARN_EXAMPLES_DIR "/data/sim-expression.txt";

using tarn_test::split;

inline double num(const std::string& s) {
  return std::strtod(s.c_str(), nullptr);
}

// The files of a directory, but for the lock files of result sets, which
// stay in place by design; temporaries left behind do show.
inline std::set<std::string> files_in(const std::filesystem::path& dir) {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    const std::string name = e.path().filename();
    if (!(name.starts_with(".") && name.ends_with(".lock"))) names.insert(name);
  }
  return names;
}

// A data file whose replicates are labelled 1..n, each object centred over
// its observed values within each replicate.
inline dense_ref::Data read_centred(const std::string& path) {
  std::map<std::string, std::vector<double>> labels;
  std::vector<std::vector<double>> rows;
  for (const std::string& line : split(tarn_test::read_text(path), '\n')) {
    if (line.empty() || line[0] == '#') continue;
    const auto cells = split(line, '\t');
    auto& values = cells[0][0] == '@' ? labels[cells[0]] : rows.emplace_back();
    for (std::size_t c = 1; c < cells.size(); ++c) values.push_back(num(cells[c]));
  }
  const std::vector<int> time(labels["@time"].begin(), labels["@time"].end());
  const std::vector<int> rep(labels["@replicate"].begin(), labels["@replicate"].end());
  dense_ref::Data d;
  d.p = static_cast<int>(rows.size());
  d.n_samples = static_cast<int>(time.size());
  d.T = *std::max_element(time.begin(), time.end());
  d.Y.assign(static_cast<std::size_t>(d.p) * time.size(), 0.0);
  d.lists.resize(time.size());
  d.sample_at.assign(static_cast<std::size_t>(*std::max_element(rep.begin(), rep.end())),
                     std::vector<int>(static_cast<std::size_t>(d.T), -1));
  for (int s = 0; s < d.n_samples; ++s) {
    d.sample_at[rep[s] - 1][time[s] - 1] = s;
    for (int i = 0; i < d.p; ++i) {
      if (std::isnan(rows[i][s])) d.lists[s].push_back(i);
      d.Y[i + s * d.p] = std::isnan(rows[i][s]) ? 0.0 : rows[i][s];
    }
    d.lists[s].push_back(-1);
    d.missing.push_back(d.lists[s].data());
  }
  for (const auto& slots : d.sample_at) {
    for (int i = 0; i < d.p; ++i) {
      std::vector<double*> seen;
      double sum = 0.0;
      for (int s : slots)
        if (s >= 0 && !std::isnan(rows[i][s])) sum += *seen.emplace_back(&d.Y[i + s * d.p]);
      for (double* y : seen) *y -= sum / static_cast<double>(seen.size());
    }
  }
  return d;
}

// A model file, or the model part of a result file.
inline dense_ref::Model read_model(const std::filesystem::path& path) {
  std::FILE* fp = std::fopen(path.c_str(), "r");
  if (fp == nullptr) throw std::runtime_error("no model file " + path.string());
  const Result<StoredModel> model = tarn::read_model(fp);
  std::fclose(fp);
  if (!model.ok()) throw std::runtime_error(model.status().message());
  const int p = model->p, k = model->k;
  const auto& ssm = model->ssm;
  using dense_ref::Mat;
  return dense_ref::Model(p, k, Mat(k, 1, ssm->initial_mean), Mat(k, k, ssm->initial_cov),
                          Mat(p, k, ssm->H), Mat(p, 1, ssm->R), Mat(k, k, ssm->F),
                          Mat(k, 1, ssm->Q));
}

// Blocks of a combined state file: blocks[r][label] holds the T rows of
// replicate r, each row split after its time column. The layout is checked
// on the way: replicate line, seven headers, rows "t\t...", "\n\n" closing.
inline std::vector<std::map<std::string, Rows>> read_state_file(const std::string& text, int T) {
  std::vector<std::map<std::string, Rows>> blocks;
  const auto lines = split(text, '\n');
  auto line = [&lines](std::size_t i) { return i < lines.size() ? lines[i] : "<end>"; };
  std::size_t at = 0;
  while (at + 1 < lines.size()) {
    EXPECT_EQ(line(at++), "# REPLICATE " + std::to_string(blocks.size() + 1));
    auto& rep = blocks.emplace_back();
    for (const char* label : {"Xp", "Xf", "Xs", "Yp", "Yf", "Ys", "Y"}) {
      EXPECT_EQ(line(at++), std::string("# ") + label);
      for (int t = 1; t <= T; ++t) {
        auto fields = split(line(at++), '\t');
        EXPECT_EQ(fields[0], std::to_string(t)) << label;
        rep[label].emplace_back(fields.begin() + 1, fields.end());
      }
      EXPECT_EQ(line(at) + line(at + 1), "") << label;
      at += 2;
    }
  }
  EXPECT_EQ(line(at), "");
  return blocks;
}

// The X and H x rows of replicate r against the textbook passes under m.
inline void expect_states(const std::map<std::string, Rows>& rep, const dense_ref::Model& m,
                          const dense_ref::Data& d, int r) {
  const auto f = dense_ref::filter(m, d, r);
  const auto s = dense_ref::smooth(m, f);
  auto expect_row = [](const std::vector<std::string>& got, const dense_ref::Mat& want) {
    ASSERT_EQ(got.size(), want.a.size());
    for (std::size_t j = 0; j < got.size(); ++j)
      EXPECT_NEAR(num(got[j]), want.a[j], 1e-9 * std::max(1.0, std::fabs(want.a[j]))) << j;
  };
  for (int t = 1; t <= d.T; ++t) {
    const dense_ref::Mat* x[] = {&f.Xp[t - 1], &f.Xf[t], &s.Xs[t]};
    const char* labels[][2] = {{"Xp", "Yp"}, {"Xf", "Yf"}, {"Xs", "Ys"}};
    for (int q = 0; q < 3; ++q) {
      SCOPED_TRACE(testing::Message() << labels[q][0] << " row " << t);
      expect_row(rep.at(labels[q][0])[t - 1], *x[q]);
      expect_row(rep.at(labels[q][1])[t - 1], dense_ref::mul(m.H, *x[q]));
    }
  }
}

}  // namespace out_test
