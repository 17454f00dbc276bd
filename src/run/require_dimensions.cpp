#include "io/log.h"
#include "run/modes.h"

namespace tarn {

void require_dimensions(const Args* args) {
  for (int d = 0; d < args->n_dims; ++d) {
    if (args->dims[d] < 1) {
      tarn_fatal("ERROR: State dimension must be 1 or more: %d\n", args->dims[d]);
    }
  }
}

}  // namespace tarn
