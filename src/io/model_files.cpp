#include "io/model_files.h"

#include "core/canonical_form.h"
#include "io/output_file.h"
#include "io/result_writers.h"

namespace tarn {

void ssm_output(SSMResult* result, SSMWork* work, SSMState* state_store, const SSMData* data,
                const char* prefix, const char* suffix, int set_no, int each, int state,
                int output_option) {
  SSMResult_calc_D_L(result, work);
  // All files of the set are written before any of them is put in place.
  StagedSet files;
  // The filter passes of the state writers reuse RinvH and u, under D and L.
  if (state != 0) {
    if (each != 0) {
      Kalman_apply_output_each(result->ssm, result->k, data, state_store, work, prefix, suffix,
                               set_no, output_option, &files);
    } else {
      Kalman_apply_output(result->ssm, result->k, data, state_store, work, prefix, suffix, set_no,
                          output_option, &files);
    }
  }
  if (each != 0) {
    SSMResult_output_each(result, prefix, suffix, set_no, &files);
  } else {
    SSMResult_output(result, prefix, suffix, set_no, &files);
  }
  files.publish();
}

}  // namespace tarn
