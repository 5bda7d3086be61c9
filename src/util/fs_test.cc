#include "util/fs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "util/test_support.h"
#include "util/unique_free.h"

namespace {

using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::lstat_of;
using tavix::test::read_file;
using tavix::test::TempDir;
using tavix::test::write_file;

void MakeDir(const std::string& path) { ASSERT_EQ(0, mkdir(path.c_str(), 0755)) << path; }

void MakeLink(const std::string& target, const std::string& link) {
  ASSERT_EQ(0, symlink(target.c_str(), link.c_str())) << link;
}

TEST(MakeDirP, CreatesChainWithOwnerAndModeDespiteUmask) {
  TempDir tmp;
  MakeDir(tmp.path("existing"));
  mode_t saved = umask(077);
  const std::string leaf = tmp.path("existing/p/q");
  EXPECT_EQ(0, make_dir_p(leaf.c_str(), 65534, 65534, 0750));
  umask(saved);

  for (const std::string& dir : {tmp.path("existing/p"), leaf}) {
    struct stat st = lstat_of(dir);
    EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
    EXPECT_EQ(0750u, st.st_mode & 07777) << dir;
    EXPECT_EQ(65534u, st.st_uid) << dir;
    EXPECT_EQ(65534u, st.st_gid) << dir;
  }
  // An existing directory is not given away.
  EXPECT_EQ(0u, lstat_of(tmp.path("existing")).st_uid);
  EXPECT_EQ(0, make_dir_p(leaf.c_str(), 0, 0, 0700));
  EXPECT_EQ(65534u, lstat_of(leaf).st_uid);
}

// A link that only root could have put there is followed (an operator's
// /var/qmail/mailnames may be one); one in a directory that someone else
// can write is refused, wherever it lies in the path.
TEST(OpenDirNofollow, FollowsALinkOnlyInADirectoryNobodyElseCanWrite) {
  TempDir tmp;
  MakeDir(tmp.path("real"));
  MakeDir(tmp.path("real/sub"));
  MakeDir(tmp.path("open"));
  MakeLink(tmp.path("real"), tmp.path("link"));
  MakeLink(tmp.path("real"), tmp.path("open/link"));
  ASSERT_EQ(0, chmod(tmp.path("open").c_str(), 01777));
  for (const char* path : {"link/sub", "link", "./link/sub"}) {
    SCOPED_TRACE(path);
    std::string full = tmp.path(path);
    EXPECT_TRUE(tavix::open_dir_nofollow(full.c_str()));
  }
  for (const char* path : {"open/link/sub", "open/link"}) {
    SCOPED_TRACE(path);
    std::string full = tmp.path(path);
    EXPECT_FALSE(tavix::open_dir_nofollow(full.c_str()));
    EXPECT_EQ(ELOOP, errno);
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
  EXPECT_FALSE(exists(tmp.path("assign.mail.abc123")));
  EXPECT_FALSE(exists(tmp.path("assign.mail.XyZ789")));
  for (const std::string& name : keep)
    EXPECT_EQ(name, read_file(tmp.path(name)));
  EXPECT_EQ(-1, tavix::remove_stale_temps(tmp.path("missing/assign").c_str(), ".mail."));
}

// More entries than one buffer holds come out once each.
TEST(DirReader, ReadsEveryEntryOnce) {
  TempDir dir;
  std::set<std::string> made = {".", ".."};
  for (int k = 0; k < 300; ++k) {
    const std::string name = std::string(60, 'n') + std::to_string(k);
    made.insert(name);
    write_file(dir.path(name), "");
  }
  tavix::DirReader reader(tavix::open_dir_nofollow(dir.path().c_str()));
  ASSERT_TRUE(reader);
  std::multiset<std::string> seen;
  while (const struct dirent64* entry = reader.next())
    seen.insert(entry->d_name);
  EXPECT_EQ(0, errno);
  EXPECT_EQ(std::multiset<std::string>(made.begin(), made.end()), seen);
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
  EXPECT_EQ(0644u, lstat_of(path).st_mode & 07777);
  write_file(path, "data");
  EXPECT_EQ(0, create_file(path.c_str()));
  EXPECT_EQ("data", read_file(path));

  EXPECT_EQ(0, file_set_perms(path.c_str(), 65534, 65534, 0600));
  struct stat st = lstat_of(path);
  EXPECT_EQ(65534u, st.st_uid);
  EXPECT_EQ(65534u, st.st_gid);
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_EQ(0, file_set_perms(tmp.path("none").c_str(), 0, 0, 0600));
  auto output =
      CaptureStreams([&] { return file_set_user_mode(path.c_str(), "no-such-user-x", 0600); });
  EXPECT_EQ(-1, output.result);
  EXPECT_NE(std::string::npos, output.out.find("user no-such-user-x not found"));
}

}  // namespace
