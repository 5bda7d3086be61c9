#include "qmail/sed_edit.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "util/atomic_file.h"
#include "util/exec.h"
#include "util/fs.h"
#include "util/log.h"

namespace {

using tavix::AtomicFile;
using tavix::UniqueFd;

const char kSed[] = "/bin/sed";

void report(const char* format, const char* name) {
  messlog2(0, 0, format, name, strerror(errno));
}

// The new file takes the owner and mode that the regular file it replaces
// had. The edit itself is good either way, so a failure is only a warning.
void give_attributes(AtomicFile* temp, const char* path, const struct stat& saved) {
  if (!S_ISREG(saved.st_mode))
    return;
  if (!temp->set_owner(saved.st_uid, saved.st_gid))
    report("WARNING: unable to restore ownership to file %s: %s\n", path);
  if (!temp->set_mode(saved.st_mode & 07777))
    report("WARNING: unable to restore permissions to file %s: %s\n", path);
}

// Filters `path` through sed run with `argv` into "<path>.tmp" and renames
// that over it: the file is replaced in one step, never missing or short.
int run_sed(const char* path, char* const argv[]) {
  struct stat saved;
  if (lstat(path, &saved) != 0) {
    report("ERROR: Unable to save file '%s' attributes : %s", path);
    return -1;
  }
  UniqueFd in(tavix::open_nofollow(path, O_RDONLY));
  if (!in) {
    report("ERROR: Unable to open file %s for reading: %s", path);
    return -1;
  }
  const std::string temp_path = std::string(path) + ".tmp";
  AtomicFile temp;
  if (!temp.create(path, tavix::name_beside(path, ".tmp"),
                   AtomicFile::Temp::kReplace, 0644)) {
    report("ERROR: Unable to truncate or create file %s: %s", temp_path.c_str());
    return -1;
  }

  if (fork_execv_fd(in.get(), temp.fd(), kSed, argv) != 0) {
    messlog2(0, 0, "Error during sed working\n");
    return -1;
  }
  give_attributes(&temp, path, saved);
  if (!temp.sync()) {
    report("Unable to close file %s: %s\n", temp_path.c_str());
    return -1;
  }
  in.reset();
  if (!temp.commit()) {
    messlog2(0, 0, "Unable to rename '%s' to '%s' file: %s", temp_path.c_str(),
             path, strerror(errno));
    return -1;
  }
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

// --- names as plain text in sed expressions --------------------------------

namespace {

// Puts a backslash before each byte of `specials`. A newline is written as
// sed's "\n" escape instead: a real one would end the command, and what
// followed it would be read as a sed command of its own ("w /etc/...").
std::string sed_escape(const std::string& text, const char* specials) {
  std::string escaped;
  escaped.reserve(text.size() * 2);
  for (char c : text) {
    if (c == '\n') {
      escaped += "\\n";
      continue;
    }
    if (c != '\0' && strchr(specials, c) != nullptr)
      escaped += '\\';
    escaped += c;
  }
  return escaped;
}

}  // namespace

// Only these bytes are escaped: a backslash before a letter or a digit
// would make one of GNU sed's escapes (\w, \1, ...) out of it, and "\|"
// is an alternation unless "|" delimits the expression.
std::string sed_regex_literal(const std::string& text) {
  return sed_escape(text, ".[]*^$\\|");
}

std::string sed_replacement_literal(const std::string& text) {
  return sed_escape(text, "&\\|");
}
