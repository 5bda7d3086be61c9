#include "auth/login_check.h"

#include <syslog.h>

#include "auth/mailbox_home.h"
#include "auth/password_check.h"
#include "mailauth/auth_db.h"
#include "mailauth/auth_records.h"
#include "mailauth/cipher.h"
#include "util/log.h"

namespace tavix {
namespace auth {

namespace {

Answer Refuse(const std::string& login, const char* reason) {
  tavix_log(LOG_WARNING, "Login refused for '%s': %s", Printable(login).c_str(), reason);
  return Answer();
}

Answer Postpone(const std::string& login, const char* reason) {
  tavix_log(LOG_ERR, "Login of '%s' not checked: %s", Printable(login).c_str(), reason);
  Answer answer;
  answer.verdict = Verdict::kTemporary;
  return answer;
}

}  // namespace

Answer CheckLogin(const std::string& login, const Secret* password) {
  // An empty password is refused before anything is looked up: the answer
  // is the same for every address, so it tells nothing about any of them.
  if (password && password->empty())
    return Refuse(login, "empty password");
  const MailCipherReference cipher(mailAuthKey);
  if (password && !cipher.held())
    return Postpone(login, "the password key cannot be read");

  std::string mailname, domain;
  bool valid = NormalizeLogin(login, &mailname, &domain);
  MailAuthRecord record;
  int found = valid ? mailAuthLookup(mailname.c_str(), domain.c_str(), &record) : 0;
  if (found < 0)
    return Postpone(login, "the authentication database cannot be read");
  if (found == 0) {
    // As much work as a wrong password, so that the time of the answer
    // does not tell which addresses have a mailbox.
    if (password)
      DecoyMatch(*password);
    return Refuse(login, valid ? "no such mail address" : "not a mail address");
  }
  if (password) {
    Match match = MatchPassword(record, *password);
    if (match == Match::kUnusable)
      return Refuse(login, "no password stored");
    if (match == Match::kNo)
      return Refuse(login, "wrong password");
  }
  if (record.user_disabled)
    return Refuse(login, "mail name disabled");
  if (record.domain_disabled)
    return Refuse(login, "mail domain disabled");

  Answer answer;
  int home = MailboxHome(mailname, domain, &answer.home);
  if (home < 0)
    return Postpone(login, "qmail's user assignments cannot be read");
  if (home == 0)
    return Refuse(login, "no mailbox in qmail's user assignments");
  answer.verdict = Verdict::kAccepted;
  answer.address = mailname + "@" + domain;
  return answer;
}

}  // namespace auth
}  // namespace tavix
