// Exclusive advisory locks that keep concurrent runs of the utility from
// editing one file at the same time.
//
// A lock on a file F is an flock() on a separate lock file, so that renaming
// a freshly written F over the old one does not drop the lock. The lock file
// lives in kLockDir and is named by the MD5 of F's path exactly as spelled:
// two spellings of one file are two different locks. Lock files are never
// removed; releasing a lock only closes its descriptor.
//
// A lock file is opened only in a directory that root alone can write and
// that is no symbolic link, and never through a link itself: otherwise
// whoever planted one could have a run create or truncate any file. Such a
// lock simply fails (errno ELOOP or EPERM) and the run reports it.
#ifndef DRAVNIK_QMAIL_LOCK_H_
#define DRAVNIK_QMAIL_LOCK_H_

#include "util/fs.h"
#include "util/unique_free.h"

extern const char* const kLockDir;  // "/run/lock/files", never created here

// descriptor > 0: the lock is held; 0: a non-blocking attempt found it held
// by someone else; < 0: the lock file could not be opened or locked.
struct lock_handle {
  int descriptor = -1;
  tavix::unique_free<char> path;  // the lock file
};

// Exclusive lock on `path`, waiting as long as it takes. With
// `use_lock_dir` 0 the lock file is `path` itself. Null only when the
// handle cannot be allocated; any other failure gives a handle that is not
// locked (errno tells why).
lock_handle* mk_lock(const char* path, int use_lock_dir);
// The same without waiting.
lock_handle* mk_nonblock_lock(const char* path, int use_lock_dir);
// The common worker: open(open_flags, 0644) and flock(flock_operation).
lock_handle* mk_lock_(const char* path, int open_flags, int flock_operation,
                      int use_lock_dir);

// Exclusive lock on `path` (in the lock directory), waiting up to `wait_ms`
// milliseconds. Null when it stayed taken (`*held` set) or could not be
// taken at all (`*held` clear, errno tells why). With `operation` LOCK_SH
// the lock is shared instead.
lock_handle* mk_lock_within(const char* path, int wait_ms, bool* held, int operation = 0);

// The lock of the mail setup as a whole (the mail names root as its path).
// Each run that may change the setup holds it shared from its start to its
// end, so runs never wait on each other for it; dravnik-audit --repair takes
// it exclusive, so that what it found is looked at again and acted on while
// no run is half-way through a change. A command changes several stores one
// after the other (users/assign, then the password record; the record, then
// the line), and between two of them an outside reader sees an address that
// is only half there.
//
// hold_setup_lock_shared() takes the shared lock once and keeps it until the
// process ends (later calls do nothing): 0, or -1 with errno set.
int hold_setup_lock_shared();
// The exclusive lock, waiting up to `wait_ms`; see mk_lock_within().
lock_handle* lock_setup_exclusive(int wait_ms, bool* held);

// Opens (creating it empty, mode 0644) the small state file that goes with
// the lock on `path`: the lock file's name with ".state" added, in the lock
// directory, under the same checks as a lock file. Unlike a lock file it
// is never truncated. An invalid descriptor (errno set) on failure.
tavix::UniqueFd open_lock_state_file(const char* path);
// The same file opened for reading alone and never created, for a reader
// that must take no lock and leave nothing behind (ENOENT when no run has
// made it yet).
tavix::UniqueFd open_lock_state_file_for_reading(const char* path);

// 1 when `handle` holds its lock.
int is_locked(const lock_handle* handle);
// 1 when a non-blocking attempt found the lock taken (or there is no
// handle at all).
int is_already_locked(const lock_handle* handle);

// Releases the lock and frees the handle. -1 for a null handle or a failed
// close (reported), else 0.
int rm_lock(lock_handle* handle);
// rm_lock() for a handle whose lock was never obtained.
int free_lock(lock_handle* handle);

// Whether `fd` is the lock directory, which stays open for the next lock.
bool lock_dir_descriptor(int fd);
// Lets go of the locks that keep_until_exit() kept: in a run of many
// commands, "until exit" is until the command ends.
void release_kept_locks();

namespace tavix {

// Owns a lock handle: whatever path leaves the scope releases the lock.
class ScopedLock {
 public:
  explicit ScopedLock(lock_handle* handle) : handle_(handle) {}
  ~ScopedLock() {
    if (handle_)
      rm_lock(handle_);
  }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

  lock_handle* get() const { return handle_; }
  bool locked() const { return is_locked(handle_) != 0; }

  // Releases now, for callers that report a failed release; rm_lock()'s
  // result.
  int release();
  // Frees the handle but leaves the lock file open, so that the lock stays
  // held until the process ends (or release_kept_locks()).
  void keep_until_exit();

 private:
  lock_handle* handle_;
};

}  // namespace tavix

#endif  // DRAVNIK_QMAIL_LOCK_H_
