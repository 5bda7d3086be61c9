// Commands on one mail name of a domain, its mailbox and the quotas.
#include <string>

#include "commands/command_options.h"
#include "commands/commands.h"
#include "commands/password.h"
#include "commands/unavailable.h"
#include "commands/usage.h"

namespace po = boost::program_options;

namespace tavix {
namespace mail {
namespace dravnik_commands {

int addMailname(int argc, char** argv) {
  ProgramOptionsHelper helper("add a mailname", kAddMailnameUsage);
  declareDomainAndMailname(helper);
  declareDiskQuota(helper, false);
  declareDefaultQuotaAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const mailname = mailnameValue(helper, "mailname");
  // Without a quota of its own the mailbox takes the domain's default one.
  [[maybe_unused]] bool const hasQuota = given(helper, "disk-quota");
  [[maybe_unused]] long const quota = hasQuota ? longValue(helper, "disk-quota") : -1;
  return commandUnavailable(argv[0]);
}

int removeMailname(int argc, char** argv) {
  ProgramOptionsHelper helper("remove a mailname", kRemoveMailnameUsage);
  declareDomainAndMailname(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const mailname = mailnameValue(helper, "mailname");
  return commandUnavailable(argv[0]);
}

int renameMailname(int argc, char** argv) {
  ProgramOptionsHelper helper("rename a mailname", kRenameMailnameUsage);
  declareDomainName(helper);
  helper.addOptions()("old-mailname", po::value<MailNameTOpt>(), "old mailname", true)(
      "new-mailname", po::value<MailNameTOpt>(), "new mailname", true);
  // Accepted for the callers' sake; a rename does not depend on it.
  declareDomainDisabled(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const oldMailname = mailnameValue(helper, "old-mailname");
  [[maybe_unused]] std::string const newMailname = mailnameValue(helper, "new-mailname");
  [[maybe_unused]] PasswordAccessor const password;
  return commandUnavailable(argv[0]);
}

namespace {

// "--add-mailbox" and "--set-password" take the same options and values.
int mailboxPasswordCommand(char const* purpose, char const* usageLine, int argc,
                           char** argv) {
  ProgramOptionsHelper helper(purpose, usageLine);
  declareDomainAndMailname(helper);
  declareDomainDisabled(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const mailname = mailnameValue(helper, "mailname");
  [[maybe_unused]] PasswordAccessor const password;
  [[maybe_unused]] bool const domainDisabled = given(helper, "mail-domain-disabled");
  return commandUnavailable(argv[0]);
}

}  // namespace

int addMailbox(int argc, char** argv) {
  return mailboxPasswordCommand("add mailname's mailbox", kAddMailboxUsage, argc, argv);
}

int setPassword(int argc, char** argv) {
  return mailboxPasswordCommand("set mailname's password", kSetPasswordUsage, argc, argv);
}

int removeMailbox(int argc, char** argv) {
  ProgramOptionsHelper helper("remove mailname's mailbox", kRemoveMailboxUsage);
  declareDomainAndMailname(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const mailname = mailnameValue(helper, "mailname");
  return commandUnavailable(argv[0]);
}

int getMailboxSize(int argc, char** argv) {
  ProgramOptionsHelper helper("get mailbox size", kGetMailboxSizeUsage);
  helper.description().add_options()("in-blocks", "count result in blocks rather than bytes");
  declareDomainAndMailname(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const mailname = mailnameValue(helper, "mailname");
  [[maybe_unused]] bool const inBlocks = given(helper, "in-blocks");
  return commandUnavailable(argv[0]);
}

int setMailboxDiskQuota(int argc, char** argv) {
  ProgramOptionsHelper helper("set mailbox disk quota", kSetMailboxDiskQuotaUsage);
  declareDomainAndMailname(helper);
  declareDiskQuota(helper, true);
  declareDefaultQuotaAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const mailname = mailnameValue(helper, "mailname");
  [[maybe_unused]] long const quota = longValue(helper, "disk-quota");
  return commandUnavailable(argv[0]);
}

int setDomainDiskQuota(int argc, char** argv) {
  ProgramOptionsHelper helper("set a domain disk quota", kSetDomainDiskQuotaUsage);
  declareDomainName(helper);
  declareDiskQuota(helper, true);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] long const quota = longValue(helper, "disk-quota");
  return commandUnavailable(argv[0]);
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
