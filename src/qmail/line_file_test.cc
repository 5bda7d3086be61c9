#include "qmail/line_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "qmail/lock.h"
#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::LockDirHidden;
using tavix::test::read_file;
using tavix::test::ScratchDir;
using tavix::test::write_file;

// Also once a lock was taken there: the directory kept open from then on
// must not outlive the one its path names.
TEST(FileStringsLockTest, MissingLockDirectoryFailsEveryEdit) {
  ScratchDir dir;
  std::string path = dir.path("rcpthosts");
  ASSERT_EQ(0, file_str(dir.path("before").c_str(), "a", 0, 1));
  LockDirHidden hidden;
  ASSERT_TRUE(hidden.ok());
  auto run = CaptureStreams([&] { return file_str(path.c_str(), "a", 0, 1); });
  EXPECT_EQ(1, run.result);
  EXPECT_FALSE(exists(path));
  EXPECT_NE(std::string::npos, run.err.find("Unable to open file \"/run/lock/files/")) << run.err;
  EXPECT_NE(std::string::npos, run.err.find("Error occurred while locking the file " + path +
                                            ": No such file or directory\n"))
      << run.err;
}

TEST(FileStringsLockTest, UnreadablePathKeepsTheLock) {
  ScratchDir dir;
  write_file(dir.path("plain"), "");
  std::string path = dir.path("plain/file");  // stat fails with ENOTDIR
  auto run = CaptureStreams([&] { return file_str(path.c_str(), "a", 1, 1); });
  EXPECT_EQ(1, run.result);
  EXPECT_NE(std::string::npos, run.err.find("file_str: Unable to stat file " + path)) << run.err;
  lock_handle* attempt = mk_nonblock_lock(path.c_str(), 1);
  EXPECT_TRUE(is_already_locked(attempt));
  free_lock(attempt);
}

// A removal that finds nothing leaves the file itself alone (the same
// inode), but still clears a killed rewrite's temporary; one that finds
// something rewrites it.
TEST(FileStringsRemoveTest, RewritesOnlyWhenALineGoes) {
  ScratchDir dir;
  std::string path = dir.path(".qmail");
  write_file(path, "| true\nx\n");
  write_file(path + ".tmp", "left by a killed run");
  auto inode = [&] {
    struct stat st = {};
    EXPECT_EQ(0, stat(path.c_str(), &st));
    return st.st_ino;
  };
  const auto before = inode();
  const struct {
    int op, how;
    const char* line;
    bool rewritten;
  } cases[] = {
      {kLinesRemove, 0, "| tru", false},
      {kLinesRemoveBy, kMatchPrefix, "y", false},
      {kLinesRemoveBy, kMatchSubstring, "x", true},
  };
  for (const auto& c : cases) {
    const auto old = inode();
    EXPECT_EQ(0, file_str(path.c_str(), c.line, c.op, c.how)) << c.line;
    EXPECT_EQ(c.rewritten, inode() != old) << c.line;
    EXPECT_FALSE(exists(path + ".tmp")) << c.line;
  }
  EXPECT_NE(before, inode());
  EXPECT_EQ("| true\n", read_file(path));
}

// The delivery line's idiom in one edit: the same text as a removal and
// an append in turn, in place when nothing goes, and nothing made from a
// missing file.
TEST(FileRemoveAppendTest, EqualsRemovalThenAppend) {
  ScratchDir dir;
  const char* const drop[] = {"a", "b", nullptr};
  const char* const add[] = {"a", nullptr};
  const struct {
    const char* before;
    const char* after;
    bool in_place;
  } cases[] = {
      {"| true\n", "| true\na\n", true},
      {"a\n| true\nb\na\n", "| true\na\n", false},
      {"x", "xa\n", true},
      {"", "a\n", true},
  };
  for (const auto& c : cases) {
    std::string path = dir.path(".qmail");
    write_file(path, c.before);
    write_file(path + ".tmp", "left by a killed run");
    struct stat before = {}, after = {};
    ASSERT_EQ(0, stat(path.c_str(), &before));
    EXPECT_EQ(0, file_remove_append(path.c_str(), drop, add)) << c.before;
    ASSERT_EQ(0, stat(path.c_str(), &after));
    EXPECT_EQ(c.after, read_file(path)) << c.before;
    EXPECT_EQ(c.in_place, before.st_ino == after.st_ino) << c.before;
    EXPECT_FALSE(exists(path + ".tmp")) << c.before;
  }
  std::string missing = dir.path("missing");
  EXPECT_EQ(kRemoveFailed, file_remove_append(missing.c_str(), drop, add));
  EXPECT_FALSE(exists(missing));
}

// Several processes keep their own lines in one file at the same time with
// the callers' idiom: remove, then append or prepend. No edit may be lost
// and no line doubled.
TEST(FileStringsConcurrencyTest, ParallelEditsLoseNothing) {
  const int kWorkers = 6, kOperations = 200;
  // Worker w's step i takes its line i % 8 out and, unless i % 3 is 0, puts
  // it back at the end (1) or at the top (2).
  auto line_of = [](int w, int i) {
    return "=w" + std::to_string(w) + "-line" + std::to_string(i % 8) +
           ":popuser:110:110:/var/qmail/mailnames/x:::";
  };
  ScratchDir dir;
  const std::string path = dir.path("assign");
  write_file(path, ".\n");
  std::vector<pid_t> children;
  std::multiset<std::string> expected{"."};
  for (int w = 0; w < kWorkers; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (int i = 0; i < kOperations; ++i) {
        const std::string line = line_of(w, i);
        if (file_str(path.c_str(), line.c_str(), 1, 1) != 0 ||
            (i % 3 != 0 && file_str(path.c_str(), line.c_str(), 0, i % 3 == 1) != 0))
          _exit(1);
      }
      _exit(0);
    }
    children.push_back(pid);
    std::set<std::string> present;
    for (int i = 0; i < kOperations; ++i) {
      if (i % 3 != 0)
        present.insert(line_of(w, i));
      else
        present.erase(line_of(w, i));
    }
    expected.insert(present.begin(), present.end());
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  std::multiset<std::string> found;
  std::istringstream text(read_file(path));
  for (std::string line; std::getline(text, line);) found.insert(line);
  EXPECT_EQ(expected, found);
}

}  // namespace
