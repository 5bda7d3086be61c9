// The back end of the alias and domain alias commands. As with the other
// commands, only a failure that makes the rest pointless stops early; any
// other is remembered for the exit status and nothing is rolled back.
#include "commands/backend.h"

#include <syslog.h>

#include "handlers/handler_ops.h"
#include "mailauth/auth_records.h"
#include "maildata/domain_mail_ops.h"
#include "qmail/domainkeys.h"
#include "qmail/mail_domains.h"
#include "qmail/mailnames.h"
#include "qmail/nonexisting_mail.h"
#include "qmail/qmail_control.h"
#include "util/log.h"

namespace tavix {
namespace mail {
namespace qmail {
namespace dravnik_commands {

namespace {

// A rejecting domain refuses unknown names during the SMTP dialogue, which
// qmail decides per name, so each alias name has to be listed as well. The
// other actions live in the domain's .qmail-default, which the alias shares.
bool listRejectingAlias(NonexistingMailnamesAction const& action, std::string const& alias) {
  if (action.type != NonexistingMailnamesAction::kReject)
    return true;
  return add_reject_for(alias.c_str()) == 0;
}

}  // namespace

int addAlias(std::string const& domain, std::string const& mailname, std::string const& alias) {
  bool failed = add_mn_alias(mailname.c_str(), domain.c_str(), alias.c_str()) != 0;

  if (mailAuthClone(mailname.c_str(), domain.c_str(), alias.c_str(), domain.c_str()) == -1) {
    tavix_log(LOG_ERR, "Unable to clone auth record for %s@%s", alias.c_str(), domain.c_str());
    return 1;
  }

  tavix::StringArray domainAliases;
  if (get_domaliases_by_domain(nullptr, domainAliases.out(), domain.c_str()) != 0) {
    tavix_log(LOG_ERR, "Unable to get domain aliases for domain %s", domain.c_str());
    return 1;
  }
  // The alias's record under the domain, just made, is the template for
  // every alias domain.
  for (char const* aliasDomain : domainAliases) {
    if (mailAuthClone(alias.c_str(), domain.c_str(), alias.c_str(), aliasDomain) == -1) {
      tavix_log(LOG_ERR, "Unable to clone auth record for %s@%s", alias.c_str(), aliasDomain);
      failed = true;
    }
    if (mh_db_clone(nullptr, mailname.c_str(), domain.c_str(), alias.c_str(), aliasDomain) !=
        0) {
      tavix_log(LOG_ERR, "Unable to clone handlers for %s@%s", alias.c_str(), aliasDomain);
      failed = true;
    }
  }
  mh_db_clone(nullptr, mailname.c_str(), domain.c_str(), alias.c_str(), domain.c_str());

  bool const newuFailed = run_qmail_newu() != 0;
  return newuFailed || failed ? 1 : 0;
}

int removeAlias(std::string const& domain, std::string const& mailname,
                std::string const& alias) {
  bool failed = rm_mn_alias(mailname.c_str(), domain.c_str(), alias.c_str()) != 0;

  if (rm_mname_from_domains(alias.c_str(), domain.c_str()) == -1) {
    tavix_log(LOG_ERR, "Unable to remove auth records from aliases for %s@%s",
              mailname.c_str(), domain.c_str());
    failed = true;
  }
  // Handlers of an address nobody receives mail at are never run.
  mh_db_remove_addr(nullptr, mailAddress(alias, domain).c_str());

  bool const newuFailed = run_qmail_newu() != 0;
  return newuFailed || failed ? 1 : 0;
}

int addDomainAlias(std::string const& domain, std::string const& alias,
                   NonexistingMailnamesAction const& action, bool reload) {
  bool failed = add_domain_alias(domain.c_str(), alias.c_str()) != 0;
  failed = !listRejectingAlias(action, alias) || failed;
  // The alias domain gets the handlers its mail will be delivered through;
  // mail still arrives without them, so a failure is not fatal.
  mh_db_clone(nullptr, nullptr, domain.c_str(), nullptr, alias.c_str());
  if (reload)
    failed = qmail_refresh() != 0 || failed;
  // Signing is optional: a domain without a key leaves nothing to copy.
  clone_domain_key(domain.c_str(), alias.c_str());

  if (add_domain_auth_alias(domain.c_str(), alias.c_str()) == -1)
    return 1;
  return failed ? 1 : 0;
}

int removeDomainAlias(std::string const& domain, std::string const& alias, bool reload) {
  bool failed = del_domain_alias(domain.c_str(), alias.c_str()) != 0;
  mh_db_remove_all(nullptr, alias.c_str());
  if (reload)
    failed = qmail_refresh() != 0 || failed;
  remove_domain_key(alias.c_str());

  if (rm_domain_auth_alias(alias.c_str()) == -1) {
    tavix_log(LOG_ERR, "Unable to remove domain aliases");
    return 1;
  }
  return failed ? 1 : 0;
}

int renameDomainAlias(std::string const& domain, std::string const& oldAlias,
                      std::string const& newAlias, NonexistingMailnamesAction const& action) {
  bool failed = rename_domain_alias(domain.c_str(), oldAlias.c_str(), newAlias.c_str()) != 0;
  failed = !listRejectingAlias(action, newAlias) || failed;

  // The old alias's handlers go only once their copies are in: a copy that
  // failed leaves them all where they were, for the next run to move. Mail
  // is delivered without them, so the command does not fail on it.
  if (mh_db_clone(nullptr, nullptr, oldAlias.c_str(), nullptr, newAlias.c_str()) == 0)
    mh_db_remove_addr(nullptr, oldAlias.c_str());
  else
    tavix_log(LOG_ERR, "Unable to move domain alias handlers from %s to %s, kept them under %s",
              oldAlias.c_str(), newAlias.c_str(), oldAlias.c_str());
  // Whatever the rename managed to change has to reach qmail.
  failed = qmail_refresh() != 0 || failed;

  clone_domain_key(oldAlias.c_str(), newAlias.c_str());
  remove_domain_key(oldAlias.c_str());

  // The old alias's records go even when the new ones could not be made:
  // mail for the old name is no longer accepted.
  bool const authAdded = add_domain_auth_alias(domain.c_str(), newAlias.c_str()) != -1;
  if (rm_domain_auth_alias(oldAlias.c_str()) == -1) {
    tavix_log(LOG_ERR, "Unable to remove domain aliases");
    return 1;
  }
  return !authAdded || failed ? 1 : 0;
}

}  // namespace dravnik_commands
}  // namespace qmail
}  // namespace mail
}  // namespace tavix
