// After each command the next one starts where a run of its own would:
// what a command changed or left open is undone, and what the batch and
// its checkpoint keep on purpose is left alone.
#include "batch/fresh_state.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <ostream>
#include <string>

#include "qmail/line_file.h"
#include "qmail/lock.h"
#include "qmail/qmail_test_support.h"
#include "util/test_support.h"

namespace {

using tavix::batch::FreshState;

bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }

// Whether another run could take the lock of `path` now.
bool lock_is_free(const std::string& path) {
  tavix::ScopedLock probe(mk_nonblock_lock(path.c_str(), 1));
  return probe.locked();
}

struct Leftover {
  const char* name;
  // Runs as the command; gives what it left behind, as a check that the
  // next command does not see it.
  std::function<std::function<bool()>(const std::string& scratch)> command;
  bool failed;
};

void PrintTo(const Leftover& leftover, std::ostream* out) { *out << leftover.name; }

class FreshStateTest : public testing::TestWithParam<Leftover> {};

TEST_P(FreshStateTest, TheNextCommandStartsAfresh) {
  tavix::test::ScratchDir scratch;
  struct stat start;
  ASSERT_EQ(stat(".", &start), 0);
  mode_t const mask = umask(022);
  umask(mask);

  FreshState fresh;
  fresh.before_command();
  std::function<bool()> undone = GetParam().command(scratch.path());
  fresh.after_command(GetParam().failed);

  EXPECT_TRUE(undone());
  struct stat here;
  ASSERT_EQ(stat(".", &here), 0) << strerror(errno);
  EXPECT_EQ(here.st_ino, start.st_ino);
  EXPECT_EQ(umask(mask), mask);
}

INSTANTIATE_TEST_SUITE_P(
    Leftovers, FreshStateTest,
    testing::Values(
        // An undo that removed the directory the command was working in.
        Leftover{"working_directory_removed",
                 [](const std::string& scratch) {
                   std::string gone = scratch + "/gone";
                   EXPECT_EQ(mkdir(gone.c_str(), 0700), 0);
                   EXPECT_EQ(chdir(gone.c_str()), 0);
                   EXPECT_EQ(rmdir(gone.c_str()), 0);
                   return [] { return true; };
                 },
                 true},
        Leftover{"umask",
                 [](const std::string&) {
                   umask(0777);
                   return [] { return true; };
                 },
                 false},
        Leftover{"descriptor_left_open",
                 [](const std::string& scratch) {
                   int fd = open(scratch.c_str(), O_RDONLY | O_DIRECTORY);
                   EXPECT_GE(fd, 0);
                   return [fd] { return !is_open(fd); };
                 },
                 true},
        // A failed edit keeps its lock "until the run ends": in a batch
        // the next command taking it would wait for ever.
        Leftover{"lock_kept_until_exit",
                 [](const std::string& scratch) {
                   std::string path = scratch + "/file";
                   tavix::ScopedLock lock(mk_lock(path.c_str(), 1));
                   EXPECT_TRUE(lock.locked());
                   lock.keep_until_exit();
                   return [path] { return lock_is_free(path); };
                 },
                 false},
        Leftover{"signal_ignored_by_a_failed_command",
                 [](const std::string&) {
                   signal(SIGPIPE, SIG_IGN);
                   return [] {
                     struct sigaction now;
                     return sigaction(SIGPIPE, nullptr, &now) == 0 &&
                            now.sa_handler == SIG_DFL;
                   };
                 },
                 true}),
    [](const testing::TestParamInfo<Leftover>& info) { return std::string(info.param.name); });

TEST(FreshState, ClearsErrnoForTheCommand) {
  FreshState fresh;
  errno = ENOENT;
  fresh.before_command();
  EXPECT_EQ(errno, 0);
  fresh.after_command(false);
}

// What was open before the command, what a checkpoint holds, and the lock
// directory kept for the next lock all stay open after a failed command,
// and their locks held.
TEST(FreshState, KeepsWhatIsKeptOnPurpose) {
  tavix::test::ScratchDir scratch;
  std::string const held = scratch.path("held"), other = scratch.path("other");
  tavix::test::write_file(held, "a\n");
  int const before = open(scratch.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(before, 0);
  const char* const paths[] = {held.c_str(), nullptr};
  line_files_hold(paths);

  FreshState fresh;
  fresh.before_command();
  ASSERT_EQ(file_str(held.c_str(), "b", kLinesAdd, kAddAppend), 0);
  { tavix::ScopedLock lock(mk_lock(other.c_str(), 1)); }
  fresh.after_command(true);

  EXPECT_TRUE(is_open(before));
  EXPECT_FALSE(lock_is_free(held)) << "the held file's lock was let go";
  // Its lock directory closed behind its back, the next lock would open
  // whatever took the number.
  tavix::ScopedLock again(mk_lock(other.c_str(), 1));
  EXPECT_TRUE(again.locked()) << strerror(errno);
  ASSERT_EQ(line_files_write_held(), 0);
  EXPECT_EQ(tavix::test::read_file(held), "a\nb\n");
  EXPECT_TRUE(lock_is_free(held));
  close(before);
}

}  // namespace
