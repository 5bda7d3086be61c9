#include "util/atomic_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "util/test_support.h"

namespace {

using tavix::AtomicFile;
using tavix::test::lstat_of;
using tavix::test::read_file;
using tavix::test::TempDir;
using tavix::test::write_file;
using Temp = AtomicFile::Temp;

std::set<std::string> Entries(const std::string& dir) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir))
    names.insert(entry.path().filename());
  return names;
}

TEST(AtomicFileTest, CommitReplacesTheTargetWithOwnerModeAndContents) {
  TempDir tmp;
  const std::string target = tmp.path("assign");
  write_file(target, "old\n");
  AtomicFile file;
  ASSERT_TRUE(file.create(target, "assign.tmp", Temp::kReplace, 0600));
  EXPECT_EQ(tmp.path("assign.tmp"), file.temp_path());
  const std::string big(200000, 'x');  // more than one write may take
  ASSERT_TRUE(file.write("new\n"));
  ASSERT_TRUE(file.write(big));
  ASSERT_TRUE(file.set_owner(65534, 65534));
  ASSERT_TRUE(file.set_mode(0640));
  EXPECT_EQ("old\n", read_file(target)) << "replaced before the commit";
  ASSERT_TRUE(file.commit());

  EXPECT_EQ("new\n" + big, read_file(target));
  struct stat st = lstat_of(target);
  EXPECT_EQ(65534u, st.st_uid);
  EXPECT_EQ(0640u, st.st_mode & 07777);
  EXPECT_EQ(std::set<std::string>{"assign"}, Entries(tmp.path()));
}

// Whatever ends the object before the commit takes the temporary file with
// it; abandon() alone leaves it.
TEST(AtomicFileTest, UncommittedTemporaryFileGoesUnlessAbandoned) {
  for (bool abandon : {false, true}) {
    SCOPED_TRACE(abandon);
    TempDir tmp;
    write_file(tmp.path("f"), "old");
    {
      AtomicFile file;
      ASSERT_TRUE(file.create(tmp.path("f"), "f.tmp", Temp::kReplace, 0644));
      ASSERT_TRUE(file.write("half"));
      if (abandon)
        file.abandon();
    }
    EXPECT_EQ("old", read_file(tmp.path("f")));
    EXPECT_EQ(abandon, std::filesystem::exists(tmp.path("f.tmp")));
  }
}

// The Maildir++ way: the temporary file lives in tmp/ below the target's
// directory. What goes through the stream is flushed by the commit.
TEST(AtomicFileTest, TemporaryFileInASubdirectory) {
  TempDir tmp;
  ASSERT_EQ(0, mkdir(tmp.path("tmp").c_str(), 0700));
  AtomicFile file;
  ASSERT_TRUE(file.create(tmp.path("maildirsize"), "tmp/1.2.host-maildirsize",
                          Temp::kExclusive, 0644));
  EXPECT_EQ(tmp.path("tmp/1.2.host-maildirsize"), file.temp_path());
  ASSERT_TRUE(file.write("0S,"));
  fputs("0C\n", file.stream());
  ASSERT_TRUE(file.commit());
  EXPECT_EQ("0S,0C\n", read_file(tmp.path("maildirsize")));
  EXPECT_TRUE(Entries(tmp.path("tmp")).empty());
}

// Through a directory the caller opened: the file lands in that directory
// wherever it has moved since, and the caller's descriptor stays its own.
TEST(AtomicFileTest, CreateInAnOpenDirectory) {
  TempDir tmp;
  ASSERT_EQ(0, mkdir(tmp.path("box").c_str(), 0700));
  ASSERT_EQ(0, mkdir(tmp.path("box/tmp").c_str(), 0700));
  tavix::UniqueFd box(open(tmp.path("box").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(box);
  ASSERT_EQ(0, rename(tmp.path("box").c_str(), tmp.path("moved").c_str()));
  {
    AtomicFile file;
    ASSERT_TRUE(file.create_in(box.get(), "maildirsize", "tmp/1.2.host-maildirsize",
                               Temp::kExclusive, 0644));
    EXPECT_EQ("tmp/1.2.host-maildirsize", file.temp_path());
    ASSERT_TRUE(file.write("0S,0C\n"));
    ASSERT_TRUE(file.commit());
  }
  EXPECT_EQ("0S,0C\n", read_file(tmp.path("moved/maildirsize")));
  EXPECT_TRUE(Entries(tmp.path("moved/tmp")).empty());
  struct stat info;
  EXPECT_EQ(0, fstat(box.get(), &info)) << "the caller's descriptor was closed";
}

}  // namespace
