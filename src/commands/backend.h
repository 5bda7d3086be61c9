// The back end of the commands: one function per command, taking the checked
// names as strings and calling the qmail, quota, authentication and handler
// operations in a fixed order. Each returns the command's exit status, 0 or 1.
// The operations they call take (mail name, domain, ...); these take
// (domain, mail name, ...).
#ifndef DRAVNIK_COMMANDS_BACKEND_H_
#define DRAVNIK_COMMANDS_BACKEND_H_

#include <string>

#include "commands/nonexisting_action.h"
#include "commands/password.h"
#include "qmail/domain_rename.h"

namespace tavix {
namespace mail {
namespace qmail {
namespace dravnik_commands {

using tavix::mail::dravnik_commands::NonexistingMailnamesAction;
using tavix::mail::dravnik_commands::PasswordAccessor;

// "mailname@domain", cut to the 501 characters the operations accept.
std::string mailAddress(std::string const& mailname, std::string const& domain);

// The flags byte stored with a password: 1 when it is a crypt hash, 4 when
// the mail domain is disabled.
int passwordFlags(PasswordAccessor const& password, bool domainDisabled);

// Mail names and mailboxes.
int addMailname(std::string const& domain, std::string const& mailname);
int addMailname(std::string const& domain, std::string const& mailname, long const& quota);
int removeMailname(std::string const& domain, std::string const& mailname);
int renameMailname(std::string const& domain, std::string const& oldMailname,
                   std::string const& newMailname, PasswordAccessor const& password);
int addMailbox(std::string const& domain, std::string const& mailname,
               PasswordAccessor const& password, bool domainDisabled);
int removeMailbox(std::string const& domain, std::string const& mailname);
int setPassword(std::string const& domain, std::string const& mailname,
                PasswordAccessor const& password, bool domainDisabled);
int setMailboxDiskQuota(std::string const& domain, std::string const& mailname, long quota);
int setDomainDiskQuota(std::string const& domain, long quota);

// Domains. renameDomain is declared with the rename plug-ins.
int addDomain(std::string const& domain);
// The quota is accepted and ignored: a domain has no quota of its own.
int addDomain(std::string const& domain, long const& quota);
int removeDomain(std::string const& domain);
int enableDomain(std::string const& domain);
int disableDomain(std::string const& domain);

// Aliases of mail names and domain aliases. `reload` false leaves qmail-newu
// and qmail-send to the caller, which handles several aliases in a row.
int addAlias(std::string const& domain, std::string const& mailname, std::string const& alias);
int removeAlias(std::string const& domain, std::string const& mailname, std::string const& alias);
int addDomainAlias(std::string const& domain, std::string const& alias,
                   NonexistingMailnamesAction const& action, bool reload);
int removeDomainAlias(std::string const& domain, std::string const& alias, bool reload);
int renameDomainAlias(std::string const& domain, std::string const& oldAlias,
                      std::string const& newAlias, NonexistingMailnamesAction const& action);

}  // namespace dravnik_commands
}  // namespace qmail
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_COMMANDS_BACKEND_H_
