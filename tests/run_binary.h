#pragma once
// Runs the real tarnssm binary in a scratch directory and captures what it
// printed and how it ended.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tarn_test {

struct RunResult {
  int status = -1;     // exit status, or -1 when killed by a signal
  int signal = 0;      // the signal that ended it, if any
  std::string out;     // standard output
  std::string err;     // standard error
};

inline std::string read_text(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline void write_text(const std::filesystem::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

// A fresh directory under the system's temporary folder, removed on scope exit.
class ScratchDir {
 public:
  ScratchDir() {
    std::string templ = (std::filesystem::temp_directory_path() / "tarn_test_XXXXXX").string();
    path_ = mkdtemp(templ.data());
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Runs TARNSSM_BIN with args in dir; stdin_text is fed to standard input.
inline RunResult run_tarnssm(const std::vector<std::string>& args,
                             const std::filesystem::path& dir,
                             const std::string& stdin_text = "") {
  const auto in_path = dir / ".stdin";
  const auto out_path = dir / ".stdout";
  const auto err_path = dir / ".stderr";
  write_text(in_path, stdin_text);
  std::vector<std::string> words{TARNSSM_BIN};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(dir.c_str()) != 0) _exit(127);
    const int in = open(in_path.c_str(), O_RDONLY);
    const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  RunResult r;
  if (WIFEXITED(wstatus)) r.status = WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) r.signal = WTERMSIG(wstatus);
  r.out = read_text(out_path);
  r.err = read_text(err_path);
  std::filesystem::remove(in_path);
  std::filesystem::remove(out_path);
  std::filesystem::remove(err_path);
  return r;
}

// The log of a run without its banner: everything after "Single process mode.\n".
inline std::string after_banner(const std::string& log) {
  const std::string mark = "Single process mode.\n";
  const auto pos = log.find(mark);
  return pos == std::string::npos ? log : log.substr(pos + mark.size());
}

}  // namespace tarn_test
