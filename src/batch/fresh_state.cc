#include "batch/fresh_state.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "mailauth/sqlite_db.h"
#include "qmail/line_file.h"
#include "qmail/lock.h"
#include "qmail/maildirpp.h"

namespace tavix {
namespace batch {

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(std::string(what) + ": " + strerror(errno));
}

// A descriptor opened during a command that is meant to outlive it: held
// by the checkpoint (a held file's lock, a noted Maildir, a database of the
// checkpoint's transaction), kept for the next command (the lock
// directory), or a library's own for the whole process (the log's socket,
// a random device). Closing one of those would leave its owner using
// whatever takes the number next.
bool kept_on_purpose(int fd) {
  if (line_files_hold_descriptor(fd) || maildirsize_holds_descriptor(fd) ||
      lock_dir_descriptor(fd))
    return true;
  struct stat file;
  if (fstat(fd, &file) != 0)
    return true;  // gone already: nothing to close
  if (S_ISSOCK(file.st_mode) || S_ISCHR(file.st_mode))
    return true;
  return sqlite::holds_file(file);
}

}  // namespace

FreshState::FreshState()
    : start_dir_(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)),
      descriptors_dir_(open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (!start_dir_)
    fail("cannot open the working directory");
  if (!descriptors_dir_)
    fail("cannot list the open descriptors in /proc/self/fd");
  umask_ = umask(022);
  umask(umask_);
  if (sigprocmask(SIG_SETMASK, nullptr, &mask_) != 0)
    fail("cannot read the signal mask");
  // SIGKILL, SIGSTOP and the signals the C library keeps for itself give
  // EINVAL; they are not put back either.
  for (int signal = 1; signal < NSIG; ++signal)
    action_known_[signal] = sigaction(signal, nullptr, &actions_[signal]) == 0;
}

// The numbers are read again from the start of the same directory: /proc
// lists the descriptors as they are at each read.
std::vector<int> FreshState::open_descriptors() {
  if (lseek(descriptors_dir_.get(), 0, SEEK_SET) != 0)
    fail("cannot list the open descriptors");
  std::vector<int> open;
  char buffer[4096];
  for (;;) {
    ssize_t length = getdents64(descriptors_dir_.get(), buffer, sizeof buffer);
    if (length < 0)
      fail("cannot list the open descriptors");
    if (length == 0)
      break;
    for (ssize_t at = 0; at < length;) {
      const struct dirent64* entry = reinterpret_cast<const struct dirent64*>(buffer + at);
      at += entry->d_reclen;
      char* end = nullptr;
      long fd = strtol(entry->d_name, &end, 10);
      if (end != entry->d_name && *end == '\0' && fd != descriptors_dir_.get())
        open.push_back(static_cast<int>(fd));
    }
  }
  std::sort(open.begin(), open.end());
  return open;
}

void FreshState::before_command() {
  if (!baseline_known_) {
    baseline_ = open_descriptors();
    baseline_known_ = true;
  }
  errno = 0;
}

// Listing the descriptors costs a read of /proc per entry, and a checkpoint
// holds hundreds (its Maildirs): too dear for every command. A command that
// ends with status 0 has gone the ways its owners close what they opened;
// only a lock kept "until exit" outlives them, and that is let go here. A
// failed one may have been cut short anywhere: whatever it left open, and
// whatever an earlier command left open that nobody holds, is closed then.
void FreshState::after_command(bool failed) {
  release_kept_locks();
  if (fchdir(start_dir_.get()) != 0)
    fail("cannot return to the batch's working directory");
  umask(umask_);
  if (!failed)
    return;
  for (int fd : open_descriptors()) {
    if (!std::binary_search(baseline_.begin(), baseline_.end(), fd) && !kept_on_purpose(fd))
      (void)close(fd);  // the command's to close; what that close says is lost with it
  }
  // Commands change the signal mask and dispositions only under guards
  // that put them back on every way out; after a failure they are put back
  // all the same.
  if (sigprocmask(SIG_SETMASK, &mask_, nullptr) != 0)
    fail("cannot put the signal mask back");
  for (int signal = 1; signal < NSIG; ++signal) {
    if (action_known_[signal] && signal != SIGKILL && signal != SIGSTOP &&
        sigaction(signal, &actions_[signal], nullptr) != 0)
      fail("cannot put a signal's disposition back");
  }
}

}  // namespace batch
}  // namespace tavix
