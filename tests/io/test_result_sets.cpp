// A result set is put in place whole or not at all, the older summary going
// first and the new one last, and is written by one run at a time.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "io/output_file.h"
#include "io/read_back.h"
#include "io/set_lock.h"

namespace fs = std::filesystem;
using out_test::files_in;
using tarn_test::read_text;
using tarn_test::ScratchDir;

TEST(ResultSets, StagedFilesReplaceTheOlderSetOnlyWhenAllArePublished) {
  // Published, dropped unpublished, or failing at "n.b" (a directory with a
  // file in it comes in its way): then the older summary is gone already
  // and the new one is not put, so no set counts as whole.
  for (const std::string how : {"publish", "drop", "fail"}) {
    SCOPED_TRACE(how);
    ScratchDir dir;
    const std::vector<std::string> names{"n.a", "n.b", "n.B"};
    for (const auto& name : names) tarn_test::write_text(dir / name, "old");
    {
      StagedSet set;
      for (const auto& name : names) {
        OutputFile file;
        ASSERT_TRUE(file.open((dir / name).string()));
        std::fputs("new", file.stream());
        ASSERT_TRUE(file.commit(&set).ok());
      }
      for (const auto& name : names) EXPECT_EQ(read_text(dir / name), "old") << name;
      if (how == "fail") {
        fs::remove(dir / "n.b");
        fs::create_directories(dir / "n.b" / "x");
      }
      const Status published = how == "drop" ? Status() : set.publish();
      EXPECT_EQ(published.message(),
                how == "fail" ? "ERROR: Failed to write file: " + (dir / "n.b").string() : "");
    }
    const std::string old_set = how == "drop" ? "old" : "new";
    EXPECT_EQ(files_in(dir.path()), (how == "fail" ? std::set<std::string>{"n.a", "n.b"}
                                                   : std::set<std::string>{"n.a", "n.b", "n.B"}))
        << "no temporary left";
    EXPECT_EQ(read_text(dir / "n.a"), old_set);
    if (how != "fail") {
      EXPECT_EQ(read_text(dir / "n.B"), old_set);
    }
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
