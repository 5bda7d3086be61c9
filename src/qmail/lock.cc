#include "qmail/lock.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <new>
#include <string>
#include <vector>

#include "qmail/paths.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/strings.h"

const char* const kLockDir = "/run/lock/files";

namespace {

// The lock file for `path`: kLockDir/<md5 of the path in lower-case hex>.
// Null when the digest or the name cannot be made.
char* lock_file_for(const char* path) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_length = 0;
  if (EVP_Digest(path, strlen(path), digest, &digest_length, EVP_md5(),
                 nullptr) != 1)
    return nullptr;
  std::string hex = tavix::hex_string(digest, digest_length);
  char* name = nullptr;
  if (asprintf(&name, "%s/%s", kLockDir, hex.c_str()) < 0)
    return nullptr;
  return name;
}

char* copy_of(const char* path) {
  char* name = nullptr;
  if (asprintf(&name, "%s", path) < 0)
    return nullptr;
  return name;
}

// flock() that is not cut short by a signal delivered while waiting.
int flock_retrying(int fd, int operation) {
  int result;
  do {
    result = flock(fd, operation);
  } while (result != 0 && errno == EINTR);
  return result;
}

// Opens the directory a lock file lives in. Whoever can write there could
// put a link where a lock file goes and have the run create or truncate a
// file of their choosing, so the directory must be root's alone and no link
// itself.
tavix::UniqueFd open_lock_dir(const std::string& dir) {
  tavix::UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st;
  if (!fd) {
    if (errno == ENOTDIR && lstat(dir.c_str(), &st) == 0 && S_ISLNK(st.st_mode))
      errno = ELOOP;
    return fd;
  }
  if (!tavix::is_trusted_dir(fd.get())) {
    errno = 0;
    messlog2(0, 0, "Lock directory %s must belong to root and be writable by nobody else",
             dir.c_str());
    errno = EPERM;
    return tavix::UniqueFd();
  }
  return fd;
}

// The lock directory stays open for the next lock: a run takes several, a
// batch thousands. It is used again only while its path still names that
// very directory, still root's alone.
struct LockDir {
  std::string path;
  tavix::UniqueFd fd;
  struct stat st;
};

bool still_same(const LockDir& cached, const std::string& dir) {
  struct stat st;
  return cached.fd && cached.path == dir && lstat(dir.c_str(), &st) == 0 &&
         st.st_dev == cached.st.st_dev && st.st_ino == cached.st.st_ino &&
         st.st_uid == cached.st.st_uid && st.st_mode == cached.st.st_mode;
}

// The descriptors of the locks keep_until_exit() kept.
std::vector<int>& kept_locks() {
  static std::vector<int> descriptors;
  return descriptors;
}

LockDir& cached_lock_dir() {
  static LockDir cached;
  return cached;
}

int lock_dir_fd(const std::string& dir) {
  LockDir& cached = cached_lock_dir();
  if (still_same(cached, dir))
    return cached.fd.get();
  cached.fd = open_lock_dir(dir);
  cached.path = dir;
  if (!cached.fd || fstat(cached.fd.get(), &cached.st) != 0) {
    cached.fd.reset();
    return -1;
  }
  return cached.fd.get();
}

// Opens the lock file `path` with `open_flags`, never through a link.
int open_lock_file(const char* path, int open_flags) {
  std::string dir;
  std::string name;
  tavix::split_path(path, &dir, &name);
  int dir_fd = lock_dir_fd(dir);
  if (dir_fd < 0)
    return -1;
  return openat(dir_fd, name.c_str(), open_flags | O_NOFOLLOW | O_CLOEXEC, 0644);
}

}  // namespace

namespace {

tavix::UniqueFd open_state_file(const char* path, int open_flags) {
  tavix::unique_free<char> lock_file(lock_file_for(path));
  if (!lock_file) {
    errno = ENOMEM;
    return tavix::UniqueFd();
  }
  std::string name = std::string(lock_file.get()) + ".state";
  return tavix::UniqueFd(open_lock_file(name.c_str(), open_flags));
}

}  // namespace

tavix::UniqueFd open_lock_state_file(const char* path) {
  return open_state_file(path, O_RDWR | O_CREAT);
}

tavix::UniqueFd open_lock_state_file_for_reading(const char* path) {
  return open_state_file(path, O_RDONLY);
}

