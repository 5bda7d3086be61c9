#include "util/fs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "util/test_support.h"
#include "util/unique_free.h"

namespace {

using tavix::test::TempDir;
using tavix::test::read_file;
using tavix::test::write_file;

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

bool IsDir(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

struct stat Lstat(const std::string& path) {
  struct stat st = {};
  EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
  return st;
}

void MakeDir(const std::string& path) {
  ASSERT_EQ(0, mkdir(path.c_str(), 0755)) << path;
}

void MakeLink(const std::string& target, const std::string& link) {
  ASSERT_EQ(0, symlink(target.c_str(), link.c_str())) << link;
}

// A tree with a nested directory and, inside it, links to a directory and a
// file outside the tree, which removal must leave alone.
class RmTreeTest : public testing::Test {
 protected:
  void SetUp() override {
    MakeDir(tmp_.path("outside"));
    write_file(tmp_.path("outside/keep"), "keep");
    MakeDir(tmp_.path("tree"));
    MakeDir(tmp_.path("tree/a"));
    MakeDir(tmp_.path("tree/a/b"));
    write_file(tmp_.path("tree/a/b/file"), "x");
    write_file(tmp_.path("tree/top-file"), "y");
    MakeLink(tmp_.path("outside"), tmp_.path("tree/a/dir-link"));
    MakeLink(tmp_.path("outside/keep"), tmp_.path("tree/file-link"));
  }

  void ExpectOutsideIntact() {
    EXPECT_EQ("keep", read_file(tmp_.path("outside/keep")));
  }

  TempDir tmp_;
};

TEST_F(RmTreeTest, RemovesTreeWithoutFollowingLinks) {
  EXPECT_EQ(0, rm_tree(tmp_.path("tree").c_str(), 1));
  EXPECT_FALSE(Exists(tmp_.path("tree")));
  ExpectOutsideIntact();
}

TEST_F(RmTreeTest, KeepsEmptyTopWhenAsked) {
  EXPECT_EQ(0, rm_tree(tmp_.path("tree").c_str(), 0));
  ASSERT_TRUE(IsDir(tmp_.path("tree")));
  EXPECT_EQ(0, rmdir(tmp_.path("tree").c_str())) << "directory not empty";
  ExpectOutsideIntact();
}

TEST_F(RmTreeTest, LinkGivenAsTopIsUnlinked) {
  EXPECT_EQ(0, rm_tree(tmp_.path("tree/a/dir-link").c_str(), 1));
  EXPECT_FALSE(Exists(tmp_.path("tree/a/dir-link")));
  ExpectOutsideIntact();
}

TEST_F(RmTreeTest, MissingPathIsSuccess) {
  EXPECT_EQ(0, rm_tree(tmp_.path("no-such").c_str(), 1));
}

TEST(GetDirSize, SumsBytesWithoutFollowingLinks) {
  TempDir tmp;
  std::string top = tmp.path("top");
  MakeDir(top);
  MakeDir(top + "/sub");
  write_file(top + "/one", std::string(100, 'a'));
  write_file(top + "/sub/two", std::string(2500, 'b'));
  write_file(tmp.path("big"), std::string(50000, 'c'));
  MakeLink(tmp.path("big"), top + "/link");

  long long expected = Lstat(top).st_size + Lstat(top + "/sub").st_size +
                       100 + 2500 + Lstat(top + "/link").st_size;
  EXPECT_EQ(expected, get_dir_size(top.c_str(), 0));
  EXPECT_EQ(2500, get_dir_size((top + "/sub/two").c_str(), 0));
}

TEST(GetDirSize, BlocksOfEmptyDirectory) {
  TempDir tmp;
  std::string dir = tmp.path("empty");
  MakeDir(dir);
  EXPECT_EQ(static_cast<long long>(Lstat(dir).st_blocks) * 512,
            get_dir_size(dir.c_str(), 1));
}

TEST(GetDirSize, MissingPathFails) {
  TempDir tmp;
  tavix::test::LogRecorder log;
  EXPECT_EQ(-1, get_dir_size(tmp.path("none").c_str(), 0));
}

TEST(CreateNestedDirectory, CreatesEveryMissingComponent) {
  TempDir tmp;
  std::string path = tmp.path("a/b/c");
  EXPECT_EQ(1, createNestedDirectory(path.c_str()));
  EXPECT_TRUE(IsDir(path));
  EXPECT_EQ(1, createNestedDirectory((path + "/").c_str()));
}

TEST(CreateNestedDirectory, RegularFileInPathIsNotADirectory) {
  TempDir tmp;
  write_file(tmp.path("file"), "");
  errno = 0;
  EXPECT_EQ(0, createNestedDirectory(tmp.path("file/c").c_str()));
  EXPECT_EQ(ENOTDIR, errno);
  EXPECT_EQ(0, createNestedDirectory(tmp.path("file").c_str()));
  EXPECT_EQ(ENOTDIR, errno);
}

TEST(MakeDirP, CreatesChainWithOwnerAndModeDespiteUmask) {
  TempDir tmp;
  MakeDir(tmp.path("existing"));
  mode_t saved = umask(077);
  std::string leaf = tmp.path("existing/p/q");
  EXPECT_EQ(0, make_dir_p(leaf.c_str(), 65534, 65534, 0750));
  umask(saved);

  for (const std::string& dir : {tmp.path("existing/p"), leaf}) {
    struct stat st = Lstat(dir);
    EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
    EXPECT_EQ(0750u, st.st_mode & 07777) << dir;
    EXPECT_EQ(65534u, st.st_uid) << dir;
    EXPECT_EQ(65534u, st.st_gid) << dir;
  }
  // An existing directory is not given away.
  EXPECT_EQ(0u, Lstat(tmp.path("existing")).st_uid);
  EXPECT_EQ(0, make_dir_p(leaf.c_str(), 0, 0, 0700));
  EXPECT_EQ(65534u, Lstat(leaf).st_uid);
}

struct RenameCase {
  const char* title;
  bool source_exists;
  bool target_exists;
  int result;
  bool moved;
};

void PrintTo(const RenameCase& c, std::ostream* os) { *os << c.title; }

class RenameDirTest : public testing::TestWithParam<RenameCase> {};

TEST_P(RenameDirTest, Renames) {
  const RenameCase& c = GetParam();
  TempDir tmp;
  std::string from = tmp.path("old");
  std::string to = tmp.path("new");
  if (c.source_exists) {
    MakeDir(from);
    write_file(from + "/mail", "source");
  }
  if (c.target_exists) {
    MakeDir(to);
    write_file(to + "/mail", "target");
  }
  auto output = tavix::test::CaptureOutput(
      [&] { return rename_dir(from.c_str(), to.c_str()); });
  EXPECT_EQ(c.result, output.result);

  EXPECT_EQ(c.source_exists && !c.moved, Exists(from));
  if (c.moved) {
    EXPECT_EQ("source", read_file(to + "/mail"));
  }
  if (c.target_exists) {
    EXPECT_EQ("target", read_file(to + "/mail"));
  }
  if (c.source_exists && c.target_exists) {
    EXPECT_NE(std::string::npos,
              output.out.find("Directory rename error: target directory " +
                              to + " already exists.\n"))
        << output.out;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RenameDirTest,
    testing::Values(RenameCase{"Moves", true, false, 0, true},
                    RenameCase{"MissingSourceIsSuccess", false, true, 0,
                               false},
                    RenameCase{"ExistingTargetRefused", true, true, -1,
                               false}),
    [](const testing::TestParamInfo<RenameCase>& info) {
      return std::string(info.param.title);
    });

class StreamContentsTest : public testing::TestWithParam<size_t> {};

TEST_P(StreamContentsTest, ReadsWholeStream) {
  std::string text;
  for (size_t i = 0; i < GetParam(); ++i)
    text += static_cast<char>('a' + i % 26);
  tavix::UniqueFile stream(tmpfile());
  ASSERT_TRUE(stream);
  ASSERT_EQ(text.size(), fwrite(text.data(), 1, text.size(), stream.get()));
  rewind(stream.get());

  size_t length = 0;
  tavix::unique_free<char> contents(get_stream_contents(stream.get(), &length));
  ASSERT_NE(nullptr, contents);
  EXPECT_EQ(text.size(), length);
  EXPECT_EQ(text, std::string(contents.get()));
}

INSTANTIATE_TEST_SUITE_P(Sizes, StreamContentsTest,
                         testing::Values(0, 1023, 1024, 2047, 5000, 70000));

TEST(GetFileContents, MissingFileIsNull) {
  TempDir tmp;
  EXPECT_EQ(nullptr, get_file_contents(tmp.path("none").c_str(), nullptr));
}

TEST(CreateFile, CreatesWithoutTruncating) {
  TempDir tmp;
  std::string path = tmp.path("f");
  mode_t saved = umask(022);
  EXPECT_EQ(0, create_file(path.c_str()));
  umask(saved);
  EXPECT_EQ(0644u, Lstat(path).st_mode & 07777);
  write_file(path, "data");
  EXPECT_EQ(0, create_file(path.c_str()));
  EXPECT_EQ("data", read_file(path));
}

TEST(FileSetPerms, SetsOwnerAndModeAndIgnoresMissingPath) {
  TempDir tmp;
  std::string path = tmp.path("f");
  write_file(path, "");
  EXPECT_EQ(0, file_set_perms(path.c_str(), 65534, 65534, 0600));
  struct stat st = Lstat(path);
  EXPECT_EQ(65534u, st.st_uid);
  EXPECT_EQ(65534u, st.st_gid);
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_EQ(0, file_set_perms(tmp.path("none").c_str(), 0, 0, 0600));
}

TEST(FileSetUserMode, UnknownUserRefused) {
  TempDir tmp;
  std::string path = tmp.path("f");
  write_file(path, "");
  auto output = tavix::test::CaptureOutput([&] {
    return file_set_user_mode(path.c_str(), "no-such-user-x", 0600);
  });
  EXPECT_EQ(-1, output.result);
  EXPECT_NE(std::string::npos, output.out.find("user no-such-user-x not found"));
}

}  // namespace
