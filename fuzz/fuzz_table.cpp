// libFuzzer target for the input table reader: every input must either give
// a table or end in the reader's fatal error, never a crash or a leak.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "core/data_set.h"
#include "io/log.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace {

struct FatalError {};

constexpr double kMemoryBytes = 1e9;

[[noreturn]] void throw_fatal() {
  throw FatalError{};
}

// read_file takes a name: each input goes to one scratch file, rewritten per run.
const char* scratch_file() {
  static char path[] = "/tmp/fuzz_table_XXXXXX";
  static const int fd = mkstemp(path);
  if (fd < 0) std::abort();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  TARN_ERR = std::fopen("/dev/null", "w");
  tarn_fatal_hook = throw_fatal;
  std::atexit([] { unlink(scratch_file()); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::FILE* fp = std::fopen(scratch_file(), "wb");
  if (fp == nullptr || std::fwrite(data, 1, size, fp) != size || std::fclose(fp) != 0) std::abort();
  try {
    // The budget of a run on a machine of 1 GB, below libFuzzer's limits.
    const auto table = read_file(scratch_file(), {kMemoryBytes, 0.0});
  } catch (const FatalError&) {
  } catch (const std::bad_alloc&) {
  }
  return 0;
}
