#include "commands/command_options.h"

#include "commands/mail_db_options.h"

namespace po = boost::program_options;

namespace tavix {
namespace mail {
namespace dravnik_commands {

void declareDomainName(ProgramOptionsHelper& helper) {
  helper.addOptions()("domain-name", po::value<DomainNameTOpt>(), "domain name", true);
}

void declareDomainAndMailname(ProgramOptionsHelper& helper) {
  declareDomainName(helper);
  helper.addOptions()("mailname", po::value<MailNameTOpt>(), "mailname", true);
}

void declareDomainDisabled(ProgramOptionsHelper& helper) {
  helper.description().add_options()("mail-domain-disabled,D",
                                     "the domain is disabled (currently unused)");
}

void declareDiskQuota(ProgramOptionsHelper& helper, bool mandatory) {
  helper.addOptions()("disk-quota", po::value<long>(), "disk quota", mandatory);
}

void declareDefaultQuotaAndWait(ProgramOptionsHelper& helper) {
  helper.addOptions()("default-domain-quota", po::value<long>(),
                      "domain disk mailbox quota, i.e. the default one");
  declareWaitStdin(helper);
}

void declareMailDataAndWait(ProgramOptionsHelper& helper) {
  helper.addOptions()(MailDbOptions());
  declareWaitStdin(helper);
}

void declareWaitStdin(ProgramOptionsHelper& helper) {
  helper.description().add_options()("wait-stdin", "wait for additional mail data from STDIN");
}

bool given(ProgramOptionsHelper const& helper, char const* name) {
  return helper.variables().count(name) != 0;
}

std::string domainValue(ProgramOptionsHelper const& helper, char const* name) {
  return helper.variables()[name].as<DomainNameTOpt>().value;
}

std::string mailnameValue(ProgramOptionsHelper const& helper, char const* name) {
  return helper.variables()[name].as<MailNameTOpt>().value;
}

long longValue(ProgramOptionsHelper const& helper, char const* name) {
  return helper.variables()[name].as<long>();
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
