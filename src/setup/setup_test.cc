#include "setup/setup.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <sstream>

#include "util/test_support.h"

namespace tavix {
namespace setup {
namespace {

using tavix::test::TempDir;
using tavix::test::read_file;
using tavix::test::write_file;

mode_t ModeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// Items owned by whoever runs the test, so that it needs no privileges.
Item Dir(const std::string& path, mode_t mode) {
  return {path, Kind::kDirectory, Access{getuid(), getgid(), mode},
          [path] { return mkdir(path.c_str(), 0700) == 0; }, nullptr};
}

Item File(const std::string& path, mode_t mode, bool renewable = false) {
  return {path, Kind::kFile, Access{getuid(), getgid(), mode},
          [path] {
            write_file(path, "new");
            return true;
          },
          nullptr, renewable};
}

TEST(SetupTest, MissingAndLooseItemsAreReportedThenRepairedOnce) {
  TempDir tmp;
  write_file(tmp.path("loose"), "");
  chmod(tmp.path("loose").c_str(), 0600);
  // The lock directory's case, which a sandbox cannot show: it is a mount point there.
  std::vector<Item> items = {Dir(tmp.path("locks"), 0755), File(tmp.path("loose"), 0644)};

  std::ostringstream report;
  EXPECT_EQ(Check(items, report), 2);
  EXPECT_EQ(report.str(), tmp.path("locks") + ": missing directory\n" + tmp.path("loose") +
                              ": mode 0600, expected 0644\n");

  std::ostringstream done;
  ASSERT_TRUE(Prepare(items, PrepareOptions(), done));
  EXPECT_EQ(ModeOf(tmp.path("locks")), 0755u);  // mkdir's 0700 was not left
  EXPECT_EQ(ModeOf(tmp.path("loose")), 0644u);

  std::ostringstream again, clean;
  ASSERT_TRUE(Prepare(items, PrepareOptions(), again));
  EXPECT_EQ(again.str(), "");
  EXPECT_EQ(Check(items, clean), 0);
}

TEST(SetupTest, ForceKeepsTheOldFileAndNeverOverwritesAKeptOne) {
  TempDir tmp;
  const std::string db = tmp.path("db");
  write_file(db, "rows");
  chmod(db.c_str(), 0640);
  std::vector<Item> items = {File(db, 0640, true), File(tmp.path("plain"), 0644)};
  write_file(tmp.path("plain"), "mine");
  chmod(tmp.path("plain").c_str(), 0644);
  PrepareOptions force;
  force.force = true;
  force.stamp = "20240102030405";

  std::ostringstream done;
  ASSERT_TRUE(Prepare(items, force, done));
  EXPECT_EQ(read_file(db + ".old-20240102030405"), "rows");
  EXPECT_EQ(read_file(db), "new");
  EXPECT_EQ(ModeOf(db), 0640u);
  EXPECT_EQ(read_file(tmp.path("plain")), "mine");  // not renewable: untouched

  // The same stamp again (two runs in one second) must not lose the first copy.
  std::ostringstream second;
  EXPECT_FALSE(Prepare(items, force, second));
  EXPECT_EQ(read_file(db + ".old-20240102030405"), "rows");
  EXPECT_EQ(read_file(db), "new");
}

}  // namespace
}  // namespace setup
}  // namespace tavix
