#pragma once
// The end of a set, in every mode: its result files, or the line that says
// no start gave one.

#include "core/em.h"
#include "run/modes.h"

namespace tarn {

// best is null when the set has no result to write; number is the set's
// number in the file names. The set's log lines go to log.
Status finish_set(const RunContext& context, const Estimate* best, int number, EmBuffers* buffers,
                  std::FILE* log);

}  // namespace tarn
