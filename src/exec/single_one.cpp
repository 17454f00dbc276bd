#include "exec/modes.h"
#include "log.h"

void single_one(const Args* /*args*/, const SSMData* data) {
  std::fprintf(TARN_ERR, "*******************************\n");
  std::fprintf(TARN_ERR, "**   Single Execution Mode   **\n");
  std::fprintf(TARN_ERR, "*******************************\n");
  SSMData_print_summary(data);
  SSMData_require_samples(data);
  std::fprintf(TARN_ERR, "Estimation is not available in this build yet.\n");
  std::fflush(TARN_ERR);
}
