// Commands on aliases of a mail name and on domain aliases.
#include <string>

#include "commands/backend.h"
#include "commands/command_options.h"
#include "commands/commands.h"
#include "commands/mail_db_reader.h"
#include "commands/nonexisting_action.h"
#include "commands/usage.h"

namespace po = boost::program_options;

namespace tavix {
namespace mail {
namespace dravnik_commands {

namespace backend = tavix::mail::qmail::dravnik_commands;

namespace {

// Some alias commands run the parser themselves rather than through
// standardOptionsParse; a bad command line is still reported the standard way.
void parseReportingErrors(ProgramOptionsHelper& helper, int argc, char** argv) {
  try {
    helper.parse(argc, argv);
  } catch (po::error const& e) {
    reportOptionError(helper, e);
  }
}

typedef int (*MailnameAliasBackend)(std::string const& domain, std::string const& mailname,
                                    std::string const& alias);

// "--add-alias" and "--remove-alias" take the same options and values.
int mailnameAliasCommand(char const* purpose, char const* usageLine, MailnameAliasBackend run,
                         int argc, char** argv) {
  ProgramOptionsHelper helper(purpose, usageLine);
  formAliasOptions(helper);
  parseReportingErrors(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  std::string const mailname = mailnameValue(helper, "mailname");
  std::string const alias = mailnameValue(helper, "alias");
  CommandMailData const data(
      MailDbOptionsProcessor(helper).withDomain(domain).withMailname(mailname).withMailAlias(alias),
      true);
  return run(domain, mailname, alias);
}

}  // namespace

void formAliasOptions(ProgramOptionsHelper& helper) {
  declareDomainAndMailname(helper);
  helper.addOptions()("alias", po::value<MailNameTOpt>(), "alias email", true);
  declareMailDataAndWait(helper);
}

void formDomainAliasOptions(ProgramOptionsHelper& helper) {
  declareDomainName(helper);
  helper.addOptions()("domain-alias-name", po::value<DomainNameTOpt>(), "domain alias name",
                      true);
  declareMailDataAndWait(helper);
}

int addAlias(int argc, char** argv) {
  return mailnameAliasCommand("add alias for a given mailname", kAddAliasUsage,
                              backend::addAlias, argc, argv);
}

int removeAlias(int argc, char** argv) {
  return mailnameAliasCommand("remove alias for a given mailname", kRemoveAliasUsage,
                              backend::removeAlias, argc, argv);
}

int addDomainAlias(int argc, char** argv) {
  ProgramOptionsHelper helper("add a domain alias", kAddDomainAliasUsage);
  formDomainAliasOptions(helper);
  formNotexistingMailOptions(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  std::string const alias = domainValue(helper, "domain-alias-name");
  CommandMailData const data(
      MailDbOptionsProcessor(helper).withDomain(domain).withDomainAlias(alias), true);
  NonexistingMailnamesAction const action = buildNotexistingMailnamesAction(helper);
  return backend::addDomainAlias(domain, alias, action, true);
}

int removeDomainAlias(int argc, char** argv) {
  ProgramOptionsHelper helper("remove a domain alias", kDelDomainAliasUsage);
  formDomainAliasOptions(helper);
  parseReportingErrors(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  std::string const alias = domainValue(helper, "domain-alias-name");
  CommandMailData const data(
      MailDbOptionsProcessor(helper).withDomain(domain).withDomainAlias(alias), true);
  return backend::removeDomainAlias(domain, alias, true);
}

int renameDomainAlias(int argc, char** argv) {
  ProgramOptionsHelper helper("rename a given domain alias", kRenameDomainAliasUsage);
  declareDomainName(helper);
  helper.addOptions()("old-domain-alias-name", po::value<DomainNameTOpt>(),
                      "old domain alias name", true)(
      "new-domain-alias-name", po::value<DomainNameTOpt>(), "new domain alias name", true);
  declareMailDataAndWait(helper);
  formNotexistingMailOptions(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  std::string const oldAlias = domainValue(helper, "old-domain-alias-name");
  std::string const newAlias = domainValue(helper, "new-domain-alias-name");
  // The session knows the alias by its old name: that is whose records the
  // back end finds and moves.
  CommandMailData const data(
      MailDbOptionsProcessor(helper).withDomain(domain).withDomainAlias(oldAlias), true);
  NonexistingMailnamesAction const action = buildNotexistingMailnamesAction(helper);
  return backend::renameDomainAlias(domain, oldAlias, newAlias, action);
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
