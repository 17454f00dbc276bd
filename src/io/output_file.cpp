#include "io/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <utility>

namespace tarn {

namespace {

std::atomic<unsigned> temp_counter{0};

Status write_failed(const std::string& name) {
  return Status::error("ERROR: Failed to write file: " + name);
}

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

}  // namespace

void StagedSet::add(std::string temp_name, std::string final_name) {
  files_.push_back({std::move(temp_name), std::move(final_name)});
}

Status StagedSet::publish() {
  if (files_.empty()) return {};
  const Staged& summary = files_.back();
  const std::string dir = directory_of(summary.final_name);
  // Without its summary an older set no longer counts as whole.
  if (unlink(summary.final_name.c_str()) != 0 && errno != ENOENT) {
    return write_failed(summary.final_name);
  }
  for (std::size_t i = 0; i + 1 < files_.size(); ++i) {
    if (std::rename(files_[i].temp_name.c_str(), files_[i].final_name.c_str()) != 0) {
      return write_failed(files_[i].final_name);
    }
  }
  if (!sync_directory(dir) ||
      std::rename(summary.temp_name.c_str(), summary.final_name.c_str()) != 0 ||
      !sync_directory(dir)) {
    return write_failed(summary.final_name);
  }
  files_.clear();
  return {};
}

void StagedSet::discard() {
  for (const Staged& file : files_) unlink(file.temp_name.c_str());
  files_.clear();
}

std::string directory_of(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

int create_temp_file(const std::string& dir, std::string* temp_name) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    // A short hidden name: the final name's own length never pushes it past
    // the file system's limit on a name.
    *temp_name = dir + ".tarnssm-" + std::to_string(getpid()) + "-" +
                 std::to_string(temp_counter.fetch_add(1)) + ".part";
    const int fd = ::open(temp_name->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

OutputFile::~OutputFile() {
  if (fp_ == nullptr) return;
  std::fclose(fp_);
  unlink(temp_name_.c_str());
}

bool OutputFile::open(const std::string& name) {
  final_name_ = name;
  // What could not be opened for writing under its own name is refused here.
  struct stat st {};
  if (stat(name.c_str(), &st) == 0 && (S_ISDIR(st.st_mode) || access(name.c_str(), W_OK) != 0)) {
    return false;
  }
  const std::string dir = directory_of(final_name_);
  const long name_max = pathconf(dir.empty() ? "." : dir.c_str(), _PC_NAME_MAX);
  const std::size_t base_length = final_name_.size() - dir.size();
  if (base_length == 0 || (name_max > 0 && base_length > static_cast<std::size_t>(name_max))) {
    return false;
  }
  const int fd = create_temp_file(dir, &temp_name_);
  if (fd < 0) return false;
  fp_ = fdopen(fd, "w");
  if (fp_ != nullptr) return true;
  close(fd);
  unlink(temp_name_.c_str());
  return false;
}

// Flushes, syncs and closes the stream; the temporary is removed on failure.
Status OutputFile::finish() {
  const bool written = std::ferror(fp_) == 0 && std::fflush(fp_) == 0 && synced(fileno(fp_));
  const bool closed = std::fclose(fp_) == 0;
  fp_ = nullptr;
  if (written && closed) return {};
  unlink(temp_name_.c_str());
  return write_failed(final_name_);
}

Status OutputFile::place() {
  if (std::rename(temp_name_.c_str(), final_name_.c_str()) != 0 ||
      !sync_directory(directory_of(final_name_))) {
    unlink(temp_name_.c_str());
    return write_failed(final_name_);
  }
  return {};
}

Status OutputFile::commit(StagedSet* set) {
  if (Status done = finish(); !done.ok()) return done;
  if (set == nullptr) return place();
  set->add(temp_name_, final_name_);
  return {};
}

Status OutputFile::commit_at_once() {
  if (Status done = finish(); !done.ok()) return done;
  return place();
}

}  // namespace tarn
