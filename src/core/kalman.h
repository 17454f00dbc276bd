#pragma once
// Forward and backward passes of the state space model over one replicate.

#include <span>

#include "core/batch_products.h"
#include "core/data_set.h"
#include "core/em_data.h"
#include "core/model.h"
#include "core/trajectory.h"
#include "core/workspace.h"

namespace tarn {

// The series of one replicate: the column of Y for each time point, or -1.
struct ReplicateView {
  const double* Y;                 // p x n_samples, column-major; missing cells hold 0.0
  std::span<const int> sample_at;  // T entries
  const int* const* missing;       // per column: the missing rows, ascending, ended by -1
  const int* column_of;            // per column: its place among the read columns, or null
  const double* squares;           // p: the replicate's sums of squares, or null
  const int* missing_counts;       // per read column: its missing rows, or null
};

// Replicate r of the data set.
ReplicateView replicate_view(const DataSet& data, int r);
// Replicate r, with the places of its columns among the read columns.
ReplicateView replicate_view(const EmData& data, int r);

// Fills the predicted and filtered tables, F_filtered_cov and
// predicted_precision of trajectory for the replicate and returns its
// log-likelihood. Nothing of size p x p is formed: the update runs in
// information form on k x k systems.
double run_filter(const StateSpaceModel& model, const ReplicateView& series, Trajectory* trajectory,
                  Workspace* work);
// The same from the products of the model with the data (series from the
// EmData they were formed on): a time point costs k x k work and its missing
// rows. The replicate's sum of e'R^-1 e, which the likelihood takes, is
// expanded into terms the products give, or taken in a sweep over the objects
// where the expanded form would lose digits.
double run_filter(const StateSpaceModel& model, const ReplicateView& series,
                  const StartProducts& products, Trajectory* trajectory, Workspace* work);

// Rauch-Tung-Striebel pass after run_filter on the same trajectory: fills the
// smoother gains and the smoothed tables. With T >= 1 it leaves
// work->vector_scratch holding smoothed_mean[1] - predicted_mean[0].
void run_smoother(Trajectory* trajectory, Workspace* work);

}  // namespace tarn
