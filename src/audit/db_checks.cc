// The authentication and handlers databases against the names that exist.
#include <string>

#include "audit/checker.h"
#include "handlers/mail_handlers.h"
#include "mailauth/auth_db.h"

namespace tavix {
namespace audit {

void Checker::AuthRecords() {
  const Databases& db = s_.databases;
  for (const std::string& domain : db.auth_domains) {
    if (!Resolve(domain).empty()) continue;
    Finding& f = Add("auth-orphan", domain, mailAuthDB, "a record of a domain that does not exist");
    f.fix = Fix::kRemoveAuthDomain;
    f.target = domain;
  }
  for (const auto& user : db.auth_users) {
    std::string domain = Resolve(user.first);
    if (domain.empty() || addresses_.count(domain + "-" + user.second)) continue;
    Finding& f =
        Add("auth-orphan", user.first, mailAuthDB, "a record of a mail name that does not exist");
    f.mailname = user.second;
    f.fix = Fix::kRemoveAuthUser;
    f.target = user.first;
  }
  if (!db.unreadable.empty()) return;
  for (const auto& d : s_.tree.domains) {
    for (const auto& m : d.second.mailboxes) {
      if (!addresses_.count(d.first + "-" + m.first) || !DeliversToMaildir(m.second) ||
          db.auth_users.count({d.first, m.first}))
        continue;
      Finding& f = Add("auth-missing", d.first, mailAuthDB,
                       "a mailbox with a delivery line but no password record");
      f.mailname = m.first;
    }
  }
}

void Checker::Handlers() {
  for (const std::string& address : s_.databases.handler_addresses) {
    if (address == "all" || address == "all-recipients") continue;
    size_t at = address.rfind('@');
    std::string domain = Resolve(at == std::string::npos ? address : address.substr(at + 1));
    if (!domain.empty() &&
        (at == std::string::npos || addresses_.count(domain + "-" + address.substr(0, at))))
      continue;
    Finding& f = Add("handler-orphan", at == std::string::npos ? address : address.substr(at + 1),
                     mh_db_path, "handlers of " + address + ", which does not exist");
    if (at != std::string::npos) f.mailname = address.substr(0, at);
    f.fix = Fix::kRemoveHandlers;
    f.target = address;
  }
}

}  // namespace audit
}  // namespace tavix
