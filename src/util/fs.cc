#include "util/fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "util/account.h"
#include "util/log.h"
#include "util/unique_free.h"

void use_program_umask() {
  // Group and others never get write access from a mode this program asks
  // for; anything narrower is set explicitly where it matters.
  umask(022);
}

namespace tavix {

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) {
    int saved = errno;
    ::close(fd_);
    errno = saved;
  }
  fd_ = fd;
}

int UniqueFd::close() {
  if (fd_ < 0)
    return 0;
  int fd = release();
  return ::close(fd);
}

void split_path(const char* path, std::string* dir, std::string* name) {
  std::string text(path);
  while (text.size() > 1 && text.back() == '/')
    text.pop_back();
  size_t slash = text.rfind('/');
  if (slash == std::string::npos) {
    *dir = ".";
    *name = text;
  } else {
    *dir = slash == 0 ? "/" : text.substr(0, slash);
    *name = text.substr(slash + 1);
  }
}

bool is_trusted_dir(int dir_fd) {
  struct stat st;
  if (fstat(dir_fd, &st) != 0)
    return false;
  return (st.st_uid == 0 || st.st_uid == geteuid()) &&
         (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

UniqueFd openat_nofollow(int dir_fd, const char* name, int flags, mode_t mode) {
  UniqueFd fd(openat(dir_fd, name, flags | O_NOFOLLOW | O_CLOEXEC, mode));
  // O_NOFOLLOW answers ELOOP for a link, or ENOTDIR together with
  // O_DIRECTORY; only a link is worth a second look.
  if (fd || (errno != ELOOP && errno != ENOTDIR))
    return fd;
  int saved = errno;
  struct stat st;
  if (fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(st.st_mode)) {
    errno = saved;
    return fd;
  }
  if (!is_trusted_dir(dir_fd)) {
    errno = ELOOP;
    return fd;
  }
  return UniqueFd(openat(dir_fd, name, flags | O_CLOEXEC, mode));
}

namespace {

const int kDirFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// The whole path in one call, refusing a symbolic link in any component.
// Nearly every path holds none, and then this is what the walk below would
// open, at a fraction of its system calls.
UniqueFd open_dir_without_links(const char* path, int at) {
  struct open_how how = {};
  how.flags = kDirFlags;
  how.resolve = RESOLVE_NO_SYMLINKS;
  return UniqueFd(static_cast<int>(syscall(SYS_openat2, at, path, &how, sizeof how)));
}

}  // namespace

UniqueFd open_dir_nofollow(const char* path, int at) {
  if (*path == '\0') {
    errno = ENOENT;
    return UniqueFd();
  }
  UniqueFd fast = open_dir_without_links(path, at);
  // A missing or non-directory component is met before any link behind
  // it, so the walk would fail the same way. Anything else (a link, which
  // the walk may follow in a trusted directory, or a kernel or filter
  // without openat2) is left to the walk.
  if (fast || errno == ENOENT || errno == ENOTDIR)
    return fast;
  UniqueFd dir(openat(at, *path == '/' ? "/" : ".", kDirFlags));
  std::string component;
  for (const char* p = path; dir && *p;) {
    const char* end = strchrnul(p, '/');
    component.assign(p, end - p);
    p = *end ? end + 1 : end;
    if (component.empty() || component == ".")
      continue;
    dir = openat_nofollow(dir.get(), component.c_str(), kDirFlags);
  }
  return dir;
}

bool open_parent_nofollow(const char* path, PathParent* parent, int at) {
  std::string dir;
  split_path(path, &dir, &parent->name);
  if (parent->name.empty() || parent->name == "." || parent->name == "..") {
    errno = EINVAL;  // no entry of a directory to work on
    return false;
  }
  parent->dir = open_dir_nofollow(dir.c_str(), at);
  return static_cast<bool>(parent->dir);
}

UniqueFd open_nofollow(const char* path, int flags, mode_t mode) {
  PathParent parent;
  if (!open_parent_nofollow(path, &parent))
    return UniqueFd();
  return openat_nofollow(parent.dir.get(), parent.name.c_str(), flags, mode);
}

int mkdir_nofollow(const char* path, mode_t mode) {
  PathParent parent;
  if (!open_parent_nofollow(path, &parent))
    return -1;
  return mkdirat(parent.dir.get(), parent.name.c_str(), mode);
}

int unlink_nofollow(const char* path) {
  PathParent parent;
  if (!open_parent_nofollow(path, &parent))
    return -1;
  return unlinkat(parent.dir.get(), parent.name.c_str(), 0);
}

namespace {

// A descriptor to change the owner or mode through. Non-blocking, so that a
// FIFO put in the way does not hang the run.
UniqueFd open_for_attributes(const char* path) {
  return open_nofollow(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
}

}  // namespace

int chown_nofollow(const char* path, uid_t uid, gid_t gid) {
  UniqueFd fd(open_for_attributes(path));
  return fd ? fchown(fd.get(), uid, gid) : -1;
}

int chmod_nofollow(const char* path, mode_t mode) {
  UniqueFd fd(open_for_attributes(path));
  return fd ? fchmod(fd.get(), mode) : -1;
}

const struct dirent64* DirReader::next() {
  if (at_ == end_) {
    ssize_t got = getdents64(fd_.get(), buffer_, sizeof buffer_);
    if (got <= 0) {
      if (got == 0)
        errno = 0;
      return nullptr;
    }
    at_ = 0;
    end_ = static_cast<size_t>(got);
  }
  auto entry = reinterpret_cast<const struct dirent64*>(buffer_ + at_);
  at_ += entry->d_reclen;
  return entry;
}

int make_owned_dir(int dir_fd, const char* name, mode_t mode, uid_t uid, gid_t gid,
                   UniqueFd* opened, bool* chown_failed, bool* made_now) {
  *chown_failed = false;
  bool made = mkdirat(dir_fd, name, mode) == 0;
  if (!made && errno != EEXIST)
    return -1;
  if (made_now)
    *made_now = made;
  *chown_failed = true;
  if (made && !opened) {
    // Ours a moment ago; should the mail user have swapped it for a link
    // since, the link itself changes owner, never what it points to.
    if (fchownat(dir_fd, name, uid, gid, AT_SYMLINK_NOFOLLOW) != 0)
      return -1;
    *chown_failed = false;
    return 0;
  }
  UniqueFd fd(openat_nofollow(dir_fd, name, O_RDONLY | O_NONBLOCK | O_NOCTTY));
  if (!fd || fchown(fd.get(), uid, gid) != 0)
    return -1;
  *chown_failed = false;
  if (opened)
    *opened = std::move(fd);
  return 0;
}

}  // namespace tavix

namespace {

using tavix::UniqueFd;
using tavix::UniqueFile;
using tavix::unique_free;

bool is_directory(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

std::string join_path(const std::string& dir, const char* name) {
  if (!dir.empty() && dir.back() == '/')
    return dir + name;
  return dir + "/" + name;
}

// Restores the process umask when it leaves scope.
class UmaskGuard {
 public:
  explicit UmaskGuard(mode_t mask) : saved_(umask(mask)) {}
  ~UmaskGuard() { umask(saved_); }
  UmaskGuard(const UmaskGuard&) = delete;
  UmaskGuard& operator=(const UmaskGuard&) = delete;

 private:
  mode_t saved_;
};

// An open directory whose close is checked by the caller; the destructor
// only covers paths that leave early. Its reader lives on the heap: the
// walks below go as deep as the mail user's directories do.
class DirStream {
 public:
  explicit DirStream(UniqueFd fd)
      : reader_(fd ? std::make_unique<tavix::DirReader>(std::move(fd)) : nullptr) {}

  bool is_open() const { return reader_ != nullptr; }
  int fd() const { return reader_->fd(); }
  const struct dirent64* next() { return reader_->next(); }
  int close() {
    int result = reader_->close();
    reader_.reset();
    return result;
  }

 private:
  std::unique_ptr<tavix::DirReader> reader_;
};

// Opens the directory `name` under `parent_fd`, refusing to follow a
// symbolic link. Empty with errno set on failure.
UniqueFd open_dir_at(int parent_fd, const char* name) {
  return UniqueFd(openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool is_dot_or_dotdot(const char* name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Calls `visit(dir_fd, name)` for every entry of `dir` but "." and "..".
// Returns false when reading the directory failed (errno set) or when
// `visit` returned false.
template <typename Visit>
bool for_each_entry(DirStream& dir, Visit visit) {
  for (;;) {
    errno = 0;
    const struct dirent64* entry = dir.next();
    if (!entry)
      return errno == 0;
    if (is_dot_or_dotdot(entry->d_name))
      continue;
    if (!visit(dir.fd(), entry->d_name))
      return false;
  }
}

// The removal works on descriptors relative to the directory being walked,
// so the current directory never changes and a directory swapped for a
// symbolic link under our feet is refused (O_NOFOLLOW) instead of followed.
void remove_dir_at(int parent_fd, const char* name, const std::string& path,
                   bool remove_top) {
  DirStream dir(open_dir_at(parent_fd, name));
  if (!dir.is_open()) {
    if (errno != ENOENT)
      messlog2(1, 1, "Unable to open dir %s: %s\n", path.c_str(),
               strerror(errno));
    return;
  }
  bool read_ok = for_each_entry(dir, [&](int dir_fd, const char* entry) {
    std::string entry_path = join_path(path, entry);
    struct stat st;
    if (fstatat(dir_fd, entry, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT)  // an entry that vanished meanwhile is done
        messlog2(1, 1, "Unable to check directory entry %s: %s\n",
                 entry_path.c_str(), strerror(errno));
      return true;
    }
    if (S_ISDIR(st.st_mode)) {
      remove_dir_at(dir_fd, entry, entry_path, true);
    } else if (unlinkat(dir_fd, entry, 0) != 0 && errno != ENOENT) {
      messlog2(1, 1, "Unable to unlink directory entry %s: %s\n",
               entry_path.c_str(), strerror(errno));
    }
    return true;
  });
  if (!read_ok)
    messlog2(1, 1, "Unable to check directory entry %s: %s\n", path.c_str(),
             strerror(errno));
  if (dir.close() != 0)
    messlog2(1, 1, "Unable to close dir %s: %s\n", path.c_str(),
             strerror(errno));
  if (remove_top && unlinkat(parent_fd, name, AT_REMOVEDIR) != 0 &&
      errno != ENOENT)
    messlog2(1, 1, "Unable to remove dir %s: %s\n", path.c_str(),
             strerror(errno));
}

long long size_of(const struct stat& st, bool in_blocks) {
  return in_blocks ? static_cast<long long>(st.st_blocks) * 512
                   : static_cast<long long>(st.st_size);
}

// Adds the sizes of everything inside the directory `name` under
// `parent_fd` to `*total`. Entries that vanish meanwhile (mail being
// delivered or moved) are skipped.
bool add_dir_size_at(int parent_fd, const char* name, const std::string& path,
                     bool in_blocks, long long* total) {
  DirStream dir(open_dir_at(parent_fd, name));
  if (!dir.is_open()) {
    if (errno == ENOENT)
      return true;
    tavix_log(3, "Unable to open dir %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  bool entry_failed = false;
  bool ok = for_each_entry(dir, [&](int dir_fd, const char* entry) {
    std::string entry_path = join_path(path, entry);
    struct stat st;
    if (fstatat(dir_fd, entry, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT)
        return true;
      tavix_log(3, "Unable to check directory entry %s: %s",
                entry_path.c_str(), strerror(errno));
      entry_failed = true;
      return false;
    }
    *total += size_of(st, in_blocks);
    if (S_ISDIR(st.st_mode) &&
        !add_dir_size_at(dir_fd, entry, entry_path, in_blocks, total)) {
      entry_failed = true;
      return false;
    }
    return true;
  });
  if (!ok && !entry_failed)
    tavix_log(3, "Unable to read dir %s: %s", path.c_str(), strerror(errno));
  if (dir.close() != 0) {
    tavix_log(3, "Unable to close dir %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  return ok;
}

// Creates `path` after its missing parents; see make_dir_p().
void make_dir_chain(const std::string& path, uid_t uid, gid_t gid,
                    mode_t mode) {
  int rc = mkdir(path.c_str(), mode);
  if (rc != 0 && errno == ENOENT) {
    size_t end = path.find_last_not_of('/');
    size_t slash = end == std::string::npos
                       ? std::string::npos
                       : path.find_last_of('/', end);
    if (slash != std::string::npos && slash > 0) {
      make_dir_chain(path.substr(0, slash), uid, gid, mode);
      rc = mkdir(path.c_str(), mode);
    }
  }
  if (rc == 0) {
    if (tavix::chown_nofollow(path.c_str(), uid, gid) != 0)
      messlog2(0, 0, "Cannot chown %s: %s", path.c_str(), strerror(errno));
    return;
  }
  if (errno == EEXIST) {
    if (is_directory(path.c_str()))
      return;
    errno = ENOTDIR;
  }
  messlog2(1, 1, "Cannot create directory %s: %s", path.c_str(),
           strerror(errno));
}

}  // namespace

int createNestedDirectory(const char* path) {
  size_t length = strlen(path);
  if (length == 0) {
    errno = ENOENT;
    return 0;
  }
  std::string component;
  for (size_t i = 1; i <= length; ++i) {
    if (i < length && path[i] != '/')
      continue;
    if (path[i - 1] == '/')
      continue;  // "//" or a trailing "/"
    component.assign(path, i);
    if (mkdir(component.c_str(), 0755) == 0)
      continue;
    int mkdir_error = errno;
    struct stat st;
    // An existing component may also answer EACCES or EROFS; only a
    // component that is really missing keeps mkdir's reason.
    if (stat(component.c_str(), &st) != 0) {
      errno = mkdir_error;
      return 0;
    }
    if (!S_ISDIR(st.st_mode)) {
      errno = ENOTDIR;
      return 0;
    }
  }
  return 1;
}

int make_dir_p(const char* path, uid_t uid, gid_t gid, mode_t mode) {
  UmaskGuard no_umask(0);
  make_dir_chain(path, uid, gid, mode & 07777);
  return 0;
}

int rename_dir(const char* old_path, const char* new_path) {
  struct stat st;
  if (lstat(old_path, &st) != 0 && errno == ENOENT)
    return 0;
  if (lstat(new_path, &st) == 0) {
    errno = 0;  // the refusal is ours, not a system error
    messlog2(0, 0,
             "Directory rename error: target directory %s already exists.\n",
             new_path);
    return -1;
  }
  if (rename(old_path, new_path) != 0) {
    messlog2(0, 0, "Remaming %s to %s failed: %s\n", old_path, new_path,
             strerror(errno));
    return -1;
  }
  return 0;
}

int rm_tree(const char* path, int remove_top) {
  // Even the way to the top is walked without following planted links.
  tavix::PathParent parent;
  struct stat st;
  if (!tavix::open_parent_nofollow(path, &parent) ||
      fstatat(parent.dir.get(), parent.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT)
      messlog2(1, 1, "Unable to check directory entry %s: %s\n", path,
               strerror(errno));
    return 0;
  }
  if (!S_ISDIR(st.st_mode)) {
    if (unlinkat(parent.dir.get(), parent.name.c_str(), 0) != 0 && errno != ENOENT)
      messlog2(1, 1, "Unable to unlink entry %s: %s\n", path,
               strerror(errno));
    return 0;
  }
  remove_dir_at(parent.dir.get(), parent.name.c_str(), path, remove_top != 0);
  return 0;
}

namespace tavix {

int remove_stale_temps(const char* path, const char* infix) {
  PathParent parent;
  if (!open_parent_nofollow(path, &parent))
    return -1;
  const std::string prefix = parent.name + infix;
  const size_t length = prefix.size() + 6;  // "XXXXXX" filled in
  DirReader dir(std::move(parent.dir));
  int removed = 0;
  for (;;) {
    errno = 0;
    const struct dirent64* entry = dir.next();
    if (!entry)
      break;
    if (strlen(entry->d_name) != length ||
        strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0)
      continue;
    if (unlinkat(dir.fd(), entry->d_name, 0) == 0)
      ++removed;
    else if (errno != ENOENT)
      return -1;
  }
  return errno == 0 ? removed : -1;
}

void tidy_stale_temps(const char* path, const char* infix) {
  int stale = remove_stale_temps(path, infix);
  if (stale > 0)
    tavix_log(6, "Removed %d temporary files left beside %s by interrupted runs", stale, path);
  else if (stale < 0 && errno != ENOENT)  // no directory, nothing left in it
    tavix_log(4, "Unable to remove the temporary files left beside %s: %s", path,
              strerror(errno));
}

}  // namespace tavix

long long get_dir_size(const char* path, int in_blocks) {
  return get_dir_size_at(AT_FDCWD, path, in_blocks);
}

long long get_dir_size_at(int at, const char* path, int in_blocks) {
  struct stat st;
  if (fstatat(at, path, &st, AT_SYMLINK_NOFOLLOW) != 0) {
    tavix_log(3, "Unable to check directory entry %s: %s", path,
              strerror(errno));
    return -1;
  }
  long long total = size_of(st, in_blocks != 0);
  if (S_ISDIR(st.st_mode) &&
      !add_dir_size_at(at, path, path, in_blocks != 0, &total))
    return -1;
  return total;
}

int create_file(const char* path) {
  UniqueFd fd(tavix::open_nofollow(path, O_WRONLY | O_CREAT, 0644));
  if (!fd || fd.close() != 0) {
    messlog2(0, 0, "Unable to create file %s: %s", path, strerror(errno));
    return -1;
  }
  return 0;
}

namespace {

int set_perms_fd(int fd, const char* path, uid_t uid, gid_t gid, mode_t mode) {
  if (fchown(fd, uid, gid) != 0) {
    messlog2(0, 0, "ERROR: unable to chown %s: %s\n", path, strerror(errno));
    return -1;
  }
  if (fchmod(fd, mode) != 0) {
    messlog2(0, 0, "ERROR: unable to chmod %s: %s\n", path, strerror(errno));
    return -1;
  }
  return 0;
}

}  // namespace

int file_set_perms(const char* path, uid_t uid, gid_t gid, mode_t mode) {
  // Nothing to change needs no descriptor (a mailbox's .qmail is given to
  // its owner by every delivery edit). A look cannot change anything, so
  // it may follow a link in the path; a link at the name itself is left to
  // the refusal below.
  struct stat now;
  if (lstat(path, &now) == 0 && !S_ISLNK(now.st_mode) && now.st_uid == uid &&
      now.st_gid == gid && (now.st_mode & 07777) == mode)
    return 0;
  errno = 0;
  // One descriptor for both changes: the file chowned is the file chmodded.
  UniqueFd fd(tavix::open_for_attributes(path));
  if (!fd && (errno == ENOENT || errno == ENOTDIR))
    return 0;
  if (!fd) {
    messlog2(0, 0, "ERROR: unable to chown %s: %s\n", path, strerror(errno));
    return -1;
  }
  return set_perms_fd(fd.get(), path, uid, gid, mode);
}

namespace {

bool find_user(const char* user, uid_t* uid, gid_t* gid) {
  if (tavix_account_ids(user, uid, gid))
    return true;
  messlog2(0, 0, "user %s not found", user);
  return false;
}

}  // namespace

int file_set_user_mode(const char* path, const char* user, mode_t mode) {
  uid_t uid;
  gid_t gid;
  return find_user(user, &uid, &gid) ? file_set_perms(path, uid, gid, mode) : -1;
}

int fd_set_user_mode(int fd, const char* path, const char* user, mode_t mode) {
  uid_t uid;
  gid_t gid;
  return find_user(user, &uid, &gid) ? set_perms_fd(fd, path, uid, gid, mode) : -1;
}

char* get_stream_contents(FILE* stream, size_t* length) {
  size_t capacity = 1024;
  size_t used = 0;
  unique_free<char> buffer(static_cast<char*>(malloc(capacity)));
  if (!buffer)
    return nullptr;
  for (;;) {
    size_t room = capacity - used - 1;  // one byte stays for the NUL
    size_t got = fread(buffer.get() + used, 1, room, stream);
    used += got;
    if (got < room) {
      if (ferror(stream))
        return nullptr;
      break;
    }
    char* grown = static_cast<char*>(realloc(buffer.get(), capacity * 2));
    if (!grown)
      return nullptr;
    (void)buffer.release();
    buffer.reset(grown);
    capacity *= 2;
  }
  buffer.get()[used] = '\0';
  if (length)
    *length = used;
  return buffer.release();
}

char* get_stream_contents_cstr(FILE* stream) {
  return get_stream_contents(stream, nullptr);
}

char* get_file_contents(const char* path, size_t* length) {
  UniqueFile file(fopen(path, "re"));
  if (!file)
    return nullptr;
  return get_stream_contents(file.get(), length);
}

namespace tavix {

bool read_to_end(int fd, std::string* text) {
  // A file's size is known: room for all of it at once (users/assign and a
  // batch's input run to megabytes).
  struct stat info;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0)
    text->reserve(text->size() + static_cast<size_t>(info.st_size));
  char buffer[65536];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return false;
    if (n == 0)
      return true;
    text->append(buffer, static_cast<size_t>(n));
  }
}

ssize_t read_at(int fd, void* buffer, size_t size, off_t offset) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = pread(fd, static_cast<char*>(buffer) + done, size - done,
                      offset + static_cast<off_t>(done));
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return -1;
    if (n == 0)
      break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

bool write_all(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace tavix
