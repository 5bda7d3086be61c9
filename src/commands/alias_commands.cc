// Commands on aliases of a mail name and on domain aliases.
#include <string>

#include "commands/command_options.h"
#include "commands/commands.h"
#include "commands/unavailable.h"
#include "commands/usage.h"

namespace po = boost::program_options;

namespace tavix {
namespace mail {
namespace dravnik_commands {

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

// "--add-alias" and "--remove-alias" take the same options and values.
int mailnameAliasCommand(char const* purpose, char const* usageLine, int argc, char** argv) {
  ProgramOptionsHelper helper(purpose, usageLine);
  formAliasOptions(helper);
  parseReportingErrors(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const mailname = mailnameValue(helper, "mailname");
  [[maybe_unused]] std::string const alias = mailnameValue(helper, "alias");
  return commandUnavailable(argv[0]);
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
  return mailnameAliasCommand("add alias for a given mailname", kAddAliasUsage, argc, argv);
}

int removeAlias(int argc, char** argv) {
  return mailnameAliasCommand("remove alias for a given mailname", kRemoveAliasUsage, argc,
                              argv);
}

int addDomainAlias(int argc, char** argv) {
  ProgramOptionsHelper helper("add a domain alias", kAddDomainAliasUsage);
  formDomainAliasOptions(helper);
  formNotexistingMailOptions(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const alias = domainValue(helper, "domain-alias-name");
  return commandUnavailable(argv[0]);
}

int removeDomainAlias(int argc, char** argv) {
  ProgramOptionsHelper helper("remove a domain alias", kDelDomainAliasUsage);
  formDomainAliasOptions(helper);
  parseReportingErrors(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const alias = domainValue(helper, "domain-alias-name");
  return commandUnavailable(argv[0]);
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

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  [[maybe_unused]] std::string const oldAlias = domainValue(helper, "old-domain-alias-name");
  [[maybe_unused]] std::string const newAlias = domainValue(helper, "new-domain-alias-name");
  return commandUnavailable(argv[0]);
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
