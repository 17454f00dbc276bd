#include "io/memory_budget.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>

namespace tarn {

namespace {

double physical_memory() {
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long page_size = sysconf(_SC_PAGE_SIZE);
  if (pages <= 0 || page_size <= 0) return 1e300;
  return static_cast<double>(pages) * static_cast<double>(page_size);
}

double resource_limit(int resource) {
  rlimit limit{};
  if (getrlimit(resource, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 1e300;
  return static_cast<double>(limit.rlim_cur);
}

// The limit of the control group the process runs in ("max" means none).
double cgroup_limit() {
  std::ifstream in("/sys/fs/cgroup/memory.max");
  std::string word;
  if (!(in >> word) || word == "max") return 1e300;
  try {
    return std::stod(word);
  } catch (...) {
    return 1e300;
  }
}

}  // namespace

double memory_limit_bytes() {
  return std::min(
      {physical_memory(), resource_limit(RLIMIT_AS), resource_limit(RLIMIT_DATA), cgroup_limit()});
}

std::string format_bytes(double bytes) {
  char text[64];
  if (bytes >= 1e9) {
    std::snprintf(text, sizeof text, "%.1f GB", bytes / 1e9);
  } else {
    std::snprintf(text, sizeof text, "%.1f MB", bytes / 1e6);
  }
  return text;
}

}  // namespace tarn
