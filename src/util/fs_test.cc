#include "util/fs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "util/test_support.h"
#include "util/unique_free.h"

namespace {

using tavix::chmod_nofollow;
using tavix::chown_nofollow;
using tavix::mkdir_nofollow;
using tavix::test::CaptureOutput;
using tavix::unlink_nofollow;
using tavix::test::read_file;
using tavix::test::TempDir;
using tavix::test::write_file;

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

struct stat Lstat(const std::string& path) {
  struct stat st = {};
  EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
  return st;
}

void MakeDir(const std::string& path) { ASSERT_EQ(0, mkdir(path.c_str(), 0755)) << path; }

void MakeLink(const std::string& target, const std::string& link) {
  ASSERT_EQ(0, symlink(target.c_str(), link.c_str())) << link;
}

// A tree with a nested directory and, inside it, links to a directory and a
// file outside the tree, which removal must leave alone.
TEST(RmTree, RemovesWithoutFollowingLinks) {
  const struct {
    const char* path;
    int remove_top;
    bool top_left;  // as an empty directory
  } cases[] = {
      {"tree", 1, false},
      {"tree", 0, true},
      {"tree/a/dir-link", 1, false},  // a link given as the top is unlinked
      {"no-such", 1, false},          // a missing path is success
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.path << " " << c.remove_top);
    TempDir tmp;
    for (const char* dir : {"outside", "tree", "tree/a", "tree/a/b"}) MakeDir(tmp.path(dir));
    write_file(tmp.path("outside/keep"), "keep");
    write_file(tmp.path("tree/a/b/file"), "x");
    write_file(tmp.path("tree/top-file"), "y");
    MakeLink(tmp.path("outside"), tmp.path("tree/a/dir-link"));
    MakeLink(tmp.path("outside/keep"), tmp.path("tree/file-link"));

    const std::string path = tmp.path(c.path);
    EXPECT_EQ(0, rm_tree(path.c_str(), c.remove_top));
    EXPECT_EQ(c.top_left, rmdir(path.c_str()) == 0) << "missing or not empty";
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ("keep", read_file(tmp.path("outside/keep")));
  }
}

// Byte and block counts and a missing mailbox show in the command's output;
// a link to a large file outside counts as the link alone.
TEST(GetDirSize, DoesNotFollowLinks) {
  TempDir tmp;
  const std::string top = tmp.path("top");
  MakeDir(top);
  write_file(top + "/one", std::string(100, 'a'));
  write_file(tmp.path("big"), std::string(50000, 'c'));
  MakeLink(tmp.path("big"), top + "/link");
  EXPECT_EQ(Lstat(top).st_size + 100 + Lstat(top + "/link").st_size,
            get_dir_size(top.c_str(), 0));
}

TEST(CreateNestedDirectory, CreatesEveryMissingComponent) {
  TempDir tmp;
  const std::string path = tmp.path("a/b/c");
  EXPECT_EQ(1, createNestedDirectory(path.c_str()));
  EXPECT_TRUE(S_ISDIR(Lstat(path).st_mode));
  EXPECT_EQ(1, createNestedDirectory((path + "/").c_str()));
  write_file(tmp.path("file"), "");
  for (const char* bad : {"file/c", "file"}) {
    errno = 0;
    EXPECT_EQ(0, createNestedDirectory(tmp.path(bad).c_str())) << bad;
    EXPECT_EQ(ENOTDIR, errno) << bad;
  }
}

