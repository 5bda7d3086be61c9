// Helpers for the qmail back end's tests. These tests take real locks in
// /run/lock/files and so run only inside the private test sandbox, where
// that directory and /var/qmail belong to the test alone.
#ifndef DRAVNIK_QMAIL_QMAIL_TEST_SUPPORT_H_
#define DRAVNIK_QMAIL_QMAIL_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <string>

#include "util/test_support.h"

namespace tavix {
namespace test {

// Refuses to run anywhere but in the sandbox, whose launcher keeps its
// records in /run/sandbox: on a real host the tests would leave lock files
// in the system's lock directory.
class SandboxOnly : public testing::Environment {
 public:
  void SetUp() override {
    struct stat info;
    if (stat("/run/sandbox", &info) != 0)
      GTEST_FAIL() << "run these tests through tests/sandbox.py (or ctest)";
  }
};
inline testing::Environment* const kSandboxOnly =
    testing::AddGlobalTestEnvironment(new SandboxOnly);

// A fresh directory under /var/qmail (the sandbox's /tmp is read-only).
class ScratchDir : public TempDir {
 public:
  ScratchDir() : TempDir("/var/qmail") {}
};

struct Attributes {
  uid_t uid;
  gid_t gid;
  mode_t mode;
  bool operator==(const Attributes& other) const {
    return uid == other.uid && gid == other.gid && mode == other.mode;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Attributes& a) {
  return out << a.uid << ":" << a.gid << " " << std::oct << a.mode << std::dec;
}

inline Attributes attributes_of(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) {
    ADD_FAILURE() << "stat " << path;
    return {0, 0, 0};
  }
  return {info.st_uid, info.st_gid, info.st_mode & 07777};
}

// Hides /run/lock/files while alive, as on a system whose run-time
// directories were not set up: an empty file system is mounted over
// /run/lock in a mount namespace of this process's own.
class LockDirHidden {
 public:
  LockDirHidden() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run/lock", "tmpfs", 0, "mode=0755") != 0) {
      ADD_FAILURE() << "cannot hide /run/lock/files: " << strerror(errno);
      return;
    }
    mounted_ = true;
  }
  ~LockDirHidden() {
    if (mounted_ && umount("/run/lock") != 0)
      ADD_FAILURE() << "umount /run/lock: " << strerror(errno);
  }
  LockDirHidden(const LockDirHidden&) = delete;
  LockDirHidden& operator=(const LockDirHidden&) = delete;

  bool ok() const { return mounted_; }

 private:
  bool mounted_ = false;
};

struct ChildOutcome {
  int status;          // as waitpid() gives it
  std::string output;  // standard output and error together
};

// Runs `body` in a child process, for code that ends the process.
template <typename Body>
ChildOutcome RunInChild(Body body) {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) {
    ADD_FAILURE() << "pipe";
    return {-1, ""};
  }
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(pipe_fds[1], STDOUT_FILENO);
    dup2(pipe_fds[1], STDERR_FILENO);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    body();
    fflush(nullptr);
    _exit(0);
  }
  close(pipe_fds[1]);
  ChildOutcome outcome{-1, ""};
  char block[4096];
  ssize_t got;
  while ((got = read(pipe_fds[0], block, sizeof(block))) > 0)
    outcome.output.append(block, got);
  close(pipe_fds[0]);
  if (pid < 0 || waitpid(pid, &outcome.status, 0) != pid)
    ADD_FAILURE() << "fork or waitpid";
  return outcome;
}

}  // namespace test
}  // namespace tavix

#endif  // DRAVNIK_QMAIL_QMAIL_TEST_SUPPORT_H_
