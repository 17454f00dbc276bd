// libFuzzer target for the model file reader and the check that apply makes of
// what it read: every input must either pass or give an error with its
// message, never a crash or a leak.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "io/model_file.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static std::uint8_t none = 0;  // the empty input still needs a buffer to open
  std::FILE* fp = fmemopen(size == 0 ? &none : const_cast<std::uint8_t*>(data), size, "r");
  if (fp == nullptr) std::abort();
  try {
    // The budget of a run on a machine of 1 GB, below libFuzzer's limits.
    const auto model = read_model(fp, 1e9);
    const Status status = model.ok() ? check_usable(model.value()) : model.status();
    if (!status.ok() && status.message().empty()) std::abort();
  } catch (const std::bad_alloc&) {
  }
  std::fclose(fp);
  return 0;
}
