#pragma once

#include "core/data_set.h"
#include "io/status.h"

namespace tarn {

// Reads a stored model and writes the state variables of the data under it.
// Returns the error of a model file that cannot be read or used, or of a
// table without samples.
Status apply_Kalman(const char* ssm_file, const SSMData* data, int update_mu, const char* prefix,
                    const char* suffix, int id, int each, int output_option);

}  // namespace tarn
