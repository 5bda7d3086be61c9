// Renaming a mail domain everywhere its name is written, telling the other
// services through rename plug-ins, and keeping the DomainKeys key files of
// domains and their aliases in step.
#ifndef DRAVNIK_QMAIL_DOMAIN_RENAME_H_
#define DRAVNIK_QMAIL_DOMAIN_RENAME_H_

#include <string>

// Shared libraries exporting `int rename_domain(const char* old, const char* new)`.
extern const char* const kDomainRenamePluginDir;  // "/usr/lib64/tavix-9.0/domain_rename"

// Runs every plug-in; 0, or 1 at the first one that fails.
int RenameDomainInServices(const char* old_domain, const char* new_domain);
// Runs one plug-in in a child process; 0 on success.
int RenameDomainPluginCaller(const char* plugin_path, const char* old_domain,
                             const char* new_domain);
// In the child: the plug-in's result, or 0 when it cannot be used.
int RenameDomain(const char* plugin_path, const char* old_domain, const char* new_domain);

namespace tavix {
namespace mail {
namespace qmail {
namespace dravnik_commands {

// Moves the mail directory, renames the domain in the qmail files, the
// authentication database and the handlers database, runs the plug-ins and
// restarts qmail. 0 or 1; stops at the first failure without undoing.
int renameDomain(std::string const& oldDomain, std::string const& newDomain);

}  // namespace dravnik_commands
}  // namespace qmail
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_QMAIL_DOMAIN_RENAME_H_
