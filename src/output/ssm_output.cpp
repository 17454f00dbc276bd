#include "output/ssm_output.h"

#include "log.h"

void ssm_output(SSMResult* /*result*/, SSMWork* /*work*/, SSMState* /*state_store*/,
                const SSMData* /*data*/, const char* /*prefix*/, const char* /*suffix*/,
                int set_no, int /*each*/, int /*state*/, int /*output_option*/) {
  std::fprintf(TARN_ERR, "Result files of set %d are not written in this build yet.\n", set_no);
  std::fflush(TARN_ERR);
}
