// libFuzzer target for the model file reader and the check that apply makes of
// what it read: every input must either pass or end in a fatal error, never a
// crash or a leak.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "io/log.h"
#include "io/model_file.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

struct FatalError {};

[[noreturn]] void throw_fatal() {
  throw FatalError{};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  TARN_ERR = std::fopen("/dev/null", "w");
  tarn_fatal_hook = throw_fatal;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static std::uint8_t none = 0;  // the empty input still needs a buffer to open
  std::FILE* fp = fmemopen(size == 0 ? &none : const_cast<std::uint8_t*>(data), size, "r");
  if (fp == nullptr) std::abort();
  try {
    int p = 0;
    int k = 0;
    SSMFileLines lines;
    // The budget of a run on a machine of 1 GB, below libFuzzer's limits.
    const auto ssm = SSM_read_fp(fp, &p, &k, &lines, 1e9);
    SSM_require_usable(ssm.get(), p, k, lines);
  } catch (const FatalError&) {
  } catch (const std::bad_alloc&) {
  }
  std::fclose(fp);
  return 0;
}
