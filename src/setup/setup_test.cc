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
Item Make(const std::string& path, Kind kind, mode_t mode, bool renewable = false) {
  return {path, kind, Access{getuid(), getgid(), mode},
          [path, kind] {
            if (kind == Kind::kDirectory) return mkdir(path.c_str(), 0700) == 0;
            write_file(path, "new");
            return true;
          },
          nullptr, renewable};
}

TEST(SetupTest, MissingAndLooseItemsAreRepaired) {
  TempDir tmp;
  write_file(tmp.path("loose"), "");
  chmod(tmp.path("loose").c_str(), 0600);
  // The lock directory's case, which a sandbox cannot show: it is a mount point there.
  std::vector<Item> items = {Make(tmp.path("locks"), Kind::kDirectory, 0755),
                             Make(tmp.path("loose"), Kind::kFile, 0644)};

  std::ostringstream report, done, clean;
  EXPECT_EQ(Check(items, report), 2);
  ASSERT_TRUE(Prepare(items, PrepareOptions(), done));
  EXPECT_EQ(ModeOf(tmp.path("locks")), 0755u);  // mkdir's 0700 was not left
  EXPECT_EQ(ModeOf(tmp.path("loose")), 0644u);
  EXPECT_EQ(Check(items, clean), 0);
}

TEST(SetupTest, ForceKeepsTheOldFileAndNeverOverwritesAKeptOne) {
  TempDir tmp;
  const std::string db = tmp.path("db");
  write_file(db, "rows");
  chmod(db.c_str(), 0640);
  std::vector<Item> items = {Make(db, Kind::kFile, 0640, true),
                             Make(tmp.path("plain"), Kind::kFile, 0644)};
  write_file(tmp.path("plain"), "mine");
  chmod(tmp.path("plain").c_str(), 0644);
  PrepareOptions force;
  force.force = true;
  force.stamp = "20240102030405";

  std::ostringstream done;
  ASSERT_TRUE(Prepare(items, force, done));
  EXPECT_EQ(read_file(db + ".old-20240102030405"), "rows");
  EXPECT_EQ(read_file(db), "new");
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
