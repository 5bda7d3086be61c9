// The back end of the domain commands. A step that fails is remembered and
// the steps after it still run, so that qmail's files, the handlers and the
// authentication records end up as close to the request as they can; only
// the exit status tells that something went wrong.
#include "commands/backend.h"

#include "handlers/handler_ops.h"
#include "mailauth/auth_records.h"
#include "maildata/domain_mail_ops.h"
#include "qmail/mail_domains.h"
#include "qmail/qmail_control.h"

namespace tavix {
namespace mail {
namespace qmail {
namespace dravnik_commands {

namespace {

// Enabling and disabling differ only in the operations they call.
struct DomainSwitch {
  int (*qmailFiles)(const char* domain);
  int (*handler)(sqlite3* db, mh_data* rec);
  domain_auth_action_fn authRecords;
  const char* authActionName;
};

int switchDomain(std::string const& domain, DomainSwitch const& how) {
  char const* name = domain.c_str();
  bool failed = how.qmailFiles(name) != 0;
  failed = qmail_refresh() != 0 || failed;

  bool handlersFailed;
  {
    tavix::handlers::ScopedList handlers;
    handlersFailed = mh_db_select_by_name(nullptr, handlers.get(), name) < 0 ||
                     mh_db_do(handlers.get(), nullptr, how.handler) < 0;
  }
  // The authentication records follow the domain even when its handlers
  // could not be switched.
  if (domain_auth_action(name, how.authRecords, how.authActionName) == -1)
    return 1;
  return failed || handlersFailed ? 1 : 0;
}

}  // namespace

int addDomain(std::string const& domain) {
  bool failed = add_domain(domain.c_str()) != 0;
  failed = qmail_refresh() != 0 || failed;
  return failed ? 1 : 0;
}

int addDomain(std::string const& domain, long const& /*quota*/) {
  return addDomain(domain);
}

int removeDomain(std::string const& domain) {
  char const* name = domain.c_str();
  bool failed = remove_domain(name) != 0;
  failed = qmail_refresh() != 0 || failed;

  // Handlers of a domain that is gone are never run; leftovers are harmless,
  // so their removal does not decide the outcome.
  mh_db_remove_all(nullptr, name);
  mh_db_remove_addr(nullptr, name);

  if (domain_auth_action(name, mailAuthRemoveDomain, "remove auth record") == -1)
    return 1;
  return failed ? 1 : 0;
}

int enableDomain(std::string const& domain) {
  static DomainSwitch const kEnable = {on_mail_dom, mh_db_enable, mailAuthEnableDomain,
                                       "enable auth records"};
  return switchDomain(domain, kEnable);
}

int disableDomain(std::string const& domain) {
  static DomainSwitch const kDisable = {off_mail_dom, mh_db_disable, mailAuthDisableDomain,
                                        "disable auth records"};
  return switchDomain(domain, kDisable);
}

}  // namespace dravnik_commands
}  // namespace qmail
}  // namespace mail
}  // namespace tavix
