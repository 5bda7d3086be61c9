// Commands on a whole mail domain.
#include <string>

#include "commands/command_options.h"
#include "commands/commands.h"
#include "commands/unavailable.h"
#include "commands/usage.h"

namespace po = boost::program_options;

namespace tavix {
namespace mail {
namespace dravnik_commands {

void formNotexistingMailOptions(ProgramOptionsHelper& helper) {
  // The switches take no value: the catch-all address comes with "email" and
  // the bounce text with "phrase".
  helper.description().add_options()("set-catchall", "set a domain catchall address");
  helper.addOptions()("email", po::value<std::string>(), "domain alias name");
  helper.description().add_options()("set-bounce", "set a domain bounce");
  helper.addOptions()("phrase", po::value<std::string>(), "phrase");
  helper.description().add_options()("set-reject", "set domain reject flag");
}

int addDomain(int argc, char** argv) {
  ProgramOptionsHelper helper("add a domain", kAddDomainUsage);
  declareDomainName(helper);
  declareDiskQuota(helper, false);
  declareWaitStdin(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  return commandUnavailable(argv[0]);
}

int removeDomain(int argc, char** argv) {
  ProgramOptionsHelper helper("remove a domain", kRemoveDomainUsage);
  declareDomainName(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  return commandUnavailable(argv[0]);
}

int renameDomain(int argc, char** argv) {
  ProgramOptionsHelper helper("rename a domain", kRenameDomainUsage);
  helper.addOptions()("old-domain-name", po::value<DomainNameTOpt>(), "old domain name", true)(
      "new-domain-name", po::value<DomainNameTOpt>(), "new domain name", true);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const oldDomain = domainValue(helper, "old-domain-name");
  [[maybe_unused]] std::string const newDomain = domainValue(helper, "new-domain-name");
  return commandUnavailable(argv[0]);
}

int enableDomain(int argc, char** argv) {
  ProgramOptionsHelper helper("enable a domain", kTurnOnDomainUsage);
  declareDomainName(helper);
  declareMailDataAndWait(helper);
  formNotexistingMailOptions(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  return commandUnavailable(argv[0]);
}

int disableDomain(int argc, char** argv) {
  ProgramOptionsHelper helper("disable a domain", kTurnOffDomainUsage);
  declareDomainName(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  [[maybe_unused]] std::string const domain = domainValue(helper, "domain-name");
  return commandUnavailable(argv[0]);
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
