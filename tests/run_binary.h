#pragma once
// Runs the real tarnssm binary in a scratch directory and captures what it
// printed and how it ended; text in files, in temporary streams and in lines.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tarn_test {

struct RunResult {
  int status = -1;  // exit status, or -1 when killed by a signal
  int signal = 0;   // the signal that ended it, if any
  std::string out;  // standard output
  std::string err;  // standard error
};

inline std::string read_text(const std::filesystem::path& path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

inline std::vector<std::string> split(const std::string& s, char sep) {
  std::vector<std::string> parts;
  std::size_t from = 0;
  for (std::size_t at; (at = s.find(sep, from)) != std::string::npos; from = at + 1)
    parts.push_back(s.substr(from, at - from));
  parts.push_back(s.substr(from));
  return parts;
}

inline void write_text(const std::filesystem::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// A temporary stream holding bytes, positioned at its start.
inline std::FILE* stream_of(const std::string& bytes) {
  std::FILE* fp = std::tmpfile();
  std::fwrite(bytes.data(), 1, bytes.size(), fp);
  std::rewind(fp);
  return fp;
}

// Everything written to fp so far.
inline std::string text_of(std::FILE* fp) {
  std::rewind(fp);
  std::string text;
  for (int c = std::fgetc(fp); c != EOF; c = std::fgetc(fp)) text += static_cast<char>(c);
  return text;
}

// A fresh directory under the system's temporary folder, removed on scope exit.
class ScratchDir {
 public:
  ScratchDir() {
    std::string templ = (std::filesystem::temp_directory_path() / "tarn_test_XXXXXX").string();
    path_ = mkdtemp(templ.data());
  }
  ~ScratchDir() { std::filesystem::remove_all(path_, ec_); }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
  std::error_code ec_;
};

// Runs TARNSSM_BIN with args in dir; stdin_text is fed to standard input. A
// limit on the address space (none under AddressSanitizer, whose shadow
// memory needs terabytes) turns runaway memory into "ERROR: Out of memory.";
// one on file_bytes makes writes fail with EFBIG (SIGXFSZ ignored). The three
// streams pass through files in dir that are gone when it returns.
inline RunResult run_tarnssm(const std::vector<std::string>& args, const std::filesystem::path& dir,
                             const std::string& stdin_text = "",
                             rlim_t address_space = RLIM_INFINITY,
                             rlim_t file_bytes = RLIM_INFINITY) {
  const std::filesystem::path io[3] = {dir / ".stdin", dir / ".stdout", dir / ".stderr"};
  write_text(io[0], stdin_text);
  std::vector<std::string> words{TARNSSM_BIN};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(dir.c_str()) != 0) _exit(127);
    for (int fd = 0; fd < 3; ++fd) {
      dup2(open(io[fd].c_str(), fd == 0 ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC, 0644), fd);
    }
    const rlimit as{address_space, address_space};
    if (!TARN_TEST_ASAN) setrlimit(RLIMIT_AS, &as);
    const rlimit fsize{file_bytes, file_bytes};
    if (file_bytes != RLIM_INFINITY && setrlimit(RLIMIT_FSIZE, &fsize) == 0)
      std::signal(SIGXFSZ, SIG_IGN);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  RunResult r{WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1,
              WIFSIGNALED(wstatus) ? WTERMSIG(wstatus) : 0, read_text(io[1]), read_text(io[2])};
  for (const auto& p : io) std::filesystem::remove(p);
  return r;
}

}  // namespace tarn_test
