#pragma once
// How much memory a run may take, and the sizes of what it allocates, so that
// a job too large for the machine is refused before anything is allocated.

#include <cstdint>
#include <string>

namespace tarn {

// The memory this process may use: the machine's physical memory, lowered by
// a limit on the address space or data segment and by the control group's
// memory limit where one is set.
double memory_limit_bytes();

// "12.3 GB": a byte count for messages, in units of 10^9 bytes (or MB below
// one GB).
std::string format_bytes(double bytes);

}  // namespace tarn
