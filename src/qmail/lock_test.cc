#include "qmail/lock.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::LockDirHidden;

TEST(LockTest, LockFileIsNamedByTheMd5OfThePathAsSpelled) {
  // md5("/var/qmail/control/rcpthosts"), computed independently.
  const std::string expected = "/run/lock/files/f6e5a69b7a92d465cd8f084d58cc3d6a";
  lock_handle* lock = mk_lock("/var/qmail/control/rcpthosts", 1);
  ASSERT_TRUE(is_locked(lock));
  EXPECT_EQ(expected, lock->path.get());

  // Another spelling of the same file is another lock, free to be taken.
  lock_handle* other = mk_nonblock_lock("/var/qmail/control/./rcpthosts", 1);
  ASSERT_TRUE(is_locked(other));
  EXPECT_NE(expected, other->path.get());
  EXPECT_EQ(0, rm_lock(other));

  EXPECT_EQ(0, rm_lock(lock));
  // Releasing only closes: the lock file stays.
  EXPECT_TRUE(exists(expected));
}

// A lock that could not be opened is an error, not a lock someone else holds.
TEST(LockTest, MissingLockDirectoryGivesAnUnlockedHandle) {
  LockDirHidden hidden;
  ASSERT_TRUE(hidden.ok());
  auto run = CaptureStreams([] { return mk_lock("/var/qmail/users/assign", 1); });
  ASSERT_NE(nullptr, run.result);
  EXPECT_LT(run.result->descriptor, 0);
  EXPECT_FALSE(is_locked(run.result));
  EXPECT_FALSE(is_already_locked(run.result));
  EXPECT_NE(std::string::npos, run.err.find("No such file or directory.")) << run.err;
  EXPECT_EQ(0, free_lock(run.result));
}

// While a child holds the lock, a non-blocking attempt reports it taken and
// a blocking one in another child waits until the first lets it go.
TEST(LockTest, OtherProcessHoldingTheLock) {
  const char* path = "/var/qmail/control/virtualdomains";
  int release[2], report[2];
  ASSERT_EQ(0, pipe(release));
  ASSERT_EQ(0, pipe(report));
  // The holder reports 'h' once it holds the lock and lets it go when told;
  // the waiter reports 'w' once it holds the lock.
  auto spawn = [&](char tag) {
    pid_t pid = fork();
    if (pid == 0) {
      lock_handle* lock = mk_lock(path, 1);
      char go;
      if (!is_locked(lock) || write(report[1], &tag, 1) != 1 ||
          (tag == 'h' && read(release[0], &go, 1) != 1))
        _exit(1);
      _exit(rm_lock(lock) == 0 ? 0 : 1);
    }
    return pid;
  };
  const pid_t holder = spawn('h');
  char got = 0;
  ASSERT_EQ(1, read(report[0], &got, 1));
  ASSERT_EQ('h', got);

  lock_handle* attempt = mk_nonblock_lock(path, 1);
  ASSERT_NE(nullptr, attempt);
  EXPECT_TRUE(is_already_locked(attempt));
  EXPECT_FALSE(is_locked(attempt));
  EXPECT_EQ(0, free_lock(attempt));

  const pid_t waiter = spawn('w');
  close(report[1]);
  close(release[0]);
  struct pollfd ready = {report[0], POLLIN, 0};
  EXPECT_EQ(0, poll(&ready, 1, 300)) << "the waiter did not wait";
  ASSERT_EQ(1, write(release[1], "g", 1));
  ASSERT_EQ(1, read(report[0], &got, 1));
  EXPECT_EQ('w', got);
  for (pid_t pid : {holder, waiter}) {
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  close(report[0]);
  close(release[1]);
}

}  // namespace
