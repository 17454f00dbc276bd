#include "exec/modes.h"
#include "log.h"

void thread(const Args* args, const SSMData* data) {
  std::fprintf(TARN_ERR, "*******************************\n");
  std::fprintf(TARN_ERR, "**   Thread Execution Mode   **\n");
  std::fprintf(TARN_ERR, "*******************************\n");
  std::fprintf(TARN_ERR, "Number of threads = %d\n", args->threads);
  SSMData_print_summary(data);
  SSMData_require_samples(data);
  std::fprintf(TARN_ERR, "Estimation is not available in this build yet.\n");
  std::fflush(TARN_ERR);
}
