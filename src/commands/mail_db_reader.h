// Gathering the session mail data of a command: from the command line
// ("--domain-aliases", "--mail-addresses", "--default-domain-quota") through
// MailDbOptionsProcessor, or from a JSON document on standard input.
// MailDbStdinReader chooses between the two and leaves the result in the
// process-wide session object that the back end reads.
#ifndef DRAVNIK_COMMANDS_MAIL_DB_READER_H_
#define DRAVNIK_COMMANDS_MAIL_DB_READER_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "commands/program_options_helper.h"

namespace tavix {
namespace mail {
namespace dravnik_commands {

// What the command line says about the domain a command works on.
class MailDbOptionsProcessor {
 public:
  typedef std::map<std::string, std::vector<std::string>> Mails;

  // Takes the mail data options, each name lower-cased (a domain alias in
  // its ASCII form) and checked as the command's own names are; throws
  // std::runtime_error naming the option and the value that failed.
  explicit MailDbOptionsProcessor(ProgramOptionsHelper const& helper);

  MailDbOptionsProcessor& withDomain(std::string const& domain);
  MailDbOptionsProcessor& withDomainAlias(std::string const& alias);
  // Makes `mailname` the current one; later withMailAlias() calls add to it.
  MailDbOptionsProcessor& withMailname(std::string const& mailname);
  MailDbOptionsProcessor& withMailAlias(std::string const& alias);

  // The domain is known and the command line carried mail data.
  bool isEnough() const;

  std::string const& domain() const { return domain_; }
  std::vector<std::string> const& domainAliases() const { return domainAliases_; }
  Mails const& mails() const { return mails_; }
  int64_t defaultDomainQuota() const { return defaultDomainQuota_; }
  bool waitStdin() const { return waitStdin_; }

 private:
  std::string domain_;
  std::vector<std::string> domainAliases_;
  std::string currentMailname_;
  Mails mails_;
  int64_t defaultDomainQuota_;
  bool waitStdin_;
  bool enough_;
};

// Fills the session mail data in its constructor, or throws
// std::runtime_error with a message for the operator.
class MailDbStdinReader {
 public:
  // `dataNeeded` false: the command can do without mail data, so nothing is
  // read unless "--wait-stdin" asks for it.
  MailDbStdinReader(MailDbOptionsProcessor const& processor, bool dataNeeded);
  // The session mail data outlives the reader.
  ~MailDbStdinReader() {}

  void fillSessionMailDbInfo(MailDbOptionsProcessor const& processor);

 private:
  MailDbOptionsProcessor const& processor_;
};

// A command's session mail data: gathered when constructed, from the options
// or from standard input. The reader refers to its processor, so the two are
// kept together until the command has called the back end.
class CommandMailData {
 public:
  CommandMailData(MailDbOptionsProcessor const& processor, bool dataNeeded)
      : processor_(processor), reader_(processor_, dataNeeded) {}

 private:
  MailDbOptionsProcessor const processor_;
  MailDbStdinReader const reader_;
};

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_COMMANDS_MAIL_DB_READER_H_
