#pragma once
// The log stream of the run, and the printing of the error that ends a run.

#include <cstdio>
#include <string>

namespace tarn {

// Prints message and a newline on log, and on standard error as well when
// the log cannot take it. main prints so the error that ends the run.
void print_error(std::FILE* log, const std::string& message);

}  // namespace tarn
