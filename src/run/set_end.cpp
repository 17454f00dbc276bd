#include "run/set_end.h"

#include "io/model_files.h"

namespace tarn {

void finish_set(const RunContext& context, const Estimate* best, int number, EmBuffers* buffers) {
  if (best == nullptr) {
    std::fprintf(context.log, "Estimation failed for this set.\n");
    std::fflush(context.log);
    return;
  }
  const RunSettings& settings = context.settings;
  ssm_output(best, &buffers->workspace, &buffers->trajectory, &context.data,
             settings.prefix.c_str(), settings.suffix.c_str(), number, settings.each,
             settings.state, 0);
}

}  // namespace tarn
