#include "output/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "log.h"

namespace {

std::atomic<unsigned> temp_counter{0};

std::string directory_of(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

}  // namespace

bool OutputFile_open(OutputFile* file, const char* name) {
  file->final_name = name;
  // What could not be opened for writing under its own name is refused here.
  struct stat st {};
  if (stat(name, &st) == 0 && (S_ISDIR(st.st_mode) || access(name, W_OK) != 0)) return false;
  const std::string dir = directory_of(file->final_name);
  const long name_max = pathconf(dir.empty() ? "." : dir.c_str(), _PC_NAME_MAX);
  const std::size_t base_length = file->final_name.size() - dir.size();
  if (base_length == 0 || (name_max > 0 && base_length > static_cast<std::size_t>(name_max))) {
    return false;
  }
  for (int attempt = 0; attempt < 100; ++attempt) {
    // A short hidden name: the final name's own length never pushes it past
    // the file system's limit on a name.
    file->temp_name = dir + ".tarnssm-" + std::to_string(getpid()) + "-" +
                      std::to_string(temp_counter.fetch_add(1)) + ".part";
    const int fd = open(file->temp_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
      file->fp = fdopen(fd, "w");
      if (file->fp != nullptr) return true;
      close(fd);
      unlink(file->temp_name.c_str());
      return false;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

void OutputFile_commit(OutputFile* file) {
  const bool written = std::ferror(file->fp) == 0 && std::fflush(file->fp) == 0;
  const bool closed = std::fclose(file->fp) == 0;
  file->fp = nullptr;
  if (!written || !closed || std::rename(file->temp_name.c_str(), file->final_name.c_str()) != 0) {
    unlink(file->temp_name.c_str());
    tarn_fatal("ERROR: Failed to write file: %s\n", file->final_name.c_str());
  }
}
