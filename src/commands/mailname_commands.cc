// Commands on one mail name of a domain, its mailbox and the quotas.
#include <cstdint>
#include <iostream>
#include <string>

#include "commands/backend.h"
#include "commands/command_options.h"
#include "commands/commands.h"
#include "commands/mail_db_reader.h"
#include "commands/password.h"
#include "commands/usage.h"
#include "qmail/maildirpp.h"

namespace po = boost::program_options;
namespace backend = tavix::mail::qmail::dravnik_commands;

namespace tavix {
namespace mail {
namespace dravnik_commands {

namespace {

// The command line's mail data about `domain`, with `mailname` (when given)
// among its mail names.
MailDbOptionsProcessor mailDataOptions(ProgramOptionsHelper const& helper,
                                       std::string const& domain,
                                       std::string const* mailname) {
  MailDbOptionsProcessor processor(helper);
  processor.withDomain(domain);
  if (mailname != nullptr)
    processor.withMailname(*mailname);
  return processor;
}

}  // namespace

int addMailname(int argc, char** argv) {
  ProgramOptionsHelper helper("add a mailname", kAddMailnameUsage);
  declareDomainAndMailname(helper);
  declareDiskQuota(helper, false);
  declareDefaultQuotaAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  std::string const mailname = mailnameValue(helper, "mailname");
  // Without a quota of its own the mailbox takes the domain's default one,
  // which only the session mail data knows.
  bool const hasQuota = given(helper, "disk-quota");
  CommandMailData const mailData(mailDataOptions(helper, domain, &mailname), !hasQuota);
  if (hasQuota)
    return backend::addMailname(domain, mailname, longValue(helper, "disk-quota"));
  return backend::addMailname(domain, mailname);
}

int removeMailname(int argc, char** argv) {
  ProgramOptionsHelper helper("remove a mailname", kRemoveMailnameUsage);
  declareDomainAndMailname(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  std::string const mailname = mailnameValue(helper, "mailname");
  CommandMailData const mailData(mailDataOptions(helper, domain, &mailname), true);
  return backend::removeMailname(domain, mailname);
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

  std::string const domain = domainValue(helper, "domain-name");
  std::string const oldMailname = mailnameValue(helper, "old-mailname");
  std::string const newMailname = mailnameValue(helper, "new-mailname");
  CommandMailData const mailData(mailDataOptions(helper, domain, &oldMailname), true);
  PasswordAccessor const password;
  return backend::renameMailname(domain, oldMailname, newMailname, password);
}

namespace {

// "--add-mailbox" and "--set-password" take the same options and values.
typedef int (*MailboxPasswordBackend)(std::string const& domain, std::string const& mailname,
                                      PasswordAccessor const& password, bool domainDisabled);

int mailboxPasswordCommand(char const* purpose, char const* usageLine,
                           MailboxPasswordBackend run, int argc, char** argv) {
  ProgramOptionsHelper helper(purpose, usageLine);
  declareDomainAndMailname(helper);
  declareDomainDisabled(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  std::string const mailname = mailnameValue(helper, "mailname");
  bool const domainDisabled = given(helper, "mail-domain-disabled");
  CommandMailData const mailData(mailDataOptions(helper, domain, &mailname), true);
  PasswordAccessor const password;
  return run(domain, mailname, password, domainDisabled);
}

}  // namespace

int addMailbox(int argc, char** argv) {
  return mailboxPasswordCommand("add mailname's mailbox", kAddMailboxUsage, backend::addMailbox,
                                argc, argv);
}

int setPassword(int argc, char** argv) {
  return mailboxPasswordCommand("set mailname's password", kSetPasswordUsage,
                                backend::setPassword, argc, argv);
}

int removeMailbox(int argc, char** argv) {
  ProgramOptionsHelper helper("remove mailname's mailbox", kRemoveMailboxUsage);
  declareDomainAndMailname(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  std::string const mailname = mailnameValue(helper, "mailname");
  CommandMailData const mailData(mailDataOptions(helper, domain, &mailname), true);
  return backend::removeMailbox(domain, mailname);
}

int getMailboxSize(int argc, char** argv) {
  ProgramOptionsHelper helper("get mailbox size", kGetMailboxSizeUsage);
  helper.description().add_options()("in-blocks", "count result in blocks rather than bytes");
  declareDomainAndMailname(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  std::string const mailname = mailnameValue(helper, "mailname");
  bool const inBlocks = given(helper, "in-blocks");
  int64_t const size = get_mbox_size(mailname.c_str(), domain.c_str(), inBlocks ? 1 : 0);
  if (size < 0)
    return 1;
  // The caller reads the bare number: no newline after it.
  std::cout << size << std::flush;
  return 0;
}

int setMailboxDiskQuota(int argc, char** argv) {
  ProgramOptionsHelper helper("set mailbox disk quota", kSetMailboxDiskQuotaUsage);
  declareDomainAndMailname(helper);
  declareDiskQuota(helper, true);
  declareDefaultQuotaAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  std::string const mailname = mailnameValue(helper, "mailname");
  long const quota = longValue(helper, "disk-quota");
  CommandMailData const mailData(mailDataOptions(helper, domain, &mailname), true);
  return backend::setMailboxDiskQuota(domain, mailname, quota);
}

int setDomainDiskQuota(int argc, char** argv) {
  ProgramOptionsHelper helper("set a domain disk quota", kSetDomainDiskQuotaUsage);
  declareDomainName(helper);
  declareDiskQuota(helper, true);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  long const quota = longValue(helper, "disk-quota");
  CommandMailData const mailData(mailDataOptions(helper, domain, nullptr), true);
  return backend::setDomainDiskQuota(domain, quota);
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
