#pragma once

#include "core/data_set.h"
#include "io/result_writers.h"
#include "io/status.h"

namespace tarn {

// Reads a stored model and writes the state variables of data under it, as
// set number id, each file put in place as soon as it is written (options:
// prefix, suffix, each and the log; state is not read). With update_mu the
// initial state is first estimated by one filter and smoother sweep. Returns
// the error of a model file that cannot be read or used or does not fit the
// data, of a table without samples, of a job too large for the memory, or of
// a file that cannot be written.
Status apply_stored_model(const char* model_file, const DataSet& data, bool update_mu, int id,
                          const OutputOptions& options);

}  // namespace tarn
