#pragma once
// Two runs must not write the same result set at once. Each set a run will
// write is locked with a POSIX record lock on a hidden file beside its
// results, ".<summary file name>.lock": the system drops the lock when the
// process ends in any way, so a killed run never blocks the next one, and a
// process never conflicts with its own locks. Lock files stay in place.

#include <span>
#include <string>
#include <vector>

namespace tarn {

// One result set: state dimension and set number, as in its file names.
struct SetId {
  int k = 0;
  int set = 0;
};

// The locks taken, held until the object goes (in practice, the process).
class SetLocks {
 public:
  SetLocks() = default;
  SetLocks(const SetLocks&) = delete;
  SetLocks& operator=(const SetLocks&) = delete;
  ~SetLocks();

  void hold(int fd) { fds_.push_back(fd); }

 private:
  std::vector<int> fds_;
};

// Locks every set of sets for prefix and suffix (-o and -e), adding the
// descriptors to held. Returns "" when all are held, else the one line
// (without newline) to stop with, such as
//   ERROR: Another run (pid N) is writing result set D004.S001 of prefix
//   "out/run"; wait for it or choose another -o.
// or
//   ERROR: Cannot write to the output folder of prefix "out/run":
//   Permission denied.
// Where the file system has no record locks, writes a warning to log
// and goes on unlocked.
std::string take_set_locks(const char* prefix, const char* suffix, std::span<const SetId> sets,
                           SetLocks* held, std::FILE* log);

// Creates and removes a temporary file where the results of prefix go.
// Returns "" when that works, else the line (without newline)
//   ERROR: Cannot write to the output folder of prefix "out/run": No such file or directory.
std::string check_output_folder(const char* prefix);

}  // namespace tarn
