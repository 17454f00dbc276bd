#pragma once
// The log stream of the run, and the printing of the error that ends a run.

#include <cstdio>
#include <string>

namespace tarn {

// The log of the run for the readers and writers that print to it by this
// name; main points it at the log it opens. The run layer gets the log as a
// parameter.
extern std::FILE* TARN_ERR;

// Prints message and a newline on log, and on standard error as well when
// the log cannot take it. main prints so the error that ends the run.
void print_error(std::FILE* log, const std::string& message);

// Prints a formatted message as print_error does on TARN_ERR and ends the
// process with status 1 at once: safe on any thread, with no static
// destructors run. Left to the writers that have no error to return yet.
[[noreturn]] void tarn_fatal(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tarn
