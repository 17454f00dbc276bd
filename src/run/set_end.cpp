#include "run/set_end.h"

#include "io/result_set.h"

namespace tarn {

Status finish_set(const RunContext& context, const Estimate* best, int number, EmBuffers* buffers,
                  std::FILE* log) {
  if (best == nullptr) {
    std::fprintf(log, "Estimation failed for this set.\n");
    std::fflush(log);
    return {};
  }
  const RunSettings& settings = context.settings;
  const OutputOptions options{settings.prefix.c_str(), settings.suffix.c_str(), settings.each != 0,
                              settings.state != 0, log};
  return write_result_set(*best, number, context.data, options, &buffers->trajectory,
                          &buffers->workspace);
}

}  // namespace tarn
