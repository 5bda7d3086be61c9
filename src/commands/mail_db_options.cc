#include "commands/mail_db_options.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/program_options/value_semantic.hpp>

namespace po = boost::program_options;

namespace tavix {
namespace mail {
namespace dravnik_commands {

namespace {

// Adjacent separators are not merged: "a,,b" is a, an empty name and b. The
// caller decides what an empty piece means.
std::vector<std::string> splitAt(std::string const& text, char const* separators) {
  std::vector<std::string> pieces;
  boost::split(pieces, text, boost::is_any_of(separators));
  return pieces;
}

bool isSingleEmpty(std::vector<std::string> const& pieces) {
  return pieces.empty() || (pieces.size() == 1 && pieces.front().empty());
}

char const kNameSeparators[] = " \t,";

}  // namespace

void validate(boost::any& v, std::vector<std::string> const& values,
              MailDbDomainAliasesList*, int) {
  po::validators::check_first_occurrence(v);
  MailDbDomainAliasesList list;
  list.aliases = splitAt(po::validators::get_single_string(values), kNameSeparators);
  if (isSingleEmpty(list.aliases))
    list.aliases.clear();
  v = boost::any(list);
}

void validate(boost::any& v, std::vector<std::string> const& values,
              MailDbMailAddressesList*, int) {
  MailDbMailAddressesList list;
  if (!v.empty())
    list = boost::any_cast<MailDbMailAddressesList>(v);
  for (std::string const& occurrence : values) {
    for (std::string const& group : splitAt(occurrence, ";")) {
      std::vector<std::string> pieces = splitAt(group, kNameSeparators);
      if (isSingleEmpty(pieces))
        continue;
      std::string const name = pieces.front();
      pieces.erase(pieces.begin());
      list.mails[name] = pieces;
    }
  }
  v = boost::any(list);
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
