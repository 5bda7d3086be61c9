#include "auth/mailbox_home.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <syslog.h>

#include "audit/qmail_files.h"
#include "qmail/paths.h"
#include "util/fs.h"
#include "util/log.h"

namespace tavix {
namespace auth {

namespace {

// The line of `text` that begins with `start`, without its newline.
bool FindLineStarting(const std::string& text, const std::string& start, std::string* line) {
  size_t at = 0;
  for (;;) {
    at = text.find(start, at);
    if (at == std::string::npos)
      return false;
    if (at == 0 || text[at - 1] == '\n')
      break;
    at += 1;
  }
  size_t end = text.find('\n', at);
  *line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
  return true;
}

// 1 with the whole file, 0 when it does not exist, -1 after logging.
int ReadFile(const std::string& path, std::string* text) {
  UniqueFd fd(open_nofollow(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    if (errno == ENOENT)
      return 0;
    tavix_log(LOG_ERR, "Unable to open file '%s' for reading: %s", path.c_str(), strerror(errno));
    return -1;
  }
  if (!read_to_end(fd.get(), text)) {
    tavix_log(LOG_ERR, "Unable to read file '%s': %s", path.c_str(), strerror(errno));
    return -1;
  }
  return 1;
}

}  // namespace

bool FindVirtualPrefix(const std::string& virtualdomains, const std::string& domain,
                       std::string* prefix) {
  std::string line;
  if (domain.empty() || !FindLineStarting(virtualdomains, domain + ":", &line))
    return false;
  *prefix = line.substr(domain.size() + 1);
  return !prefix->empty();
}

bool FindAssignHome(const std::string& assign, const std::string& key, std::string* home) {
  std::string text;
  if (key.empty() || !FindLineStarting(assign, "=" + key + ":", &text))
    return false;
  audit::AssignLine line = audit::ParseAssignLine(text);
  if (line.type != '=' || line.key != key)
    return false;
  *home = line.home;
  return true;
}

int MailboxHome(const std::string& mailname, const std::string& domain, std::string* home) {
  std::string virtualdomains;
  int rc = ReadFile(qmail::qmail_file("/control/virtualdomains"), &virtualdomains);
  if (rc <= 0)
    return rc;
  std::string prefix;
  if (!FindVirtualPrefix(virtualdomains, domain, &prefix))
    return 0;
  std::string assign;
  rc = ReadFile(qmail::qmail_file("/users/assign"), &assign);
  if (rc <= 0)
    return rc;
  return FindAssignHome(assign, prefix + "-" + mailname, home) ? 1 : 0;
}

}  // namespace auth
}  // namespace tavix
