#include "io/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include "io/log.h"

namespace tarn {

namespace {

constexpr const char* kWriteFailed = "ERROR: Failed to write file: ";

std::atomic<unsigned> temp_counter{0};

// fsync, where the file system can sync at all.
bool synced(int fd) {
  return fsync(fd) == 0 || errno == EINVAL || errno == ENOTSUP;
}

// Makes the renames in dir durable. A directory that cannot be opened for
// reading is left to the system.
bool sync_directory(const std::string& dir) {
  const int fd = open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return true;
  const bool ok = synced(fd);
  close(fd);
  return ok;
}

// Flushes, syncs and closes the stream; false when any of it failed.
bool finish(OutputFile* file) {
  const bool written =
      std::ferror(file->fp) == 0 && std::fflush(file->fp) == 0 && synced(fileno(file->fp));
  const bool closed = std::fclose(file->fp) == 0;
  file->fp = nullptr;
  return written && closed;
}

[[noreturn]] void fail_file(const OutputFile* file, StagedSet* set) {
  unlink(file->temp_name.c_str());
  OutputFile_fail(set, kWriteFailed, file->final_name.c_str());
}

void place(const OutputFile* file, StagedSet* set) {
  if (std::rename(file->temp_name.c_str(), file->final_name.c_str()) != 0 ||
      !sync_directory(OutputFile_directory_of(file->final_name))) {
    fail_file(file, set);
  }
}

}  // namespace

void StagedSet::add(std::string temp_name, std::string final_name) {
  files_.push_back({std::move(temp_name), std::move(final_name)});
}

void StagedSet::publish() {
  if (files_.empty()) return;
  auto fail_at = [this](const Staged& file) {
    const std::string name = file.final_name;
    OutputFile_fail(this, kWriteFailed, name.c_str());
  };
  const Staged& summary = files_.back();
  const std::string dir = OutputFile_directory_of(summary.final_name);
  // Without its summary an older set no longer counts as whole.
  if (unlink(summary.final_name.c_str()) != 0 && errno != ENOENT) fail_at(summary);
  for (std::size_t i = 0; i + 1 < files_.size(); ++i) {
    if (std::rename(files_[i].temp_name.c_str(), files_[i].final_name.c_str()) != 0) {
      fail_at(files_[i]);
    }
  }
  if (!sync_directory(dir) ||
      std::rename(summary.temp_name.c_str(), summary.final_name.c_str()) != 0 ||
      !sync_directory(dir)) {
    fail_at(summary);
  }
  files_.clear();
}

void StagedSet::discard() {
  for (const Staged& file : files_) unlink(file.temp_name.c_str());
  files_.clear();
}

std::string OutputFile_directory_of(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

int OutputFile_create_temp(const std::string& dir, std::string* temp_name) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    // A short hidden name: the final name's own length never pushes it past
    // the file system's limit on a name.
    *temp_name = dir + ".tarnssm-" + std::to_string(getpid()) + "-" +
                 std::to_string(temp_counter.fetch_add(1)) + ".part";
    const int fd = open(temp_name->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

bool OutputFile_open(OutputFile* file, const char* name) {
  file->final_name = name;
  // What could not be opened for writing under its own name is refused here.
  struct stat st {};
  if (stat(name, &st) == 0 && (S_ISDIR(st.st_mode) || access(name, W_OK) != 0)) return false;
  const std::string dir = OutputFile_directory_of(file->final_name);
  const long name_max = pathconf(dir.empty() ? "." : dir.c_str(), _PC_NAME_MAX);
  const std::size_t base_length = file->final_name.size() - dir.size();
  if (base_length == 0 || (name_max > 0 && base_length > static_cast<std::size_t>(name_max))) {
    return false;
  }
  const int fd = OutputFile_create_temp(dir, &file->temp_name);
  if (fd < 0) return false;
  file->fp = fdopen(fd, "w");
  if (file->fp != nullptr) return true;
  close(fd);
  unlink(file->temp_name.c_str());
  return false;
}

void OutputFile_commit(OutputFile* file, StagedSet* set) {
  if (!finish(file)) fail_file(file, set);
  if (set != nullptr) {
    set->add(file->temp_name, file->final_name);
  } else {
    place(file, nullptr);
  }
}

void OutputFile_commit_beside(OutputFile* file, StagedSet* set) {
  if (!finish(file)) fail_file(file, set);
  place(file, set);
}

void OutputFile_fail(StagedSet* set, const char* words, const char* file_name) {
  if (set != nullptr) set->discard();
  tarn_fatal("%s%s\n", words, file_name);
}

}  // namespace tarn
