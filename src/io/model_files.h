#pragma once

#include "core/data_set.h"
#include "core/em.h"

namespace tarn {

// The end of a set: canonical form, state variables, result files.
void ssm_output(const Estimate* result, Workspace* work, Trajectory* state_store,
                const SSMData* data, const char* prefix, const char* suffix, int set_no, int each,
                int state, int output_option);

}  // namespace tarn
