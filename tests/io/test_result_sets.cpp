// A result set is put in place whole or not at all, the older summary going
// first and the new one last. Sets held by another run are in the golden
// logs hostile_set_held_*.

#include <gtest/gtest.h>

#include "io/output_file.h"
#include "io/read_back.h"

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
