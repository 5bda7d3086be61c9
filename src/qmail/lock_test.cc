#include "qmail/lock.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::LockDirHidden;
using tavix::test::ScratchDir;

TEST(LockTest, LockFileIsNamedByTheMd5OfThePathAsSpelled) {
  // md5("/var/qmail/control/rcpthosts"), computed independently.
  const std::string expected =
      "/run/lock/files/f6e5a69b7a92d465cd8f084d58cc3d6a";
  lock_handle* lock = mk_lock("/var/qmail/control/rcpthosts", 1);
  ASSERT_TRUE(is_locked(lock));
  EXPECT_EQ(expected, lock->path.get());
  EXPECT_TRUE(exists(expected));

  // Another spelling of the same file is another lock, free to be taken.
  lock_handle* other = mk_nonblock_lock("/var/qmail/control/./rcpthosts", 1);
  ASSERT_TRUE(is_locked(other));
  EXPECT_NE(expected, other->path.get());
  EXPECT_EQ(0, rm_lock(other));

  EXPECT_EQ(0, rm_lock(lock));
  // Releasing only closes: the lock file stays.
  EXPECT_TRUE(exists(expected));
}

TEST(LockTest, WithoutTheLockDirectoryThePathItselfIsTheLockFile) {
  ScratchDir dir;
  std::string path = dir.path("own.lock");
  lock_handle* lock = mk_lock(path.c_str(), 0);
  ASSERT_TRUE(is_locked(lock));
  EXPECT_EQ(path, lock->path.get());
  EXPECT_TRUE(exists(path));
  EXPECT_EQ(0, rm_lock(lock));
}

TEST(LockTest, MissingLockDirectoryGivesAnUnlockedHandle) {
  LockDirHidden hidden;
  ASSERT_TRUE(hidden.ok());
  auto run = CaptureStreams([] { return mk_lock("/var/qmail/users/assign", 1); });
  ASSERT_NE(nullptr, run.result);
  EXPECT_LT(run.result->descriptor, 0);
  EXPECT_FALSE(is_locked(run.result));
  EXPECT_FALSE(is_already_locked(run.result));
  EXPECT_NE(std::string::npos,
            run.err.find("Unable to open file \"/run/lock/files/"))
      << run.err;
  EXPECT_NE(std::string::npos, run.err.find("No such file or directory."))
      << run.err;
  EXPECT_EQ(0, free_lock(run.result));
}

// A lock file opened through a link, or in a directory that others could
// have put a link in, could create or truncate any file: the lock fails
// instead and nothing outside the lock directory changes.
TEST(LockTest, RefusesLinksAndLockDirectoriesOthersCanWrite) {
  const char* const kEdited = "/var/qmail/users/assign";
  const struct {
    const char* name;
    // Sets up /run/lock/files (hidden from the real one) around `decoy`.
    void (*arrange)(const std::string& decoy, const std::string& lock_file);
    int error;
  } cases[] = {
      {"lock_file_links_to_a_file",
       [](const std::string& decoy, const std::string& lock_file) {
         ASSERT_EQ(0, mkdir(kLockDir, 0755));
         ASSERT_EQ(0, symlink((decoy + "/passwd").c_str(), lock_file.c_str()));
       },
       ELOOP},
      {"lock_file_links_to_nothing",
       [](const std::string& decoy, const std::string& lock_file) {
         ASSERT_EQ(0, mkdir(kLockDir, 0755));
         ASSERT_EQ(0, symlink((decoy + "/new").c_str(), lock_file.c_str()));
       },
       ELOOP},
      {"lock_dir_is_a_link",
       [](const std::string& decoy, const std::string&) {
         ASSERT_EQ(0, symlink(decoy.c_str(), kLockDir));
       },
       ELOOP},
      {"lock_dir_writable_by_all",
       [](const std::string&, const std::string&) {
         ASSERT_EQ(0, mkdir(kLockDir, 0755));
         ASSERT_EQ(0, chmod(kLockDir, 01777));
       },
       EPERM},
      {"lock_dir_of_the_mail_user",
       [](const std::string&, const std::string&) {
         ASSERT_EQ(0, mkdir(kLockDir, 0755));
         ASSERT_EQ(0, chown(kLockDir, 110, 110));
       },
       EPERM},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchDir dir;
    const std::string decoy = dir.path("decoy");
    ASSERT_EQ(0, mkdir(decoy.c_str(), 0755));
    tavix::test::write_file(decoy + "/passwd", "root:x:0:0::/root:/bin/sh\n");
    lock_handle* probe = mk_lock(kEdited, 1);  // only for the lock file's name
    const std::string lock_file = probe->path.get();
    free_lock(probe);
    LockDirHidden hidden;
    ASSERT_TRUE(hidden.ok());
    c.arrange(decoy, lock_file);

    auto run = CaptureStreams([&] {
      lock_handle* lock = mk_lock(kEdited, 1);
      int error = errno;
      bool locked = is_locked(lock);
      free_lock(lock);
      return std::make_pair(locked, error);
    });
    EXPECT_EQ(std::make_pair(false, c.error), run.result);
    EXPECT_NE(std::string::npos, run.err.find("Unable to open file \"" + lock_file))
        << run.err;
    EXPECT_EQ("root:x:0:0::/root:/bin/sh\n", tavix::test::read_file(decoy + "/passwd"));
    EXPECT_FALSE(exists(decoy + "/new"));
    EXPECT_FALSE(exists(decoy + lock_file.substr(lock_file.rfind('/'))));
  }
}

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() -
                                       start)
      .count();
}

// A child process holds the lock for a while; meanwhile a non-blocking
// attempt reports it taken and a blocking one waits for the release.
TEST(LockTest, OtherProcessHoldingTheLock) {
  const char* path = "/var/qmail/control/virtualdomains";
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(ready[0]);
    lock_handle* lock = mk_lock(path, 1);
    char held = is_locked(lock) ? 'y' : 'n';
    if (write(ready[1], &held, 1) != 1)
      _exit(2);
    usleep(300 * 1000);
    _exit(rm_lock(lock) == 0 ? 0 : 1);
  }
  close(ready[1]);
  char held = 0;
  ASSERT_EQ(1, read(ready[0], &held, 1));
  close(ready[0]);
  ASSERT_EQ('y', held);
  auto start = std::chrono::steady_clock::now();

  lock_handle* attempt = mk_nonblock_lock(path, 1);
  ASSERT_NE(nullptr, attempt);
  EXPECT_TRUE(is_already_locked(attempt));
  EXPECT_FALSE(is_locked(attempt));
  EXPECT_EQ(0, free_lock(attempt));

  lock_handle* lock = mk_lock(path, 1);
  double waited = seconds_since(start);
  EXPECT_TRUE(is_locked(lock));
  EXPECT_GE(waited, 0.25);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(0, rm_lock(lock));
}

}  // namespace
