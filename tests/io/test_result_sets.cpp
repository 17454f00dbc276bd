// A result set is put in place whole or not at all, is written by one run at
// a time, and a fatal error reaches standard error when the log cannot take it.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "io/log.h"
#include "io/output_file.h"
#include "io/read_back.h"
#include "io/set_lock.h"

using namespace tarn;  // NOLINT(google-build-using-namespace)

namespace fs = std::filesystem;
using out_test::files_in;
using tarn_test::read_text;
using tarn_test::ScratchDir;

namespace {

// Stages the three files "n.a", "n.b", "n.B" with the text "new".
void stage_three(const fs::path& dir, StagedSet* set) {
  for (const char* name : {"n.a", "n.b", "n.B"}) {
    OutputFile file;
    ASSERT_TRUE(OutputFile_open(&file, (dir / name).c_str()));
    std::fputs("new", file.fp);
    OutputFile_commit(&file, set);
  }
}

// Runs body in a child process with standard error in a file; returns the
// exit status and what reached standard error.
std::pair<int, std::string> in_child(const fs::path& err, const std::function<void()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    std::freopen(err.c_str(), "w", stderr);
    body();
    _exit(0);
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, read_text(err)};
}

}  // namespace

TEST(ResultSets, StagedFilesReplaceTheOlderSetOnlyWhenPublished) {
  for (const bool publish : {true, false}) {
    ScratchDir dir;
    const std::set<std::string> names{"n.a", "n.b", "n.B"};
    for (const auto& name : names) tarn_test::write_text(dir / name, "old");
    {
      StagedSet set;
      stage_three(dir.path(), &set);
      for (const auto& name : names) EXPECT_EQ(read_text(dir / name), "old") << name;
      if (publish) set.publish();
    }
    EXPECT_EQ(files_in(dir.path()), names) << "no temporary left";
    for (const auto& name : names) EXPECT_EQ(read_text(dir / name), publish ? "new" : "old");
  }
}

TEST(ResultSets, OneRunAtATimeWritesASet) {
  ScratchDir dir;
  const std::string prefix = (dir / "run").string();
  const SetId d4s1[] = {{4, 1}}, twice[] = {{4, 1}, {4, 2}, {4, 1}};
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    SetLocks held;
    const bool taken = take_set_locks(prefix.c_str(), "dat", d4s1, &held).empty();
    (void)!write(ready[1], &taken, 1);
    pause();
    _exit(0);
  }
  bool taken = false;
  ASSERT_EQ(read(ready[0], &taken, 1), 1);
  ASSERT_TRUE(taken);
  EXPECT_TRUE(fs::exists(dir / ".run.D004.S001.B.dat.lock"));
  {
    SetLocks held;
    EXPECT_EQ(take_set_locks(prefix.c_str(), "dat", twice, &held),
              "ERROR: Another run (pid " + std::to_string(child) +
                  ") is writing result set D004.S001 of prefix \"" + prefix +
                  "\"; wait for it or choose another -o.");
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  SetLocks held;
  EXPECT_EQ(take_set_locks(prefix.c_str(), "dat", twice, &held), "");
  EXPECT_EQ(take_set_locks(prefix.c_str(), "dat", twice, &held), "") << "again in one process";
  close(ready[0]);
  close(ready[1]);

  const std::string gone = (dir / "gone" / "run").string();
  const std::string no_folder = "ERROR: Cannot write to the output folder of prefix \"" + gone +
                                "\": No such file or directory.";
  EXPECT_EQ(check_output_folder(prefix.c_str()), "");
  EXPECT_EQ(check_output_folder(gone.c_str()), no_folder);
  EXPECT_EQ(take_set_locks(gone.c_str(), "dat", d4s1, &held), no_folder);
  EXPECT_EQ(files_in(dir.path()), std::set<std::string>{});
}

TEST(ResultSets, FatalErrorReachesStandardErrorWhenTheLogCannotTakeIt) {
  ScratchDir dir;
  const std::string message = "ERROR: Failed to write file: x.dat\n";
  const struct {
    std::string log;  // "" for standard error itself
    bool on_stderr;
  } cases[] = {{"/dev/full", true}, {(dir / "log.txt").string(), false}, {"", true}};
  for (const auto& c : cases) {
    const auto [status, err] = in_child(dir / "err.txt", [&c] {
      if (!c.log.empty()) TARN_ERR = std::fopen(c.log.c_str(), "w");
      tarn_fatal("ERROR: Failed to write file: %s\n", "x.dat");
    });
    EXPECT_EQ(status, 1) << c.log;
    EXPECT_EQ(err, c.on_stderr ? message : "") << c.log;
  }
  EXPECT_EQ(read_text(dir / "log.txt"), message);
}
