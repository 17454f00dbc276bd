#pragma once
// The process-wide log stream, and the printing of the error that ends a run.

#include <cstdio>
#include <string>

namespace tarn {

// Standard error until parse_args re-points it at the log of the run.
extern std::FILE* TARN_ERR;

// Prints message and a newline on TARN_ERR, and on standard error as well
// when the log cannot take it. main prints so the error that ends the run.
void print_error(const std::string& message);

// Prints a formatted message as print_error does and ends the process with
// status 1 at once: safe on any thread, with no static destructors run.
[[noreturn]] void tarn_fatal(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tarn
