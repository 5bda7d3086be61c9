#include "auth/mailbox_home.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "audit/qmail_files.h"
#include "qmail/cdb.h"
#include "qmail/paths.h"
#include "qmail/qmail_control.h"
#include "util/fs.h"
#include "util/log.h"

namespace tavix {
namespace auth {

namespace {

// 1 with `*fd` open on the file, 0 when it does not exist, -1 after
// logging.
int Open(const std::string& path, UniqueFd* fd) {
  *fd = open_nofollow(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (*fd)
    return 1;
  if (errno == ENOENT)
    return 0;
  tavix_log(LOG_ERR, "Unable to open file '%s' for reading: %s", path.c_str(), strerror(errno));
  return -1;
}

// The home that the assign line `text` gives `key`: 1, or 0 when the line
// is not the exact line of `key` or breaks qmail's format.
int HomeOfLine(const std::string& text, const std::string& key, std::string* home) {
  audit::AssignLine line = audit::ParseAssignLine(text);
  if (line.type != '=' || line.key != key)
    return 0;
  *home = line.home;
  return 1;
}

// The home of the exact assign line for `key` as qmail-newu compiled it
// into users/cdb: under "!key\0", the line's fields after the key with
// NULs for their colons. The line is put together again and judged as the
// one in users/assign would be. 1 with `*home` set, 0 when the database
// has no such line or cannot be read (the caller then searches
// users/assign).
int CompiledHome(const std::string& key, std::string* home) {
  const std::string path = qmail::qmail_file("/users/cdb");
  UniqueFd fd;
  if (Open(path, &fd) <= 0)
    return 0;
  std::string fields;
  int rc = qmail::cdb_find(fd.get(), "!" + key + std::string(1, '\0'), &fields);
  if (rc < 0)
    tavix_log(LOG_WARNING, "Unable to read file '%s': %s; searching users/assign instead",
              path.c_str(), strerror(errno));
  if (rc <= 0)
    return 0;
  std::replace(fields.begin(), fields.end(), '\0', ':');
  return HomeOfLine("=" + key + ":" + fields + ":", key, home);
}

}  // namespace

int FindLineStarting(int fd, const std::string& start, std::string* line, size_t block) {
  if (start.empty() || block == 0)
    return 0;
  // The line starts after a newline, or at the start of the file: the
  // window begins with one that the file does not have.
  const std::string wanted = "\n" + start;
  std::string window = "\n";
  std::unique_ptr<char[]> buffer(new char[block]);
  size_t line_at = std::string::npos;  // in `window`, once found
  for (;;) {
    ssize_t n = read(fd, buffer.get(), block);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return -1;
    window.append(buffer.get(), static_cast<size_t>(n));
    if (line_at == std::string::npos) {
      const void* hit = memmem(window.data(), window.size(), wanted.data(), wanted.size());
      if (hit != nullptr) {
        line_at = static_cast<const char*>(hit) - window.data() + 1;
      } else if (n == 0) {
        return 0;
      } else if (window.size() >= wanted.size()) {
        // Only a tail shorter than the pattern can begin a match that the
        // next block completes.
        window.erase(0, window.size() - (wanted.size() - 1));
        continue;
      }
    }
    if (line_at != std::string::npos) {
      size_t end = window.find('\n', line_at);
      if (end != std::string::npos || n == 0) {
        *line = window.substr(line_at, end == std::string::npos ? end : end - line_at);
        return 1;
      }
    }
  }
}

int FindVirtualPrefix(int fd, const std::string& domain, std::string* prefix, size_t block) {
  std::string line;
  int rc = domain.empty() ? 0 : FindLineStarting(fd, domain + ":", &line, block);
  if (rc <= 0)
    return rc;
  *prefix = line.substr(domain.size() + 1);
  return prefix->empty() ? 0 : 1;
}

int FindAssignHome(int fd, const std::string& key, std::string* home, size_t block) {
  std::string text;
  int rc = key.empty() ? 0 : FindLineStarting(fd, "=" + key + ":", &text, block);
  return rc <= 0 ? rc : HomeOfLine(text, key, home);
}

int MailboxHome(const std::string& mailname, const std::string& domain, std::string* home) {
  const std::string virtualdomains = qmail::qmail_file("/control/virtualdomains");
  UniqueFd fd;
  int rc = Open(virtualdomains, &fd);
  if (rc <= 0)
    return rc;
  std::string prefix;
  rc = FindVirtualPrefix(fd.get(), domain, &prefix);
  if (rc < 0)
    tavix_log(LOG_ERR, "Unable to read file '%s': %s", virtualdomains.c_str(), strerror(errno));
  if (rc <= 0)
    return rc;
  const std::string key = prefix + "-" + mailname;
  // users/cdb answers in a few reads where users/assign would be searched
  // through (11 MB at 100,000 names), but only while every edit of
  // users/assign is known to be compiled into it: otherwise it could give
  // the home an alias had before it was moved to another mail name.
  if (qmail_users_cdb_current() && CompiledHome(key, home) == 1)
    return 1;
  const std::string path = qmail::qmail_file("/users/assign");
  rc = Open(path, &fd);
  if (rc <= 0)
    return rc;
  rc = FindAssignHome(fd.get(), key, home);
  if (rc < 0)
    tavix_log(LOG_ERR, "Unable to read file '%s': %s", path.c_str(), strerror(errno));
  return rc;
}

}  // namespace auth
}  // namespace tavix
