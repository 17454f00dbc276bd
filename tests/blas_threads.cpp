// BLAS on one thread in every test, as in the program.

#include "linalg/blas.h"

namespace {
const bool kBlasSingleThreaded = (openblas_set_num_threads(1), true);
}  // namespace
