// Replacing a file as a whole: the new contents go to a temporary file
// beside it, which is put on disk and then renamed over the old one, so that
// readers, a crash or a power loss find either the old contents or the new,
// never a part of them.
//
// The directories are opened with open_dir_nofollow() (util/fs.h) and the
// temporary file is created exclusively without following links, so a
// symbolic link planted by the mail user is never written through. The
// rename replaces a link at the target's name instead of following it.
#ifndef DRAVNIK_UTIL_ATOMIC_FILE_H_
#define DRAVNIK_UTIL_ATOMIC_FILE_H_

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "util/fs.h"

namespace tavix {

// A temporary file's name beside `path`: its last component followed by
// `suffix` ("assign" and ".tmp" give "assign.tmp").
std::string name_beside(const std::string& path, const std::string& suffix);

class AtomicFile {
 public:
  // What create() does about the temporary file's name.
  enum class Temp {
    kUnique,     // its trailing "XXXXXX" is replaced, as mkstemp() does
    kExclusive,  // it must not exist yet (EEXIST otherwise)
    kReplace,    // a file left there by a run that died first is removed
  };

  AtomicFile() = default;
  // Removes the temporary file unless it was committed or abandoned.
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  // Starts replacing `path`. `temp` names the temporary file relative to
  // the directory that holds `path` ("assign.tmp", "tmp/1.2.host-x"); it is
  // created with `mode` (the umask applies). False with errno set.
  bool create(const std::string& path, const std::string& temp, Temp kind,
              mode_t mode);
  // create() for the target `name` in the directory `dir`, already open
  // (without following links) and kept open by the caller until the file
  // is committed or discarded: a caller that reached the directory once
  // does not have every component of its path looked up again. `temp` is
  // relative to `dir`; temp_path() is then too.
  bool create_in(int dir, const std::string& name, const std::string& temp, Temp kind,
                 mode_t mode);

  int fd() const { return fd_.get(); }
  // The directory that holds the target.
  int dir_fd() const { return dir_ ? dir_.get() : borrowed_dir_; }
  // The temporary file's path, as the target's path would be spelled.
  const std::string& temp_path() const { return temp_path_; }
  // A stream on the temporary file, made on first use; commit() flushes it.
  // Null with errno set when it cannot be made.
  FILE* stream();

  // Writes all of `data`, through short writes and interrupted calls.
  bool write(std::string_view data);
  bool set_owner(uid_t uid, gid_t gid);
  bool set_mode(mode_t mode);

  // Flushes the stream and puts the contents on disk; the descriptor is
  // closed. commit() does this itself unless it was done.
  bool sync();
  // Renames the temporary file over the target and puts the directory
  // entry on disk. False with errno set; the temporary file is then
  // removed by the destructor unless the rename itself was done.
  bool commit();
  // Leaves the temporary file where it is, as far as it was written.
  void abandon();
  // Removes the temporary file now, as the destructor would; errno is kept.
  void discard();

 private:
  bool create_temp(const std::string& name, Temp kind, mode_t mode);
  int temp_dir_fd() const { return temp_dir_ ? temp_dir_.get() : dir_fd(); }
  // The temporary file's directory (`temp`'s leading part) opened from the
  // target's, and the file created there.
  bool create_beside(const std::string& temp, Temp kind, mode_t mode);

  UniqueFd dir_;       // holds the target
  int borrowed_dir_ = -1;  // holds it instead, the caller's (create_in())
  UniqueFd temp_dir_;  // holds the temporary file
  UniqueFd fd_;
  UniqueFile stream_;  // on a duplicate of fd_
  std::string name_;       // of the target in dir_
  std::string temp_name_;  // of the temporary file in temp_dir_
  std::string temp_path_;
  bool synced_ = false;
  bool pending_ = false;  // the temporary file exists and is ours to remove
};

}  // namespace tavix

#endif  // DRAVNIK_UTIL_ATOMIC_FILE_H_
