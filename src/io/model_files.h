#pragma once

#include "core/data_set.h"
#include "core/ssm.h"

namespace tarn {

// The end of a set: canonical form, state variables, result files.
void ssm_output(SSMResult* result, SSMWork* work, SSMState* state_store, const SSMData* data,
                const char* prefix, const char* suffix, int set_no, int each, int state,
                int output_option);

}  // namespace tarn
