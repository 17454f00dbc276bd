#include "io/set_lock.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>

#include "io/output_file.h"

namespace tarn {

namespace {

std::string folder_error(const char* prefix, int err) {
  return std::string("ERROR: Cannot write to the output folder of prefix \"") + prefix +
         "\": " + std::strerror(err) + ".";
}

// "D004.S001", as in the file names.
std::string set_label(SetId id) {
  char label[32];
  std::snprintf(label, sizeof label, "D%03d.S%03d", id.k, id.set);
  return label;
}

std::string busy_error(const char* prefix, SetId id, pid_t pid) {
  return "ERROR: Another run (pid " + std::to_string(pid) + ") is writing result set " +
         set_label(id) + " of prefix \"" + prefix + "\"; wait for it or choose another -o.";
}

std::uint64_t fnv1a(const std::string& text) {
  std::uint64_t h = 14695981039346656037ull;
  for (const unsigned char c : text) h = (h ^ c) * 1099511628211ull;
  return h;
}

// ".<name of the summary file>.lock" beside it; a hashed stand-in where that
// name would be too long for the directory.
std::string lock_path(const char* prefix, const char* suffix, SetId id) {
  const std::string summary = std::string(prefix) + "." + set_label(id) + ".B." + suffix;
  const std::string dir = directory_of(summary);
  const std::string base = summary.substr(dir.size());
  std::string name(".");
  name.append(base).append(".lock");
  const long name_max = pathconf(dir.empty() ? "." : dir.c_str(), _PC_NAME_MAX);
  if (name_max > 0 && name.size() > static_cast<std::size_t>(name_max)) {
    char hashed[40];
    std::snprintf(hashed, sizeof hashed, ".tarnssm-%016llx.lock",
                  static_cast<unsigned long long>(fnv1a(base)));
    name = hashed;
  }
  return dir + name;
}

// Room for n more open files, as far as the hard limit allows.
void make_room_for(std::size_t n) {
  rlimit lim{};
  if (getrlimit(RLIMIT_NOFILE, &lim) != 0 || lim.rlim_cur >= lim.rlim_max) return;
  lim.rlim_cur = std::min<rlim_t>(lim.rlim_cur + n, lim.rlim_max);
  setrlimit(RLIMIT_NOFILE, &lim);
}

enum class Lock { taken, busy, unsupported };

// A write lock on the whole file; the holder's pid in *holder when busy.
Lock lock_file(int fd, pid_t* holder) {
  flock want{};
  want.l_type = F_WRLCK;
  want.l_whence = SEEK_SET;
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (fcntl(fd, F_SETLK, &want) == 0) return Lock::taken;
    if (errno != EACCES && errno != EAGAIN) return Lock::unsupported;
    flock probe = want;
    // Gone between the two calls: try again.
    if (fcntl(fd, F_GETLK, &probe) == 0 && probe.l_type != F_UNLCK) {
      *holder = probe.l_pid;
      return Lock::busy;
    }
  }
  return Lock::busy;
}

}  // namespace

SetLocks::~SetLocks() {
  for (const int fd : fds_) close(fd);
}

std::string take_set_locks(const char* prefix, const char* suffix, std::span<const SetId> sets,
                           SetLocks* held, std::FILE* log) {
  make_room_for(sets.size());
  std::set<std::string> done;  // a set named twice is locked once
  for (const SetId id : sets) {
    const std::string path = lock_path(prefix, suffix, id);
    if (!done.insert(path).second) continue;
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return folder_error(prefix, errno);
    pid_t holder = 0;
    const Lock got = lock_file(fd, &holder);
    if (got == Lock::taken) {
      held->hold(fd);
      continue;
    }
    const int err = errno;
    close(fd);
    if (got == Lock::busy) return busy_error(prefix, id, holder);
    std::fprintf(log,
                 "WARNING: Result sets of prefix \"%s\" cannot be locked (%s); runs sharing the "
                 "prefix may mix their files.\n",
                 prefix, std::strerror(err));
    std::fflush(log);
    return "";
  }
  return "";
}

std::string check_output_folder(const char* prefix) {
  std::string temp_name;
  const int fd = create_temp_file(directory_of(prefix), &temp_name);
  if (fd < 0) return folder_error(prefix, errno);
  close(fd);
  unlink(temp_name.c_str());
  return "";
}

}  // namespace tarn
