#include "qmail/sed_edit.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "util/exec.h"
#include "util/fs.h"
#include "util/log.h"

namespace {

using tavix::UniqueFd;

const char kSed[] = "/bin/sed";

void report(const char* format, const char* name) {
  messlog2(0, 0, format, name, strerror(errno));
}

// Gives a regular file back the owner and mode it had. The edit is already
// done, so a failure here is only a warning.
void restore_attributes(const char* path, const struct stat& saved) {
  if (!S_ISREG(saved.st_mode))
    return;
  if (chown(path, saved.st_uid, saved.st_gid) != 0)
    report("WARNING: unable to restore ownership to file %s: %s\n", path);
  if (chmod(path, saved.st_mode & 07777) != 0)
    report("WARNING: unable to restore permissions to file %s: %s\n", path);
}

// Filters `path` through sed run with `argv` and puts the result in its
// place.
int run_sed(const char* path, char* const argv[]) {
  struct stat saved;
  if (lstat(path, &saved) != 0) {
    report("ERROR: Unable to save file '%s' attributes : %s", path);
    return -1;
  }
  UniqueFd in(open(path, O_RDONLY | O_CLOEXEC));
  if (!in) {
    report("ERROR: Unable to open file %s for reading: %s", path);
    return -1;
  }
  std::string temp = std::string(path) + ".tmp";
  UniqueFd out(
      open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!out) {
    report("ERROR: Unable to truncate or create file %s: %s", temp.c_str());
    return -1;
  }

  if (fork_execv_fd(in.get(), out.get(), kSed, argv) != 0) {
    messlog2(0, 0, "Error during sed working\n");
    return -1;
  }
  // The new contents must be on disk before they replace the old ones.
  if (fsync(out.get()) != 0 || out.close() != 0) {
    report("Unable to close file %s: %s\n", temp.c_str());
    return -1;
  }
  in.reset();

  if (unlink(path) != 0) {
    report("Unable to delete '%s' file: %s", path);
    return -1;
  }
  if (rename(temp.c_str(), path) != 0) {
    messlog2(0, 0, "Unable to rename '%s' to '%s' file: %s", temp.c_str(),
             path, strerror(errno));
    return -1;
  }
  restore_attributes(path, saved);
  return 0;
}

}  // namespace

int run_sed_cmd(const char* expression, const char* path) {
  const char* const argv[] = {kSed, "-e", expression, nullptr};
  return run_sed(path, const_cast<char* const*>(argv));
}

int run_extended_sed_cmd(const char* expression, const char* path) {
  const char* const argv[] = {kSed, "-r", "-e", expression, nullptr};
  return run_sed(path, const_cast<char* const*>(argv));
}
