#include "log.h"

#include <cstdarg>
#include <cstdlib>

std::FILE* TARN_ERR = stderr;
void (*tarn_fatal_hook)() = nullptr;

void tarn_fatal(const char* fmt, ...) {
  std::FILE* out = TARN_ERR != nullptr ? TARN_ERR : stderr;
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(out, fmt, ap);
  va_end(ap);
  if (tarn_fatal_hook != nullptr) tarn_fatal_hook();
  std::exit(1);
}
