#pragma once
// Golden logs: what a run printed, the logs and small files it wrote and how
// it ended, masked where runs differ, against tests/golden/logs/NAME.log.
// TARN_UPDATE_GOLDEN=1 rewrites the expected logs instead of comparing.

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>

#include "run_binary.h"

namespace tarn_test {

namespace fs = std::filesystem;

// The text with what varies from run to run replaced: folders, the build's
// version and time, clocks, pids and the memory of the machine. Thread mode
// logs also lose the thread numbers and counts of finished tasks, their
// announcements of a better set, and the order of the lines between the task
// count and the closing time (or what the run wrote).
inline std::string mask_log(std::string text, const fs::path& dir, bool threads) {
  const std::pair<std::string, std::string> folders[] = {{dir.string(), "$SCRATCH"},
                                                         {TARN_EXAMPLES_DIR "/data", "$DATA"}};
  for (const auto& [from, to] : folders)
    for (std::size_t at; (at = text.find(from)) != std::string::npos;)
      text.replace(at, from.size(), to);
  static const std::pair<std::regex, std::string> varying[] = {
      {std::regex(R"(version \S+ \(\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d UTC \d{4}\))"),
       "version V (BUILD TIME)"},
      {std::regex(R"(\d+ day \d\d hour \d\d min \d\d sec)"), "D day HH hour MM min SS sec"},
      {std::regex(R"((X-[A-Z]+-TIME:\t)\d+\.\d+)"), "$1SECONDS"},
      {std::regex(R"(pid \d+)"), "pid PID"},
      {std::regex(R"(the \d+\.\d [MG]B this run may use)"), "the MEMORY this run may use"},
      {std::regex(R"(\n\{\d+\} (.*), finished=\d+)"), "\n{T} $1"},
      {std::regex(R"(\nBest likelihood updated for set id = \d+\.)"), ""}};
  for (std::size_t i = 0; i < std::size(varying) - (threads ? 0 : 2); ++i)
    text = std::regex_replace(text, varying[i].first, varying[i].second);
  const std::size_t count = text.find("\nTotal single tasks = ");
  if (!threads || count == std::string::npos) return text;
  const std::size_t from = text.find('\n', count + 1) + 1;
  const std::size_t to =
      std::min({text.find("\nAll time: ", from), text.find("\n[", from), text.size() - 1}) + 1;
  std::multiset<std::string> lines;
  std::istringstream middle(text.substr(from, to - from));
  for (std::string line; std::getline(middle, line);) lines.insert(line + "\n");
  std::string sorted;
  for (const auto& line : lines) sorted += line;
  return text.replace(from, to - from, sorted);
}

// Runs tarnssm with args in dir and writes down, masked, everything it showed:
// standard error and output, the names of the files it made with the text
// of its logs and of its files under 256 bytes, and how it ended. The limit
// on its memory keeps the jobs it refuses the same on larger machines.
inline std::string record_run(const std::vector<std::string>& args, const fs::path& dir,
                              const std::string& stdin_text = "",
                              rlim_t address_space = rlim_t{16} << 30) {
  const std::set<fs::path> before(fs::directory_iterator(dir), {});
  const RunResult r = run_tarnssm(args, dir, stdin_text, address_space);
  std::string log = r.err + (r.out.empty() ? "" : "[standard output]\n" + r.out);
  for (const fs::path& file : std::set<fs::path>(fs::directory_iterator(dir), {})) {
    if (before.contains(file)) continue;
    const std::string name = file.filename().string();
    const bool shown = name.find(".log.") != std::string::npos || fs::file_size(file) < 256;
    log += "[file " + name + "]\n" + (shown ? read_text(file) : "");
  }
  log += r.signal != 0 ? "[signal " + std::to_string(r.signal) + "]\n"
                       : "[exit status " + std::to_string(r.status) + "]\n";
  const bool threads = std::find(args.begin(), args.end(), "--threads") != args.end();
  return mask_log(log, dir, threads);
}

// The recorded run against tests/golden/logs/name.log.
inline void expect_golden_log(const std::string& name, const std::string& recorded) {
  const fs::path path = fs::path(TARN_TESTS_DIR) / "golden" / "logs" / (name + ".log");
  if (std::getenv("TARN_UPDATE_GOLDEN") != nullptr) return write_text(path, recorded);
  ASSERT_TRUE(fs::exists(path)) << path << " is missing: record it with TARN_UPDATE_GOLDEN=1";
  EXPECT_EQ(recorded, read_text(path)) << "golden log " << path;
}

}  // namespace tarn_test
