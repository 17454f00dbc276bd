#include "io/log.h"

#include <cstdarg>
#include <cstdlib>

namespace tarn {

std::FILE* TARN_ERR = stderr;

void print_error(std::FILE* log, const std::string& message) {
  std::FILE* out = log != nullptr ? log : stderr;
  const auto print_on = [&message](std::FILE* fp) {
    return std::fputs(message.c_str(), fp) >= 0 && std::fputc('\n', fp) != EOF &&
           std::fflush(fp) == 0;
  };
  // A log file that cannot take the message (a full disk) must not lose it.
  if (!print_on(out) && out != stderr) print_on(stderr);
}

void tarn_fatal(const char* fmt, ...) {
  std::FILE* out = TARN_ERR != nullptr ? TARN_ERR : stderr;
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  const bool logged = std::vfprintf(out, fmt, ap) >= 0 && std::fflush(out) == 0;
  va_end(ap);
  // A log file that cannot take the message (a full disk) must not lose it.
  if (!logged && out != stderr) {
    std::vfprintf(stderr, fmt, again);
    std::fflush(stderr);
  }
  va_end(again);
  // Other threads may still be running: flush what is buffered and leave
  // without running static destructors under them.
  std::fflush(nullptr);
  std::_Exit(1);
}

}  // namespace tarn
