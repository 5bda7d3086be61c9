// All of the program's help texts: the program-wide ones and the usage line
// of every command, kept together so that what users read lives in one place.
#ifndef DRAVNIK_COMMANDS_USAGE_H_
#define DRAVNIK_COMMANDS_USAGE_H_

#include <cstddef>
#include <ostream>
#include <string>

namespace tavix {
namespace mail {
namespace dravnik_commands {

struct CommandDescription {
  char const* command;
  char const* usage;  // the options part
  char const* description;
};

// Feeds --help-commands and --help-legacy only; dispatch has its own table.
constexpr std::size_t kCommandDescriptionCount = 23;
extern CommandDescription const commandDescriptions[kCommandDescriptionCount];

// Each printer writes its text, flushes and ends the process with `status`.
[[noreturn]] void usageShort(int status, std::ostream& os);
[[noreturn]] void usageCommands(int status, std::ostream& os);
[[noreturn]] void usageLegacy(int status, std::ostream& os);
[[noreturn]] void usageStdin(int status, std::ostream& os);

// "Error: <message>" (when not empty) and the short usage on standard error;
// exit status 1.
[[noreturn]] void wrongUsage(std::string const& message);

// Usage lines of the commands, printed after "Usage: " in their help.
extern char const kAddMailnameUsage[];
extern char const kRemoveMailnameUsage[];
extern char const kRenameMailnameUsage[];
extern char const kAddMailboxUsage[];
extern char const kRemoveMailboxUsage[];
extern char const kSetPasswordUsage[];
extern char const kGetMailboxSizeUsage[];
extern char const kSetMailboxDiskQuotaUsage[];
extern char const kSetDomainDiskQuotaUsage[];
extern char const kAddAliasUsage[];
extern char const kRemoveAliasUsage[];
extern char const kAddDomainUsage[];
extern char const kRemoveDomainUsage[];
extern char const kTurnOnDomainUsage[];
extern char const kTurnOffDomainUsage[];
extern char const kRenameDomainUsage[];
extern char const kAddDomainAliasUsage[];
extern char const kDelDomainAliasUsage[];
extern char const kRenameDomainAliasUsage[];

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_COMMANDS_USAGE_H_
