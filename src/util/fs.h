// Directory trees, owners and modes, whole-file reading, and the owners of
// descriptors and streams that the rest of the program uses so that no exit
// path can forget a close.
#ifndef DRAVNIK_UTIL_FS_H_
#define DRAVNIK_UTIL_FS_H_

#include <fcntl.h>
#include <sys/types.h>

#include <dirent.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>

// Sets the umask every program of the package runs under, whatever its
// caller's: the modes it asks for are the ones the files and directories
// get (0700 mailboxes, 0644 control files, ...), neither narrowed by an
// operator's umask 077 nor widened by a 0. Called at the start of main().
void use_program_umask();

// Creates every missing component of `path` with mode 0755. A component that
// exists but is not a directory fails with errno ENOTDIR. Returns 1 on
// success, 0 on failure (errno tells why).
int createNestedDirectory(const char* path);

// Creates `path` and its missing parents with `mode` (umask ignored) and
// gives each directory it created to uid:gid; existing directories are left
// alone. A failing mkdir ends the process; a failing chown is only reported.
// Returns 0.
int make_dir_p(const char* path, uid_t uid, gid_t gid, mode_t mode);

// Renames a directory. A missing `old_path` is success; an existing
// `new_path` is refused. Returns 0 or -1 (reported).
int rename_dir(const char* old_path, const char* new_path);

// Removes a file, a symbolic link or a whole directory tree without ever
// following a symbolic link. With `remove_top` 0 a directory is emptied but
// kept. A missing path is success. Any failure ends the process, since the
// mail tree can no longer be trusted. Returns 0.
int rm_tree(const char* path, int remove_top);

// Size of a file or a whole tree, symbolic links not followed: the sum of
// the sizes in bytes or, with `in_blocks`, of the allocated 512-byte blocks
// times 512. -1 on failure (logged).
long long get_dir_size(const char* path, int in_blocks);
// The same for `path` relative to the directory `at`.
long long get_dir_size_at(int at, const char* path, int in_blocks);

// Creates `path` with mode 0644 if missing, without truncating it.
// Returns 0 or -1 (reported).
int create_file(const char* path);

// Sets owner and mode of `path` (a symbolic link planted there is refused,
// see open_nofollow()). A missing path is left alone and counts as success.
// Returns 0 or -1 (reported).
int file_set_perms(const char* path, uid_t uid, gid_t gid, mode_t mode);

// file_set_perms() with the uid and gid of the account `user`.
int file_set_user_mode(const char* path, const char* user, mode_t mode);
// The same for the open file `fd`, which `path` names in messages.
int fd_set_user_mode(int fd, const char* path, const char* user, mode_t mode);

// Reads `stream` to its end into a NUL-terminated heap buffer (free() it);
// the length without the NUL goes to `*length` when asked for. Null on
// allocation or read failure (errno tells why).
char* get_stream_contents(FILE* stream, size_t* length);
char* get_stream_contents_cstr(FILE* stream);
// The same for a file; null also when it cannot be opened.
char* get_file_contents(const char* path, size_t* length);

namespace tavix {

// Appends what is left to read on `fd` to `*text`; false on a read error
// (errno tells why).
bool read_to_end(int fd, std::string* text);
// Writes all of `text` to `fd`; false on a write error (errno tells why).
bool write_all(int fd, const std::string& text);
// Reads up to `size` bytes at `offset` into `buffer`, stopping early only
// at the end of the file: the count read, or -1 on a read error (errno).
ssize_t read_at(int fd, void* buffer, size_t size, off_t offset);

// Owns a file descriptor; -1 means none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closes the descriptor held (errors of that close are lost; use close()
  // where they matter) and takes `fd`.
  void reset(int fd = -1);
  // Closes the descriptor and reports the result of close(2); 0 when none.
  int close();

 private:
  int fd_ = -1;
};

