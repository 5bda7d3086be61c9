#include "commands/usage.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>

#include "util/log.h"

namespace tavix {
namespace mail {
namespace dravnik_commands {

// Fragments that recur in the usage lines below, spelled once.
#define DOMAIN_ALIASES_SYNTAX "--domain-aliases=<alias1,alias2,...>"
#define MAIL_ADDRESSES_SYNTAX \
  "--mail-addresses=<mail_name1,alias11,alias12,...;mail_name2,alias21,...;...>"
#define MAIL_ADDRESSES_LINE "\n\t[" MAIL_ADDRESSES_SYNTAX "] [--wait-stdin]"
#define MAIL_DATA_LINE \
  "\n\t[" DOMAIN_ALIASES_SYNTAX " " MAIL_ADDRESSES_SYNTAX "] [--wait-stdin]"
#define ACTION_SYNTAX "<--set-bounce 'text'| --set-catchall 'email' | --set-reject>"
#define PASSWORD_LINES                                                                   \
  "\n        The noncrypted password is transferred in the environment variable "       \
  "ZON_PASSWORD,"                                                                        \
  "\n        or crypted password is transferred in the environment variable "          \
  "ZON_CRYPTED_PASSWORD"

char const kAddMailnameUsage[] =
    "--add-mailname --domain-name=<domain_name> --mailname=<mail_name> "
    "[--disk-quota=<quota>]\n\t[--default-domain-quota=<quota>] [--wait-stdin]";
char const kRemoveMailnameUsage[] =
    "--remove-mailname --domain-name=<domain_name> --mailname=<mail_name>" MAIL_ADDRESSES_LINE;
char const kRenameMailnameUsage[] =
    "--rename-mailname --domain-name=<domain_name> --old-mailname=<old_mail_name> "
    "--new-mailname=<new_mail_name> [--mail-domain-disabled|-D]" MAIL_ADDRESSES_LINE
    PASSWORD_LINES;
char const kAddMailboxUsage[] =
    "--add-mailbox --domain-name=<domain_name> --mailname=<mail_name> "
    "[--mail-domain-disabled|-D]" MAIL_ADDRESSES_LINE PASSWORD_LINES;
char const kRemoveMailboxUsage[] =
    "--remove-mailbox --domain-name=<domain_name> --mailname=<mail_name>" MAIL_ADDRESSES_LINE;
char const kSetPasswordUsage[] =
    "--set-password --domain-name=<domain_name> --mailname=<mail_name> "
    "[--mail-domain-disabled|-D]" MAIL_ADDRESSES_LINE PASSWORD_LINES;
char const kGetMailboxSizeUsage[] =
    "--get-mailbox-size [--in-blocks] --domain-name=<domain_name> --mailname=<mail_name>";
char const kSetMailboxDiskQuotaUsage[] =
    "--set-mailbox-disk-quota --domain-name=<domain_name> --mailname=<mail_name> "
    "--disk-quota=<quota>\n\t[--default-domain-quota=<quota>] [--wait-stdin]";
char const kSetDomainDiskQuotaUsage[] =
    "--set-domain-disk-quota --domain-name=<domain> --disk-quota=quota" MAIL_ADDRESSES_LINE
    "\n\tSpecify only mailnames without personal quota via --mail-addresses.";
char const kAddAliasUsage[] =
    "--add-alias --domain-name=<domain_name> --mailname=<mail_name> "
    "--alias=<email_alias>" MAIL_DATA_LINE;
char const kRemoveAliasUsage[] =
    "--remove-alias --domain-name=<domain_name> --mailname=<mail_name> "
    "--alias=<email_alias>" MAIL_DATA_LINE;
char const kAddDomainUsage[] =
    "--add-domain --domain-name=<domain> [--disk-quota=quota] [--wait-stdin]";
char const kRemoveDomainUsage[] = "--remove-domain --domain-name=<domain>" MAIL_DATA_LINE;
char const kTurnOnDomainUsage[] =
    "--turn-on-domain --domain-name=<domain> " ACTION_SYNTAX MAIL_DATA_LINE;
char const kTurnOffDomainUsage[] = "--turn-off-domain --domain-name=<domain>" MAIL_DATA_LINE;
char const kRenameDomainUsage[] =
    "--rename-domain --old-domain-name=<domain> --new-domain-name=<domain>";
char const kAddDomainAliasUsage[] =
    "--add-domain-alias --domain-name=<domain_name> --domain-alias-name=<domain_alias_name> "
    ACTION_SYNTAX MAIL_DATA_LINE;
char const kDelDomainAliasUsage[] =
    "--del-domain-alias --domain-name=<domain_name> --domain-alias-name=<domain_alias_name>";
char const kRenameDomainAliasUsage[] =
    "--rename-domain-alias --domain-name=<domain_name> "
    "--old-domain-alias-name=<old_domain_alias_name> "
    "--new-domain-alias-name=<new_domain_alias_name> " ACTION_SYNTAX MAIL_DATA_LINE;

CommandDescription const commandDescriptions[kCommandDescriptionCount] = {
    {"--add-mailname",
     "--domain-name=<domain_name> --mailname=<mail_name> [--disk-quota=<quota>]",
     "adds mailname to the mail domain. Optionally sets the mailbox quota"},
    {"--remove-mailname", "--domain-name=<domain_name> --mailname=<mail_name>",
     "removes mailname from the mail domain"},
    {"--rename-mailname",
     "--domain-name=<domain_name> --old-mailname=<old_mail_name> "
     "--new-mailname=<new_mail_name>",
     "renames a mailname in the mail domain. Optionally sets the mailbox password."},
    {"--add-mailbox", "--domain-name=<domain_name> --mailname=<mail_name>",
     "adds a mailbox for a given mailname. Sets the mailbox password."},
    {"--remove-mailbox", "--domain-name=<domain_name> --mailname=<mail_name>",
     "removes a mailbox for a given mailname"},
    {"--set-password", "--domain-name=<domain_name> --mailname=<mail_name>",
     "sets the password for a mailname"},
    {"--add-alias", "--domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>",
     "adds an alias for mailname"},
    {"--remove-alias",
     "--domain-name=<domain_name> --mailname=<mail_name> --alias=<email_alias>",
     "removes an alias for mailname"},
    {"--add-domain", "--domain-name=<domain_name> [--disk-quota=<quota>]", "adds mail domain"},
    {"--remove-domain", "--domain-name=<domain_name>", "removes mail domain"},
    {"--rename-domain", "--old-domain-name=<domain> --new-domain-name=<domain>",
     "renames mail domain"},
    {"--turn-on-domain", "--domain-name=<domain_name>", "enables mail domain"},
    {"--turn-off-domain", "--domain-name=<domain_name>", "disables mail domain"},
    {"--add-domain-alias",
     "--domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     "adds alias for <domain_name>"},
    {"--del-domain-alias",
     "--domain-name=<domain_name> --domain-alias-name=<domain_alias_name>",
     "removes alias for <domain_name>"},
    {"--rename-domain-alias",
     "--domain-name=<domain_name> --old-domain-alias-name=<old_domain_alias_name> "
     "--new-domain-alias-name=<new_domain_alias_name>",
     "renames alias for <domain_name>"},
    {"--get-mailbox-size", "[--in-blocks] --domain-name=<domain_name> --mailname=<mail_name>",
     "returns the size of mailbox for a mailname"},
    {"--set-mailbox-disk-quota",
     "--domain-name=<domain_name> --mailname=<mail_name> --disk-quota=<quota>",
     "sets the disk quota for a mailbox. Negative quota == Unlimited"},
    {"--set-domain-disk-quota", "--domain-name=<domain_name> --disk-quota=<quota>",
     "sets a disk space quota to a mail domain. Negative quota == Unlimited"},
    {"--help-commands", "", "displays dravnik commands list and exit"},
    {"--help-legacy", "", "displays legacy dravnik help and exit"},
    {"--help-stdin", "",
     "displays information about passing data to dravnik via standard input and exit"},
    {"-h, --help", "", "displays dravnik usage summary and exit"},
};

namespace {

char const kJsonTemplate[] =
    "{\n"
    "\t\"domain\": {\n"
    "\t\t\"name\": \"string\",\n"
    "\t\t\"mbox_quota\": \"int64 default=-1\",\n"
    "\t\t\"mbox_quota_unit\": \"string default='B' enum='B|KB|MB|GB|TB'\",\n"
    "\t\t\"dom_aliases\": [ \"string\" ],\n"
    "\t\t\"mails\": [\n"
    "\t\t\t{\n"
    "\t\t\t\t\"name\": \"string\",\n"
    "\t\t\t\t\"mbox_quota\": \"int64 default=-1\",\n"
    "\t\t\t\t\"mbox_quota_unit\": \"string default='B' enum='B|KB|MB|GB|TB'\",\n"
    "\t\t\t\t\"aliases\": [ \"string\" ]\n"
    "\t\t\t}\n"
    "\t\t]\n"
    "\t}\n"
    "}";
static_assert(sizeof(kJsonTemplate) - 1 == 351, "JSON template changed");

char const kStdinHelp[] =
    "Usage: dravnik <COMMAND> <COMMAND OPTIONS...>[--wait-stdin]\n"
    "\t [" DOMAIN_ALIASES_SYNTAX "]\n"
    "\t [" MAIL_ADDRESSES_SYNTAX "]\n"
    "\t [--default-domain-quota=<quota>]\n"
    "\n"
    "Some commands will accept additional mail data passed via STDIN. Such commands\n"
    "usually have --wait-stdin option, as well as one or more additional\n"
    "options for passing similar data via command line, such as --domain-aliases, \n"
    "--mail-addresses and --default-domain-quota.\n"
    "\n"
    "Data passed via STDIN should be a valid JSON document with following structure:\n";

char const kShortUsage[] =
    "Usage: dravnik <COMMAND> <COMMAND OPTIONS...>\n"
    "\t for a complete list of commands use ``dravnik --help-commands''\n"
    "\t for help on syntax for a particular command use ``dravnik <COMMAND> --help''\n"
    "\t for legacy complete help use ``dravnik --help-legacy''\n";

#undef DOMAIN_ALIASES_SYNTAX
#undef MAIL_ADDRESSES_SYNTAX
#undef MAIL_ADDRESSES_LINE
#undef MAIL_DATA_LINE
#undef ACTION_SYNTAX
#undef PASSWORD_LINES

[[noreturn]] void finish(int status, std::ostream& os) {
  os.flush();
  tavix_exit(status);
}

}  // namespace

void usageShort(int status, std::ostream& os) {
  os << kShortUsage;
  finish(status, os);
}

void usageCommands(int status, std::ostream& os) {
  std::size_t width = 0;
  for (CommandDescription const& row : commandDescriptions)
    width = std::max(width, std::strlen(row.command));
  width += 2;

  os << "Dravnik commands:\n";
  for (CommandDescription const& row : commandDescriptions) {
    os << std::left << std::setw(static_cast<int>(width)) << row.command << row.description
       << "\n"
       << std::flush;
  }
  finish(status, os);
}

void usageLegacy(int status, std::ostream& os) {
  os << "Usage: dravnik [OPTIONS]... \n";
  for (CommandDescription const& row : commandDescriptions) {
    os << "  " << row.command << " " << row.usage << "\n"
       << "        " << row.description << "\n";
  }
  finish(status, os);
}

void usageStdin(int status, std::ostream& os) {
  os << kStdinHelp << kJsonTemplate << "\n";
  finish(status, os);
}

void wrongUsage(std::string const& message) {
  if (!message.empty())
    std::cerr << "Error: " << message << "\n";
  usageShort(1, std::cerr);
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