void release_kept_locks() {
  for (int fd : kept_locks())
    (void)close(fd);  // a lock file: nothing written that the close could lose
  kept_locks().clear();
}

bool lock_dir_descriptor(int fd) { return fd >= 0 && cached_lock_dir().fd.get() == fd; }

lock_handle* mk_lock_(const char* path, int open_flags, int flock_operation,
                      int use_lock_dir) {
  lock_handle* handle = new (std::nothrow) lock_handle;
  if (!handle)
    return nullptr;
  handle->path.reset(use_lock_dir ? lock_file_for(path) : copy_of(path));
  if (!handle->path) {
    errno = ENOMEM;
    return handle;
  }

  // Close-on-exec: a child that outlived us must not keep the lock held.
  int fd = open_lock_file(handle->path.get(), open_flags);
  if (fd < 0) {
    int saved = errno;
    messlog2(0, 0, "Unable to open file \"%s\": %s.", handle->path.get(),
             strerror(saved));
    errno = saved;
    return handle;
  }
  if (flock_retrying(fd, flock_operation) != 0) {
    int saved = errno;
    close(fd);
    // Someone else holds it and we were asked not to wait.
    handle->descriptor = saved == EWOULDBLOCK ? 0 : -1;
    errno = saved;
    return handle;
  }
  handle->descriptor = fd;
  return handle;
}

lock_handle* mk_lock(const char* path, int use_lock_dir) {
  return mk_lock_(path, O_RDWR | O_CREAT | O_TRUNC, LOCK_EX, use_lock_dir);
}

lock_handle* mk_nonblock_lock(const char* path, int use_lock_dir) {
  return mk_lock_(path, O_RDWR | O_CREAT | O_TRUNC, LOCK_EX | LOCK_NB,
                  use_lock_dir);
}

lock_handle* mk_lock_within(const char* path, int wait_ms, bool* held, int operation) {
  if (operation == 0)
    operation = LOCK_EX;
  for (int waited = 0;; waited += 20) {
    lock_handle* handle = mk_lock_(path, O_RDWR | O_CREAT | O_TRUNC, operation | LOCK_NB, 1);
    if (is_locked(handle))
      return handle;
    *held = handle && is_already_locked(handle);
    int saved = errno;
    if (handle)
      free_lock(handle);
    errno = saved;
    if (!*held || waited >= wait_ms)
      return nullptr;
    struct timespec pause = {0, 20 * 1000 * 1000};
    nanosleep(&pause, nullptr);
  }
}

int hold_setup_lock_shared() {
  static tavix::UniqueFd held;
  if (held)
    return 0;
  lock_handle* handle =
      mk_lock_(tavix::qmail::mailnames_root().c_str(), O_RDWR | O_CREAT | O_TRUNC, LOCK_SH, 1);
  if (!is_locked(handle)) {
    int saved = errno;
    free_lock(handle);
    errno = saved;
    return -1;
  }
  held.reset(handle->descriptor);
  handle->descriptor = -1;  // now owned by `held`
  rm_lock(handle);
  return 0;
}

lock_handle* lock_setup_exclusive(int wait_ms, bool* held) {
  return mk_lock_within(tavix::qmail::mailnames_root().c_str(), wait_ms, held, LOCK_EX);
}

int is_locked(const lock_handle* handle) {
  return handle != nullptr && handle->descriptor > 0;
}

int is_already_locked(const lock_handle* handle) {
  return handle == nullptr || handle->descriptor == 0;
}

int rm_lock(lock_handle* handle) {
  if (!handle)
    return -1;
  int result = 0;
  if (handle->descriptor > 0 && close(handle->descriptor) != 0) {
    int saved = errno;  // callers report the same cause in their own words
    messlog2(0, 0, "An error occured during closing '%s' file: %s\n",
             handle->path ? handle->path.get() : "", strerror(saved));
    errno = saved;
    result = -1;
  }
  delete handle;
  return result;
}

int free_lock(lock_handle* handle) { return rm_lock(handle); }

namespace tavix {

int ScopedLock::release() {
  lock_handle* handle = handle_;
  handle_ = nullptr;
  return rm_lock(handle);
}

void ScopedLock::keep_until_exit() {
  if (!handle_)
    return;
  if (handle_->descriptor >= 0)
    kept_locks().push_back(handle_->descriptor);
  handle_->descriptor = -1;  // rm_lock() now only frees; the lock stays
  release();
}

}  // namespace tavix
