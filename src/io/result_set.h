#pragma once
// The end of an estimated set: its canonical form, state variables and
// result files, staged and put in place together.

#include "core/data_set.h"
#include "core/em.h"
#include "io/result_writers.h"
#include "io/status.h"

namespace tarn {

// Writes set number set of the finished estimate result on data: with
// options.state the filter and smoother run once more per replicate, in
// trajectory and work, under the canonical model. Every file of the set is
// put in place, or none (the files shared by all sets aside); the error
// returned holds the line to print.
Status write_result_set(const Estimate& result, int set, const DataSet& data,
                        const OutputOptions& options, Trajectory* trajectory, Workspace* work);

// The filter and smoother per replicate of data under model, each trajectory
// handed to writer; after writer.begin(), before writer.finish().
Status write_states(const StateSpaceModel& model, const DataSet& data, StateWriter* writer,
                    Trajectory* trajectory, Workspace* work);

}  // namespace tarn
