// libFuzzer target for the input table reader: every input must either give
// a table or an error with its message, never a crash or a leak.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "io/read_table.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {
// The reader reports meta-data lines on the log.
std::FILE* const kLog = std::fopen("/dev/null", "w");
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static std::uint8_t none = 0;  // the empty input still needs a buffer to open
  std::FILE* fp = fmemopen(size == 0 ? &none : const_cast<std::uint8_t*>(data), size, "r");
  if (fp == nullptr) std::abort();
  try {
    // The budget of a run on a machine of 1 GB, below libFuzzer's limits.
    const auto table = read_table(fp, kLog, {1e9, 0.0});
    if (!table.ok() && table.status().message().empty()) std::abort();
  } catch (const std::bad_alloc&) {
  }
  std::fclose(fp);
  return 0;
}