TEST(MakeDirP, CreatesChainWithOwnerAndModeDespiteUmask) {
  TempDir tmp;
  MakeDir(tmp.path("existing"));
  mode_t saved = umask(077);
  const std::string leaf = tmp.path("existing/p/q");
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

TEST(RenameDir, MovesButNeverOverAnExistingTarget) {
  const struct {
    bool source_exists, target_exists;
    int result;
    const char* mail_at_target;
  } cases[] = {
      {true, false, 0, "source"},
      {false, true, 0, "target"},  // a missing source is success
      {true, true, -1, "target"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.source_exists << c.target_exists);
    TempDir tmp;
    const std::string from = tmp.path("old"), to = tmp.path("new");
    if (c.source_exists) {
      MakeDir(from);
      write_file(from + "/mail", "source");
    }
    if (c.target_exists) {
      MakeDir(to);
      write_file(to + "/mail", "target");
    }
    auto output = CaptureOutput([&] { return rename_dir(from.c_str(), to.c_str()); });
    EXPECT_EQ(c.result, output.result);
    EXPECT_EQ(c.result != 0, Exists(from));
    EXPECT_EQ(c.mail_at_target, read_file(to + "/mail"));
    EXPECT_EQ(c.result != 0,
              output.out.find("Directory rename error: target directory " + to +
                              " already exists.\n") != std::string::npos)
        << output.out;
  }
}

// Only what mkstemp() made of "<name><infix>XXXXXX" goes; a planted link
// goes as a link, its target stays.
TEST(RemoveStaleTemps, RemovesExactlyTheTemplatesNames) {
  TempDir tmp;
  const std::string keep[] = {"assign", "assign.mail.12345", "assign.mail.1234567",
                              "assign.tmp", "other.mail.abc123", "target"};
  for (const std::string& name : keep)
    write_file(tmp.path(name), name);
  write_file(tmp.path("assign.mail.abc123"), "stale");
  MakeLink(tmp.path("target"), tmp.path("assign.mail.XyZ789"));

  EXPECT_EQ(2, tavix::remove_stale_temps(tmp.path("assign").c_str(), ".mail."));
  EXPECT_FALSE(Exists(tmp.path("assign.mail.abc123")));
  EXPECT_FALSE(Exists(tmp.path("assign.mail.XyZ789")));
  for (const std::string& name : keep)
    EXPECT_EQ(name, read_file(tmp.path(name)));
  EXPECT_EQ(-1, tavix::remove_stale_temps(tmp.path("missing/assign").c_str(), ".mail."));
}

TEST(GetStreamContents, ReadsWholeStreamsOfEverySize) {
  for (size_t size : {0, 1023, 1024, 2047, 5000, 70000}) {
    SCOPED_TRACE(size);
    std::string text;
    for (size_t i = 0; i < size; ++i) text += static_cast<char>('a' + i % 26);
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
  TempDir tmp;
  EXPECT_EQ(nullptr, get_file_contents(tmp.path("none").c_str(), nullptr));
}

TEST(CreateFileAndSetPerms, NeverTruncateIgnoreAMissingPathRefuseAnUnknownUser) {
  TempDir tmp;
  const std::string path = tmp.path("f");
  mode_t saved = umask(022);
  EXPECT_EQ(0, create_file(path.c_str()));
  umask(saved);
  EXPECT_EQ(0644u, Lstat(path).st_mode & 07777);
  write_file(path, "data");
  EXPECT_EQ(0, create_file(path.c_str()));
  EXPECT_EQ("data", read_file(path));

  EXPECT_EQ(0, file_set_perms(path.c_str(), 65534, 65534, 0600));
  struct stat st = Lstat(path);
  EXPECT_EQ(65534u, st.st_uid);
  EXPECT_EQ(65534u, st.st_gid);
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_EQ(0, file_set_perms(tmp.path("none").c_str(), 0, 0, 0600));
  auto output =
      CaptureOutput([&] { return file_set_user_mode(path.c_str(), "no-such-user-x", 0600); });
  EXPECT_EQ(-1, output.result);
  EXPECT_NE(std::string::npos, output.out.find("user no-such-user-x not found"));
}

enum class Op { kMkdir, kChown, kChmod, kUnlink, kCreate, kSetPerms };

int Apply(Op op, const std::string& path) {
  switch (op) {
    case Op::kMkdir: return mkdir_nofollow(path.c_str(), 0700);
    case Op::kChown: return chown_nofollow(path.c_str(), 65534, 65534);
    case Op::kChmod: return chmod_nofollow(path.c_str(), 0777);
    case Op::kUnlink: return unlink_nofollow(path.c_str());
    case Op::kCreate: return create_file(path.c_str());
    case Op::kSetPerms: return file_set_perms(path.c_str(), 65534, 65534, 0777);
  }
  return 0;
}

// The mail user owns "foreign" and has put links to "outside" in it; links
// in directories only root can change are root's and followed.
TEST(NoFollow, LinksInForeignDirectoriesAreRefusedRootsAreFollowed) {
  const struct {
    Op op;
    const char* path;
    bool refused;  // with ELOOP; else done through root's link
  } cases[] = {
      {Op::kMkdir, "foreign/link/new", true},  {Op::kChown, "foreign/flink", true},
      {Op::kChown, "foreign/link/f", true},    {Op::kChmod, "foreign/flink", true},
      {Op::kUnlink, "foreign/link/f", true},   {Op::kCreate, "foreign/link/new", true},
      {Op::kSetPerms, "foreign/flink", true},  {Op::kMkdir, "rootlink/new", false},
      {Op::kChmod, "rootlink/f", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << static_cast<int>(c.op) << " " << c.path);
    TempDir tmp;
    MakeDir(tmp.path("outside"));
    write_file(tmp.path("outside/f"), "keep");
    ASSERT_EQ(0, chmod(tmp.path("outside/f").c_str(), 0644));
    MakeDir(tmp.path("foreign"));
    ASSERT_EQ(0, chown(tmp.path("foreign").c_str(), 65534, 65534));
    MakeLink(tmp.path("outside"), tmp.path("foreign/link"));
    MakeLink(tmp.path("outside/f"), tmp.path("foreign/flink"));
    MakeLink(tmp.path("outside"), tmp.path("rootlink"));

    errno = 0;
    auto output = CaptureOutput([&] { return Apply(c.op, tmp.path(c.path)); });
    EXPECT_EQ(0u, Lstat(tmp.path("outside/f")).st_uid);
    if (c.refused) {
      EXPECT_EQ(ELOOP, errno);
      EXPECT_NE(0, output.result);
      EXPECT_EQ(0644u, Lstat(tmp.path("outside/f")).st_mode & 07777);
      EXPECT_EQ("keep", read_file(tmp.path("outside/f")));
      EXPECT_FALSE(Exists(tmp.path("outside/new")));
    } else {
      EXPECT_EQ(0, output.result);
    }
  }
}

}  // namespace
