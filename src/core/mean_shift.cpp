#include <cstddef>
#include <vector>

#include "core/data_set.h"

namespace tarn {

namespace {

// Calls visit(i, y) for every observed row i of column s, walking the
// ascending missing list beside the rows.
template <typename Visit>
void for_observed(DataSet* data, int s, Visit visit) {
  const int* m = data->missing[static_cast<std::size_t>(s)];
  double* y = data->Y.data() + static_cast<std::size_t>(s) * static_cast<std::size_t>(data->p);
  for (int i = 0; i < data->p; ++i) {
    if (*m == i) {
      ++m;
    } else {
      visit(i, y[i]);
    }
  }
}

// Subtracts from every object its mean over the given columns, in order.
template <typename ForColumns>
void shift_group(DataSet* data, std::vector<double>& mean, std::vector<int>& count,
                 ForColumns for_columns) {
  mean.assign(static_cast<std::size_t>(data->p), 0.0);
  count.assign(static_cast<std::size_t>(data->p), 0);
  for_columns([&](int s) {
    for_observed(data, s, [&](int i, double& y) {
      count[static_cast<std::size_t>(i)] += 1;
      mean[static_cast<std::size_t>(i)] += y;
    });
  });
  for (std::size_t i = 0; i < mean.size(); ++i) {
    mean[i] = count[i] == 0 ? 0.0 : mean[i] / count[i];
  }
  for_columns([&](int s) {
    for_observed(data, s, [&](int i, double& y) { y -= mean[static_cast<std::size_t>(i)]; });
  });
}

}  // namespace

void shift_means(DataSet* data, int each_replicate) {
  std::vector<double> mean;
  std::vector<int> count;
  if (each_replicate == 1) {
    for (int r = 0; r < data->n_replicates; ++r) {
      const int* at = data->sample_at[static_cast<std::size_t>(r)];
      shift_group(data, mean, count, [&](auto column) {
        for (int t = 0; t < data->T; ++t) {
          if (at[t] != -1) column(at[t]);
        }
      });
    }
  } else {
    shift_group(data, mean, count, [&](auto column) {
      for (int s = 0; s < data->n_samples; ++s) column(s);
    });
  }
}

}  // namespace tarn
