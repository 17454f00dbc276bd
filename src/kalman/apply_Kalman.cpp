#include "kalman/apply_Kalman.h"

#include "log.h"

void apply_Kalman(const char* ssm_file, const SSMData* data, int /*update_mu*/,
                  const char* /*prefix*/, const char* /*suffix*/, int /*id*/, int /*each*/,
                  int /*output_option*/) {
  std::fprintf(TARN_ERR, "Reading the SSM model parameters from the file: %s\n", ssm_file);
  SSMData_print_summary(data);
  SSMData_require_samples(data);
  std::fprintf(TARN_ERR, "Applying a stored model is not available in this build yet.\n");
  std::fflush(TARN_ERR);
}
