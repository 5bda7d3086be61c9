#include "util/atomic_file.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tavix {

namespace {

const char kUniqueMark[] = "XXXXXX";
const size_t kUniqueLength = sizeof(kUniqueMark) - 1;
const int kUniqueAttempts = 100;
const int kCreateFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

// Fills the last kUniqueLength characters of `name` as mkstemp() does.
bool randomize_tail(std::string* name) {
  static const char kLetters[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  unsigned char noise[kUniqueLength];
  if (getrandom(noise, sizeof(noise), 0) != static_cast<ssize_t>(sizeof(noise)))
    return false;
  size_t start = name->size() - kUniqueLength;
  for (size_t i = 0; i < kUniqueLength; ++i)
    (*name)[start + i] = kLetters[noise[i] % (sizeof(kLetters) - 1)];
  return true;
}

bool ends_with_mark(const std::string& name) {
  return name.size() >= kUniqueLength &&
         name.compare(name.size() - kUniqueLength, kUniqueLength, kUniqueMark) == 0;
}

// "dir/" of "dir/file", "" of "file".
std::string dir_prefix(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

}  // namespace

std::string name_beside(const std::string& path, const std::string& suffix) {
  std::string dir;
  std::string name;
  split_path(path.c_str(), &dir, &name);
  return name + suffix;
}

AtomicFile::~AtomicFile() { discard(); }

bool AtomicFile::create(const std::string& path, const std::string& temp, Temp kind,
                        mode_t mode) {
  discard();
  temp_dir_.reset();
  temp_path_.clear();
  PathParent parent;
  if (!open_parent_nofollow(path.c_str(), &parent))
    return false;
  dir_ = std::move(parent.dir);
  borrowed_dir_ = -1;
  name_ = std::move(parent.name);
  if (!create_beside(temp, kind, mode))
    return false;
  temp_path_ = dir_prefix(path) + temp_path_;
  return true;
}

bool AtomicFile::create_in(int dir, const std::string& name, const std::string& temp,
                           Temp kind, mode_t mode) {
  discard();
  temp_dir_.reset();
  temp_path_.clear();
  dir_.reset();
  borrowed_dir_ = dir;
  name_ = name;
  return create_beside(temp, kind, mode);
}

bool AtomicFile::create_beside(const std::string& temp, Temp kind, mode_t mode) {
  // A temporary file in a sub-directory (a Maildir's tmp/) is still reached
  // from the target's directory without following links.
  std::string temp_dir = dir_prefix(temp);
  std::string temp_name = temp.substr(temp_dir.size());
  if (!temp_dir.empty()) {
    temp_dir_ = open_dir_nofollow(temp_dir.c_str(), dir_fd());
    if (!temp_dir_)
      return false;
  }
  if (!create_temp(temp_name, kind, mode))
    return false;
  temp_path_ = temp_dir + temp_name_;
  return true;
}

bool AtomicFile::create_temp(const std::string& name, Temp kind, mode_t mode) {
  int dir = temp_dir_fd();
  if (kind == Temp::kUnique && !ends_with_mark(name)) {
    errno = EINVAL;
    return false;
  }
  // unlinkat() removes a link itself, never what it points to.
  if (kind == Temp::kReplace && unlinkat(dir, name.c_str(), 0) != 0 && errno != ENOENT)
    return false;
  std::string candidate = name;
  for (int attempt = 0; attempt < kUniqueAttempts; ++attempt) {
    if (kind == Temp::kUnique && !randomize_tail(&candidate))
      return false;
    fd_.reset(openat(dir, candidate.c_str(), kCreateFlags, mode));
    if (fd_) {
      temp_name_ = candidate;
      pending_ = true;
      return true;
    }
    if (kind != Temp::kUnique || errno != EEXIST)
      return false;
  }
  return false;  // errno is still EEXIST
}

FILE* AtomicFile::stream() {
  if (stream_)
    return stream_.get();
  if (!fd_) {
    errno = EBADF;
    return nullptr;
  }
  UniqueFd copy(fcntl(fd_.get(), F_DUPFD_CLOEXEC, 0));
  if (!copy)
    return nullptr;
  stream_.reset(fdopen(copy.get(), "w"));
  if (stream_)
    copy.release();
  return stream_.get();
}

bool AtomicFile::write(std::string_view data) {
  while (!data.empty()) {
    ssize_t written = ::write(fd_.get(), data.data(), data.size());
    if (written < 0) {
      if (errno == EINTR || errno == EAGAIN)
        continue;
      return false;
    }
    data.remove_prefix(written);
  }
  return true;
}

bool AtomicFile::set_owner(uid_t uid, gid_t gid) { return fchown(fd_.get(), uid, gid) == 0; }

bool AtomicFile::set_mode(mode_t mode) { return fchmod(fd_.get(), mode) == 0; }

bool AtomicFile::sync() {
  if (synced_)
    return true;
  if (stream_) {
    FILE* stream = stream_.release();
    bool flushed = fflush(stream) == 0;
    if (flushed && ferror(stream)) {  // an earlier write the caller let pass
      flushed = false;
      errno = EIO;
    }
    int saved = errno;
    if (fclose(stream) != 0 && flushed)
      return false;
    if (!flushed) {
      errno = saved;
      return false;
    }
  }
  if (fsync(fd_.get()) != 0 || fd_.close() != 0)
    return false;
  synced_ = true;
  return true;
}

bool AtomicFile::commit() {
  if (!pending_) {
    errno = EBADF;
    return false;
  }
  if (!sync())
    return false;
  if (renameat(temp_dir_fd(), temp_name_.c_str(), dir_fd(), name_.c_str()) != 0)
    return false;
  pending_ = false;
  // The new name is only safe from a power loss once the directory is.
  return fsync(dir_fd()) == 0;
}

void AtomicFile::abandon() {
  if (stream_)
    fclose(stream_.release());
  fd_.reset();
  pending_ = false;
}

void AtomicFile::discard() {
  int saved = errno;
  stream_.reset();
  fd_.reset();
  if (pending_)
    unlinkat(temp_dir_fd(), temp_name_.c_str(), 0);
  pending_ = false;
  synced_ = false;
  errno = saved;
}

}  // namespace tavix
