// The back end of the mail name, mailbox and quota commands.
//
// A failed step does not stop the steps after it, so that one broken piece
// (say a mail name whose assign line is already gone) does not keep the
// others from being cleaned up. The exceptions keep pieces together: the
// authentication records of a mail name whose handlers could not be removed
// stay, so that a second run finds both. Nothing is rolled back; the exit
// status says that something failed and the log says what.
#include <cstdio>
#include <string>

#include "commands/backend.h"
#include "handlers/handler_ops.h"
#include "maildata/domain_mail_ops.h"
#include "maildata/session_quota.h"
#include "qmail/mailnames.h"
#include "qmail/qmail_control.h"
#include "util/log.h"

namespace tavix {
namespace mail {
namespace qmail {
namespace dravnik_commands {

namespace {

// The operations below take an address in a buffer of this size.
const size_t kMailAddressBuffer = 502;

const int kLogError = 3;

const int kCryptedFlag = 1;
const int kDomainDisabledFlag = 4;

int status(bool failed) {
  return failed ? 1 : 0;
}

}  // namespace

std::string mailAddress(std::string const& mailname, std::string const& domain) {
  char buffer[kMailAddressBuffer];
  std::snprintf(buffer, sizeof buffer, "%s@%s", mailname.c_str(), domain.c_str());
  return buffer;
}

int passwordFlags(PasswordAccessor const& password, bool domainDisabled) {
  int flags = 0;
  if (password.crypted)
    flags |= kCryptedFlag;
  if (domainDisabled)
    flags |= kDomainDisabledFlag;
  return flags;
}

int addMailname(std::string const& domain, std::string const& mailname) {
  int const added = add_mailname(mailname.c_str(), domain.c_str());
  // users/assign may have changed even when the mail name is incomplete.
  int const compiled = run_qmail_newu();
  return status(added != 0 || compiled != 0);
}

int addMailname(std::string const& domain, std::string const& mailname, long const& quota) {
  int const added = add_mailname(mailname.c_str(), domain.c_str());
  int const compiled = run_qmail_newu();
  if (added != 0 || compiled != 0)
    return 1;
  return status(set_quota(domain.c_str(), mailname.c_str(), quota) != 0);
}

int removeMailname(std::string const& domain, std::string const& mailname) {
  int const removed = rm_mailname(mailname.c_str(), domain.c_str());
  int const compiled = run_qmail_newu();
  std::string const address = mailAddress(mailname, domain);

  if (mh_db_remove_addr(nullptr, address.c_str()) < 0) {
    tavix_log(kLogError, "Unable to delete some handlers for this mailname: %s",
              address.c_str());
    return 1;
  }
  if (rm_mails_from_domains(mailname.c_str(), domain.c_str()) == -1) {
    tavix_log(kLogError, "Unable to delete auth records for %s", address.c_str());
    return 1;
  }
  return status(compiled != 0 || removed != 0);
}

int renameMailname(std::string const& domain, std::string const& oldMailname,
                   std::string const& newMailname, PasswordAccessor const& password) {
  int const renamed = ch_mailname(oldMailname.c_str(), domain.c_str(), newMailname.c_str(),
                                  password.password);
  std::string const oldAddress = mailAddress(oldMailname, domain);

  // The handlers follow the mail name: copied to the new address first, and
  // removed from the old one only once every copy is in, so that a failed
  // copy leaves them all in place.
  bool moved = mh_db_clone(nullptr, oldMailname.c_str(), domain.c_str(), newMailname.c_str(),
                           domain.c_str()) >= 0;
  if (moved)
    moved = mh_db_remove_addr(nullptr, oldAddress.c_str()) == 0;
  if (moved)
    return status(run_qmail_newu() != 0 || renamed != 0);

  tavix_log(kLogError, "Unable to move mail handlers from %s to %s@%s", oldAddress.c_str(),
            newMailname.c_str(), domain.c_str());
  run_qmail_newu();
  return 1;
}

int addMailbox(std::string const& domain, std::string const& mailname,
               PasswordAccessor const& password, bool domainDisabled) {
  return status(add_mn_postbox(mailname.c_str(), domain.c_str(), password.password,
                               passwordFlags(password, domainDisabled)) != 0);
}

int removeMailbox(std::string const& domain, std::string const& mailname) {
  int const removed = rm_mn_postbox(mailname.c_str(), domain.c_str());
  if (rm_mails_from_domains(mailname.c_str(), domain.c_str()) == -1) {
    tavix_log(kLogError, "Unable to remove mail aliases for %s@%s", mailname.c_str(),
              domain.c_str());
    return 1;
  }
  return status(removed != 0);
}

int setPassword(std::string const& domain, std::string const& mailname,
                PasswordAccessor const& password, bool domainDisabled) {
  // Only -1 is the walk's failure; its other results say whether there was
  // a list of aliases to walk.
  return status(set_mass_postbox_passwd(mailname.c_str(), domain.c_str(),
                                        password.password,
                                        passwordFlags(password, domainDisabled)) == -1);
}

int setMailboxDiskQuota(std::string const& domain, std::string const& mailname, long quota) {
  return status(set_quota(domain.c_str(), mailname.c_str(), quota) != 0);
}

int setDomainDiskQuota(std::string const& domain, long quota) {
  int const stored =
      quota < 0 ? rm_domain_quota(domain.c_str()) : store_domain_quota(domain.c_str(), quota);
  return status(stored == 0);
}

}  // namespace dravnik_commands
}  // namespace qmail
}  // namespace mail
}  // namespace tavix
