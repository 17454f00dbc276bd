#include "io/model_files.h"

#include <algorithm>

#include "core/canonical_form.h"
#include "io/output_file.h"
#include "io/result_writers.h"

namespace tarn {

void ssm_output(const Estimate* result, Workspace* work, Trajectory* state_store,
                const SSMData* data, const char* prefix, const char* suffix, int set_no, int each,
                int state, int output_option) {
  CanonicalModel canonical = to_canonical_form(*result->model, work);
  const int k = canonical.model.k();
  // All files of the set are written before any of them is put in place.
  StagedSet files;
  if (state != 0) {
    if (each != 0) {
      Kalman_apply_output_each(&canonical.model, k, data, state_store, work, prefix, suffix, set_no,
                               output_option, &files);
    } else {
      Kalman_apply_output(&canonical.model, k, data, state_store, work, prefix, suffix, set_no,
                          output_option, &files);
    }
    // With the state variables, the D and L blocks of the result files hold
    // R^-1 H of the canonical model (p x k, read as k x p) and the state
    // correction of the last measurement update of the filter runs above.
    canonical.D = information_matrix_as_module(canonical.model);
    std::copy_n(work->correction.data(), k, canonical.L.data());
  }
  if (each != 0) {
    SSMResult_output_each(result, &canonical, prefix, suffix, set_no, &files);
  } else {
    SSMResult_output(result, &canonical, prefix, suffix, set_no, &files);
  }
  files.publish();
}

}  // namespace tarn
