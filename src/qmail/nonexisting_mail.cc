#include "qmail/nonexisting_mail.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "maildata/domain_mail_ops.h"
#include "qmail/line_file.h"
#include "qmail/lock.h"
#include "qmail/mail_domains.h"
#include "qmail/paths.h"
#include "util/account.h"
#include "util/atomic_file.h"
#include "util/fs.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/shell_quote.h"
#include "util/unique_free.h"

namespace {

const char kDefaultBounce[] = "This address no longer accepts mail.";
const size_t kPathBuffer = 4096;
const size_t kMaxLine = 4095;

// popuser's ids, looked up once per process.
uid_t mail_uid = 0;
gid_t mail_gid = 0;

bool have_mail_user() {
  if (mail_uid == 0)
    mail_uid = tavix_ugid("popuser", 0);
  if (mail_gid == 0)
    mail_gid = tavix_ugid("popuser", 1);
  return mail_uid != 0 && mail_gid != 0;
}

// Whether `text` holds a control character other than those of `allowed`.
bool has_control_char(const char* text, const char* allowed) {
  for (const char* p = text; p != nullptr && *p != '\0'; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    if ((c < 0x20 || c == 0x7f) && strchr(allowed, c) == nullptr)
      return true;
  }
  return false;
}

}  // namespace

int is_catchall_address_safe(const char* address) {
  return has_control_char(address, "") ? 0 : 1;
}

int is_bounce_text_safe(const char* text) {
  return has_control_char(text, "\n\t") ? 0 : 1;
}

int add_qmail_default(const char* domain, const char* line) {
  std::string name;
  int rc = 0;
  if (!qmail_domain_form(domain, true, &name, &rc)) {
    messlog2(0, 0, "idn_toascii() failed: %s", idn_strerror(rc));
    return -1;
  }
  if (!have_mail_user()) {
    messlog2(0, 0, "add_qmail_default: Unable to define UID or GID for user popuser");
    return -1;
  }
  // Written afresh beside the old file and renamed over it, so the file
  // never holds more than the one line, and a link that the mail user
  // planted at the name (the domain's directory is theirs) is replaced
  // instead of written through.
  std::string path = tavix::qmail::domain_dir(name) + "/.qmail-default";
  std::string text = line;
  if (text.empty() || text.back() != '\n')
    text += '\n';
  // Writers take turns, so that under the lock the temporary files that
  // runs killed before their rename left are nobody's.
  tavix::ScopedLock lock(mk_lock(path.c_str(), 1));
  if (!lock.locked()) {
    messlog2(0, 0, "add_qmail_default: Unable to lock %s: %s", path.c_str(), strerror(errno));
    return -1;
  }
  tavix::tidy_stale_temps(path.c_str(), ".");
  tavix::AtomicFile file;
  const char* failure = nullptr;
  if (!file.create(path, ".qmail-default.XXXXXX", tavix::AtomicFile::Temp::kUnique, 0600) ||
      !file.write(text))
    failure = "add_qmail_default: Unable to add record to %s file.";
  else if (!file.set_owner(mail_uid, mail_gid))
    failure = "add_qmail_default: chown %s failed: %s";
  else if (!file.set_mode(0600))
    failure = "add_qmail_default: chmod %s failed: %s\n";
  else if (!file.commit())
    failure = "add_qmail_default: Unable to add record to %s file.";
  if (failure == nullptr)
    return 0;
  // As ever, a failed write leaves no default delivery file at all.
  int saved = errno;
  tavix::unlink_nofollow(path.c_str());
  errno = saved;
  messlog2(0, 0, failure, path.c_str(), strerror(saved));
  return -1;
}

std::string bounce_line(const char* text) {
  std::string phrase = (text == nullptr || *text == '\0') ? kDefaultBounce : text;
  std::replace(phrase.begin(), phrase.end(), '\n', ' ');
  return "|bouncesaying " + tavix::sh_quote(phrase);
}

int add_bounce(const char* domain, const char* text) {
  // The text becomes one argument of one delivery line: a newline would end
  // the line, and the shell must see the text as a single word.
  if (!is_bounce_text_safe(text)) {
    messlog2(0, 0, "add_bounce: the bounce text contains a control character");
    return -1;
  }
  std::string line = bounce_line(text);
  set_reject(domain, 0);  // a bounced domain accepts the mail first
  return add_qmail_default(domain, line.c_str());
}

int add_catch(const char* domain, const char* address) {
  if (!is_catchall_address_safe(address)) {
    messlog2(0, 0, "add_catch: the catch-all address contains a control character");
    return -1;
  }
  tavix::unique_free<char> ascii(idn_email_toascii_safe(address));
  if (!ascii) {
    messlog2(0, 0, "add_catch: out of memory");
    return -1;
  }
  std::string line = std::string("&") + ascii.get();
  if (line.size() > kMaxLine)
    line.resize(kMaxLine);
  set_reject(domain, 0);  // the mail is to be accepted and forwarded
  return add_qmail_default(domain, line.c_str());
}

int touch_qmail_rejectnonexists_file(char* buffer) {
  std::string path = tavix::qmail::qmail_file("/control/rejectnonexist");
  if (path.size() >= kPathBuffer) {
    tavix_log(LOG_ERR, "set_reject: Unable to compose filename for qmail reject file.");
    return -1;
  }
  memcpy(buffer, path.c_str(), path.size() + 1);
  if (create_file(buffer) != 0) {
    tavix_log(LOG_ERR, "set_reject: Unable to create %s file.", buffer);
    return -1;
  }
  return 0;
}

int set_reject_for(const char* file, const char* name, int on) {
  std::string ascii;
  int rc = 0;
  if (!qmail_domain_form(name, true, &ascii, &rc)) {
    tavix_log(LOG_ERR, "idn_toascii() failed: %s", idn_strerror(rc));
    return -1;
  }
  int op = on == 1 ? kLinesAdd : kLinesRemove;
  if (file_str(file, ascii.c_str(), op, kAddAppend) != 0) {
    tavix_log(LOG_ERR, "set_reject: Unable to update %s file.", file);
    return -1;
  }
  return 0;
}

int set_reject(const char* domain, int on) {
  char file[kPathBuffer];
  if (touch_qmail_rejectnonexists_file(file) != 0)
    return -1;
  // Mail to an alias is mail to the domain: the SMTP side must treat both
  // alike.
  std::vector<std::string> names{domain};
  tavix::mail::append_domainaliases_by_domain(names, domain);
  for (const std::string& name : names) {
    if (set_reject_for(file, name.c_str(), on) != 0)
      return -1;
  }
  return 0;
}

int add_reject(const char* domain) {
  set_reject(domain, 0);
  return set_reject(domain, 1);
}

int del_reject(const char* domain) { return set_reject(domain, 0); }

int add_reject_for(const char* name) {
  char file[kPathBuffer];
  if (touch_qmail_rejectnonexists_file(file) != 0)
    return -1;
  set_reject_for(file, name, 0);
  return set_reject_for(file, name, 1);
}
