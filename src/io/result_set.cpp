#include "io/result_set.h"

#include <algorithm>

#include "core/canonical_form.h"
#include "core/kalman.h"
#include "io/output_file.h"

namespace tarn {

namespace {

// With the state variables written, the D and L blocks of the result files
// hold R^-1 H of the canonical model (p x k, read as k x p) and the state
// correction of the last measurement update of the filter runs for them.
void use_filter_output_as_module(const Workspace& work, CanonicalModel* canonical) {
  canonical->D = information_matrix_as_module(canonical->model);
  std::copy_n(work.correction.data(), canonical->model.k(), canonical->L.data());
}

}  // namespace

Status write_states(const StateSpaceModel& model, const DataSet& data, StateWriter* writer,
                    Trajectory* trajectory, Workspace* work) {
  if (!writer->wants_states()) return {};
  for (int r = 0; r < data.n_replicates; ++r) {
    run_filter(model, replicate_view(data, r), trajectory, work);
    run_smoother(trajectory, work);
    if (Status written = writer->write_replicate(r, *trajectory); !written.ok()) return written;
  }
  return {};
}

Status write_result_set(const Estimate& result, int set, const DataSet& data,
                        const OutputOptions& options, Trajectory* trajectory, Workspace* work) {
  CanonicalModel canonical = to_canonical_form(*result.model, work);
  const SetFiles files{&options, canonical.model.k(), set};
  // All files of the set are written before any of them is put in place;
  // on failure the staged ones go with the object.
  StagedSet staged;
  if (options.state) {
    StateWriter writer(canonical.model, data, files, &staged);
    Status done = writer.begin();
    // A combined file that cannot be opened is only a warning: no replicate
    // is filtered then, and D and L stay those of the canonical form.
    const bool filtered = done.ok() && writer.wants_states();
    if (done.ok()) done = write_states(canonical.model, data, &writer, trajectory, work);
    if (done.ok()) done = writer.finish();
    if (!done.ok()) return done;
    if (filtered) use_filter_output_as_module(*work, &canonical);
  }
  if (Status done = write_result_files(result, canonical, files, &staged); !done.ok()) return done;
  return staged.publish();
}

}  // namespace tarn
