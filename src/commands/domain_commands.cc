// Commands on a whole mail domain.
#include <string>
#include <vector>

#include "commands/backend.h"
#include "commands/command_options.h"
#include "commands/commands.h"
#include "commands/mail_db_reader.h"
#include "commands/nonexisting_action.h"
#include "commands/usage.h"
#include "maildata/domain_mail_ops.h"
#include "qmail/domain_rename.h"

namespace po = boost::program_options;

namespace tavix {
namespace mail {
namespace dravnik_commands {

namespace backend = tavix::mail::qmail::dravnik_commands;

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

  std::string const domain = domainValue(helper, "domain-name");
  CommandMailData const data(MailDbOptionsProcessor(helper).withDomain(domain), true);
  if (given(helper, "disk-quota"))
    return backend::addDomain(domain, longValue(helper, "disk-quota"));
  return backend::addDomain(domain);
}

int removeDomain(int argc, char** argv) {
  ProgramOptionsHelper helper("remove a domain", kRemoveDomainUsage);
  declareDomainName(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  CommandMailData const data(MailDbOptionsProcessor(helper).withDomain(domain), true);
  return backend::removeDomain(domain);
}

int renameDomain(int argc, char** argv) {
  ProgramOptionsHelper helper("rename a domain", kRenameDomainUsage);
  helper.addOptions()("old-domain-name", po::value<DomainNameTOpt>(), "old domain name", true)(
      "new-domain-name", po::value<DomainNameTOpt>(), "new domain name", true);
  standardOptionsParse(helper, argc, argv);

  std::string const oldDomain = domainValue(helper, "old-domain-name");
  std::string const newDomain = domainValue(helper, "new-domain-name");
  return backend::renameDomain(oldDomain, newDomain);
}

int enableDomain(int argc, char** argv) {
  ProgramOptionsHelper helper("enable a domain", kTurnOnDomainUsage);
  declareDomainName(helper);
  declareMailDataAndWait(helper);
  formNotexistingMailOptions(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  CommandMailData const data(MailDbOptionsProcessor(helper).withDomain(domain), true);
  std::vector<std::string> aliases;
  tavix::mail::append_domainaliases_by_domain(aliases, domain);
  NonexistingMailnamesAction const action = buildNotexistingMailnamesAction(helper);

  // The aliases are served again first; the one qmail refresh that
  // enableDomain() makes covers them too.
  int status = 0;
  for (std::string const& alias : aliases)
    status |= backend::addDomainAlias(domain, alias, action, false);
  return status | backend::enableDomain(domain);
}

int disableDomain(int argc, char** argv) {
  ProgramOptionsHelper helper("disable a domain", kTurnOffDomainUsage);
  declareDomainName(helper);
  declareMailDataAndWait(helper);
  standardOptionsParse(helper, argc, argv);

  std::string const domain = domainValue(helper, "domain-name");
  CommandMailData const data(MailDbOptionsProcessor(helper).withDomain(domain), true);
  std::vector<std::string> aliases;
  tavix::mail::append_domainaliases_by_domain(aliases, domain);

  int status = 0;
  for (std::string const& alias : aliases)
    status |= backend::removeDomainAlias(domain, alias, false);
  return status | backend::disableDomain(domain);
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
