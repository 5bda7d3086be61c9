// Option declarations and value readers that many commands share, so that an
// option's name, type and help text are written once.
#ifndef DRAVNIK_COMMANDS_COMMAND_OPTIONS_H_
#define DRAVNIK_COMMANDS_COMMAND_OPTIONS_H_

#include <string>

#include "commands/program_options_helper.h"

namespace tavix {
namespace mail {
namespace dravnik_commands {

// Mandatory "domain-name", then mandatory "mailname".
void declareDomainAndMailname(ProgramOptionsHelper& helper);
void declareDomainName(ProgramOptionsHelper& helper);
// The switch "mail-domain-disabled" / "-D".
void declareDomainDisabled(ProgramOptionsHelper& helper);
// "disk-quota" (a long).
void declareDiskQuota(ProgramOptionsHelper& helper, bool mandatory);
// "default-domain-quota" (a long), then the switch "wait-stdin".
void declareDefaultQuotaAndWait(ProgramOptionsHelper& helper);
// The mail data group ("domain-aliases", "mail-addresses"), then "wait-stdin".
void declareMailDataAndWait(ProgramOptionsHelper& helper);
void declareWaitStdin(ProgramOptionsHelper& helper);

bool given(ProgramOptionsHelper const& helper, char const* name);
std::string domainValue(ProgramOptionsHelper const& helper, char const* name);
std::string mailnameValue(ProgramOptionsHelper const& helper, char const* name);
long longValue(ProgramOptionsHelper const& helper, char const* name);

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_COMMANDS_COMMAND_OPTIONS_H_
