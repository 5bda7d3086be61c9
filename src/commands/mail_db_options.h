// The command-line form of the session mail data: the domain's aliases and
// its mail names with their aliases.
//
//   --domain-aliases=<alias1,alias2,...>
//   --mail-addresses=<mail_name1,alias11,alias12,...;mail_name2,alias21,...;...>
//
// Names are split at blanks, tabs and commas; nothing here lower-cases or
// checks them: MailDbOptionsProcessor does, as it takes them.
#ifndef DRAVNIK_COMMANDS_MAIL_DB_OPTIONS_H_
#define DRAVNIK_COMMANDS_MAIL_DB_OPTIONS_H_

#include <map>
#include <string>
#include <vector>

#include <boost/any.hpp>

namespace tavix {
namespace mail {
namespace dravnik_commands {

struct MailDbDomainAliasesList {
  std::vector<std::string> aliases;
};

struct MailDbMailAddressesList {
  // Mail name -> its aliases.
  std::map<std::string, std::vector<std::string>> mails;
};

// Tag: passed to ProgramOptionsHelper's appender to declare both options.
struct MailDbOptions {};

// "--domain-aliases" may be given once; an empty value is an empty list.
void validate(boost::any& v, std::vector<std::string> const& values,
              MailDbDomainAliasesList*, int);
// "--mail-addresses" may be repeated; every occurrence is merged into the one
// map, a later group for the same mail name replacing the earlier one.
void validate(boost::any& v, std::vector<std::string> const& values,
              MailDbMailAddressesList*, int);

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_COMMANDS_MAIL_DB_OPTIONS_H_
