#include "io/log.h"

namespace tarn {

void print_error(std::FILE* log, const std::string& message) {
  std::FILE* out = log != nullptr ? log : stderr;
  const auto print_on = [&message](std::FILE* fp) {
    return std::fputs(message.c_str(), fp) >= 0 && std::fputc('\n', fp) != EOF &&
           std::fflush(fp) == 0;
  };
  // A log file that cannot take the message (a full disk) must not lose it.
  if (!print_on(out) && out != stderr) print_on(stderr);
}

}  // namespace tarn
