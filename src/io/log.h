#pragma once
// The process-wide log stream and the fatal-error exit.

#include <cstdio>
#include <string>

namespace tarn {

// Standard error until parse_args re-points it at the log of the run.
extern std::FILE* TARN_ERR;

// Prints message and a newline on TARN_ERR, and on standard error as well
// when the log cannot take it. main prints so the error that ends the run.
void print_error(const std::string& message);

// Prints a formatted message on TARN_ERR, and on standard error as well when
// the log cannot take it, and ends the process with status 1 at once: safe on
// any thread, with no static destructors run.
[[noreturn]] void tarn_fatal(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Called by tarn_fatal, after the message, in place of the exit when set. A
// fuzz driver sets it to throw, so that one input's fatal error does not end
// the whole run. The hook must not return.
extern void (*tarn_fatal_hook)();

}  // namespace tarn
