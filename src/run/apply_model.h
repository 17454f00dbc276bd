#pragma once

#include "core/data_set.h"

namespace tarn {

// Reads a stored model and writes the state variables of the data under it.
void apply_Kalman(const char* ssm_file, const SSMData* data, int update_mu, const char* prefix,
                  const char* suffix, int id, int each, int output_option);

}  // namespace tarn
