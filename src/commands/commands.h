// The command functions behind the command words of the program. Each gets
// the process's arguments shifted by one (argv[0] is its command word) and
// returns the exit status.
#ifndef DRAVNIK_COMMANDS_COMMANDS_H_
#define DRAVNIK_COMMANDS_COMMANDS_H_

#include "commands/program_options_helper.h"

namespace tavix {
namespace mail {
namespace dravnik_commands {

// Mail names and mailboxes.
int addMailname(int argc, char** argv);
int removeMailname(int argc, char** argv);
int renameMailname(int argc, char** argv);
int addMailbox(int argc, char** argv);
int removeMailbox(int argc, char** argv);
int setPassword(int argc, char** argv);
int getMailboxSize(int argc, char** argv);
int setMailboxDiskQuota(int argc, char** argv);
int setDomainDiskQuota(int argc, char** argv);

// Domains.
int addDomain(int argc, char** argv);
int removeDomain(int argc, char** argv);
int renameDomain(int argc, char** argv);
int enableDomain(int argc, char** argv);
int disableDomain(int argc, char** argv);

// Aliases of mail names and of domains.
int addAlias(int argc, char** argv);
int removeAlias(int argc, char** argv);
int addDomainAlias(int argc, char** argv);
int removeDomainAlias(int argc, char** argv);
int renameDomainAlias(int argc, char** argv);

// What to do with mail to names a domain does not have: "set-catchall" with
// "email", "set-bounce" with "phrase", or "set-reject".
void formNotexistingMailOptions(ProgramOptionsHelper& helper);
// "domain-name", "mailname", "alias", the mail data group and "wait-stdin".
void formAliasOptions(ProgramOptionsHelper& helper);
// "domain-name", "domain-alias-name", the mail data group and "wait-stdin".
void formDomainAliasOptions(ProgramOptionsHelper& helper);

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_COMMANDS_COMMANDS_H_
