#include "audit/qmail_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <sstream>

#include "qmail/lock.h"
#include "qmail/paths.h"
#include "util/fs.h"

namespace tavix {
namespace audit {

using qmail::qmail_file;

const char* const kEditedFiles[] = {"/control/rcpthosts", "/control/virtualdomains",
                                    "/control/locals", "/control/rejectnonexist",
                                    "/users/assign", nullptr};

namespace {

bool IsDecimal(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::vector<std::string> SplitColons(const std::string& text) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (;;) {
    size_t colon = text.find(':', start);
    fields.push_back(text.substr(start, colon - start));
    if (colon == std::string::npos)
      return fields;
    start = colon + 1;
  }
}

// The lines of `path`, read under its lock; false (with `files` told why)
// when it exists but cannot be read. A missing file reads as empty.
bool ReadLines(const std::string& path, int lock_wait_ms, QmailFiles* files,
               std::vector<std::string>* lines) {
  bool held = false;
  ScopedLock lock(mk_lock_within(path.c_str(), lock_wait_ms, &held));
  if (!lock.get() && held)
    files->held_locks.push_back(path);
  else if (!lock.get())
    files->unreadable.push_back("the lock of " + path + ": " + strerror(errno));
  UniqueFd fd(open_nofollow(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    if (errno == ENOENT)
      return true;
    files->unreadable.push_back(path + ": " + strerror(errno));
    return false;
  }
  std::string text;
  char buffer[1 << 16];
  for (;;) {
    ssize_t n = read(fd.get(), buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      files->unreadable.push_back(path + ": " + strerror(errno));
      return false;
    }
    if (n == 0)
      break;
    text.append(buffer, n);
  }
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);)
    lines->push_back(line);
  return true;
}

void StatTime(const std::string& path, bool* exists, struct timespec* mtime) {
  struct stat st;
  *exists = lstat(path.c_str(), &st) == 0;
  if (*exists)
    *mtime = st.st_mtim;
}

// "<file>.tmp" beside each edited file and "assign.mail.XXXXXX" (a mail
// name rename's copy): nothing but a killed run leaves them once the lock of
// their file is free. One that a living run is writing is gone, or complete
// and renamed, by the time its lock is released, so each is looked at again
// under that lock; one whose lock stays taken is not judged.
void FindTemporaries(const char* dir_suffix, int lock_wait_ms, QmailFiles* files) {
  std::string dir = qmail_file(dir_suffix);
  UniqueFd fd(open_dir_nofollow(dir.c_str()));
  std::unique_ptr<DIR, int (*)(DIR*)> stream(fd ? fdopendir(fd.get()) : nullptr, closedir);
  if (!stream) {
    if (errno != ENOENT)
      files->unreadable.push_back(dir + ": " + strerror(errno));
    return;
  }
  fd.release();
  for (;;) {
    errno = 0;
    struct dirent* entry = readdir(stream.get());
    if (!entry) {
      if (errno != 0)
        files->unreadable.push_back(dir + ": " + strerror(errno));
      return;
    }
    std::string name = entry->d_name;
    std::string target;
    if (name.size() == strlen("assign.mail.XXXXXX") && name.compare(0, 12, "assign.mail.") == 0)
      target = dir + "/assign";
    for (const char* const* file = kEditedFiles; *file && target.empty(); ++file) {
      std::string edited = qmail_file(*file);
      if (edited.compare(0, dir.size() + 1, dir + "/") == 0 &&
          name == edited.substr(dir.size() + 1) + ".tmp")
        target = edited;
    }
    if (target.empty())
      continue;
    std::string path = dir + "/" + name;
    bool held = false;
    ScopedLock lock(mk_lock_within(target.c_str(), lock_wait_ms, &held));
    struct stat st;
    if (lock.get() && lstat(path.c_str(), &st) == 0)
      files->temporaries.emplace_back(path, target);
  }
}

}  // namespace

AssignLine ParseAssignLine(const std::string& text) {
  AssignLine line;
  line.text = text;
  std::vector<std::string> fields = SplitColons(text.size() > 1 ? text.substr(1) : "");
  if (text.empty() || (text[0] != '=' && text[0] != '+') || fields.size() != 8 ||
      fields[1].empty() || !IsDecimal(fields[2]) || !IsDecimal(fields[3]) ||
      fields[4].empty() || fields[4][0] != '/' || !fields[7].empty())
    return line;
  line.type = text[0];
  line.key = fields[0];
  line.user = fields[1];
  line.home = fields[4];
  return line;
}

QmailFiles ReadQmailFiles(int lock_wait_ms) {
  QmailFiles files;
  std::vector<std::string> lines;
  if (ReadLines(qmail_file("/control/rcpthosts"), lock_wait_ms, &files, &lines))
    files.rcpthosts.insert(lines.begin(), lines.end());
  lines.clear();
  if (ReadLines(qmail_file("/control/locals"), lock_wait_ms, &files, &lines))
    files.locals.insert(lines.begin(), lines.end());
  lines.clear();
  if (ReadLines(qmail_file("/control/rejectnonexist"), lock_wait_ms, &files, &lines))
    files.rejectnonexist.insert(lines.begin(), lines.end());
  lines.clear();
  if (ReadLines(qmail_file("/control/virtualdomains"), lock_wait_ms, &files, &lines)) {
    for (const std::string& line : lines) {
      size_t colon = line.find(':');
      if (!line.empty() && line[0] != '#')
        files.virtualdomains.emplace_back(line.substr(0, colon),
                                          colon == std::string::npos ? "" : line.substr(colon + 1));
    }
  }
  lines.clear();
  bool exists = false;
  StatTime(qmail_file("/users/assign"), &exists, &files.assign_mtime);
  if (ReadLines(qmail_file("/users/assign"), lock_wait_ms, &files, &lines)) {
    for (const std::string& line : lines) {
      if (files.assign_terminated)
        files.assign_trailing = true;
      else if (line == ".")
        files.assign_terminated = true;
      else
        files.assign.push_back(ParseAssignLine(line));
    }
  }
  StatTime(qmail_file("/users/cdb"), &files.has_cdb, &files.cdb_mtime);
  FindTemporaries("/control", lock_wait_ms, &files);
  FindTemporaries("/users", lock_wait_ms, &files);
  return files;
}

}  // namespace audit
}  // namespace tavix