// --- Paths that the mail user can change -------------------------------------
//
// The mail tree belongs to the mail user, who may replace any directory or
// file in it with a symbolic link at any time, for instance to /etc. The
// helpers below never follow such a link: a path is walked one component at
// a time through directory descriptors, and a symbolic link is followed only
// where it lies in a directory that nobody but root (or this process's own
// user) can write, since then it was put there by root. A refused link fails
// with ELOOP. Each returns what its system call would: a descriptor or 0, and
// -1 (or no descriptor) with errno set.

// Splits `path` into its directory and its last component; trailing slashes
// do not count. "file" lies in ".", "/file" in "/".
void split_path(const char* path, std::string* dir, std::string* name);

// True when nobody but root or this process's user can change `dir_fd`.
bool is_trusted_dir(int dir_fd);

// openat(dir_fd, name, flags, mode) for the single component `name`,
// following a link there only when `dir_fd` is trusted.
UniqueFd openat_nofollow(int dir_fd, const char* name, int flags, mode_t mode = 0);

// Opens the directory `path`, relative to `at` unless absolute.
UniqueFd open_dir_nofollow(const char* path, int at = AT_FDCWD);

// The directory holding the last component of a path, and that component.
struct PathParent {
  UniqueFd dir;
  std::string name;
};
// Opens the directory that holds `path`; false with errno set on failure.
bool open_parent_nofollow(const char* path, PathParent* parent, int at = AT_FDCWD);

// open(path, flags, mode) with every component checked as above.
UniqueFd open_nofollow(const char* path, int flags, mode_t mode = 0);

int mkdir_nofollow(const char* path, mode_t mode);
// Removes the entry itself (a link, never its target).
int unlink_nofollow(const char* path);
int chown_nofollow(const char* path, uid_t uid, gid_t gid);
int chmod_nofollow(const char* path, mode_t mode);

// Makes the directory `name` in `dir_fd` with `mode` (one already there
// will do) and gives it to uid:gid, as mkdir_nofollow() and
// chown_nofollow() would; with `opened`, the directory is opened, so that
// its own entries can be made through it. 0, or -1 with errno set and
// `*chown_failed` telling which of the two steps failed. With `made`,
// `*made` tells whether this call made the directory.
int make_owned_dir(int dir_fd, const char* name, mode_t mode, uid_t uid, gid_t gid,
                   UniqueFd* opened, bool* chown_failed, bool* made = nullptr);

// Removes the entries beside `path` named "<name of path><infix>" and six
// more characters, what mkstemp() makes of a "<path><infix>XXXXXX"
// template: the temporary files of runs killed before their rename. Only
// for a caller holding the lock under which every such file is written, so
// that none of them belongs to a living run. Returns how many were removed,
// or -1 with errno set.
int remove_stale_temps(const char* path, const char* infix);
// remove_stale_temps() for a writer that goes on whatever comes of it:
// what was removed, or why nothing could be, goes to the log.
void tidy_stale_temps(const char* path, const char* infix);

// Reads the entries of an open directory with getdents64() into a buffer
// of its own. opendir() costs an allocation of 32 KiB and an fstat() per
// directory, which counts where thousands of small Maildirs are counted.
// The buffer (8 KiB) is part of the object: for reading one directory, not
// for a recursive walk, whose depth the mail user decides.
class DirReader {
 public:
  explicit DirReader(UniqueFd dir) : fd_(std::move(dir)) {}
  explicit operator bool() const { return static_cast<bool>(fd_); }
  int fd() const { return fd_.get(); }
  // The next entry, "." and ".." included. Null at the end with errno 0,
  // or after a failed read with errno set.
  const struct dirent64* next();
  // Closes the directory: 0, or -1 with errno set.
  int close() { return fd_.close(); }

 private:
  UniqueFd fd_;
  alignas(8) char buffer_[8192];
  size_t at_ = 0;
  size_t end_ = 0;
};

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
// A stdio stream closed with fclose(); call fclose(release()) where the
// result of the close matters.
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

}  // namespace tavix

#endif  // DRAVNIK_UTIL_FS_H_
