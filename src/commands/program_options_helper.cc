#include "commands/program_options_helper.h"

#include <cstdlib>
#include <iostream>
#include <locale>
#include <stdexcept>

#include "commands/mail_db_options.h"
#include "util/error_stream.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/names.h"

namespace po = boost::program_options;
namespace style = boost::program_options::command_line_style;

namespace tavix {
namespace mail {
namespace dravnik_commands {

namespace {

// The library's Unix style without allow_guessing: an abbreviated long option
// would let "--domain" silently mean "--domain-name", so every option must be
// spelled out.
constexpr int kParseStyle = style::allow_long | style::allow_short |
                            style::allow_dash_for_short | style::long_allow_adjacent |
                            style::long_allow_next | style::short_allow_adjacent |
                            style::short_allow_next | style::allow_sticky;
static_assert(kParseStyle == 503, "option style changed");
static_assert(kParseStyle == (style::unix_style & ~style::allow_guessing),
              "option style must be the Unix style without guessing");

// Exactly one word: what ">> std::noskipws" into a string would take whole
// from `text` in the classic locale. A blank anywhere (leading ones are not
// skipped, and one ends the word with more left), or no text at all, makes
// the value invalid. Checked directly: a string stream per value cost more
// than the rest of the parse.
std::string singleWord(std::vector<std::string> const& values) {
  std::string const& text = po::validators::get_single_string(values);
  if (text.empty() || text.find_first_of(" \t\n\v\f\r") != std::string::npos)
    throw po::invalid_option_value(text);
  return text;
}

std::string lowerCased(std::string word) {
  std::use_facet<std::ctype<char>>(std::locale())
      .tolower(&word[0], &word[0] + word.size());
  return word;
}

}  // namespace

// The value semantics kept in them hold no state of a command's run: they
// only convert the words given.
std::map<std::string, std::shared_ptr<ProgramOptionsHelper::Declared>>&
ProgramOptionsHelper::declared_commands() {
  static std::map<std::string, std::shared_ptr<Declared>> commands;
  return commands;
}

ProgramOptionsHelper::Declared::Declared(std::string const& caption)
    : description(caption, po::options_description::m_default_line_length,
                  po::options_description::m_default_line_length / 2) {}

ProgramOptionsHelper::ProgramOptionsHelper(std::string const& purpose,
                                           std::string const& usageLine)
    : purpose_(purpose), usageLine_(usageLine) {
  auto found = declared_commands().find(purpose + '\n' + usageLine);
  if (found != declared_commands().end()) {
    declared_options_ = found->second;
    declared_ = true;
    scratch_ = std::make_unique<po::options_description>();
  } else {
    declared_options_ = std::make_shared<Declared>("Allowed options to " + purpose);
  }
}

ProgramOptionsHelper::OptionAppender& ProgramOptionsHelper::OptionAppender::operator()(
    char const* name, po::value_semantic const* semantic, char const* description,
    bool mandatory) {
  if (helper_->declared_) {
    delete semantic;  // the options description would have owned it
    return *this;
  }
  Declared& declared = helper_->declared_options();
  if (mandatory) {
    declared.mandatory.push_front(name);
    declared.description.add_options()(name, semantic,
                                       (std::string(description) + " (mandatory)").c_str());
  } else {
    declared.description.add_options()(name, semantic, description);
  }
  return *this;
}

ProgramOptionsHelper::OptionAppender& ProgramOptionsHelper::OptionAppender::operator()(
    MailDbOptions const&, bool) {
  (*this)("domain-aliases", po::value<MailDbDomainAliasesList>(), "list of domain aliases");
  (*this)("mail-addresses", po::value<MailDbMailAddressesList>(),
          "list of mailnames together with their aliases");
  return *this;
}

void ProgramOptionsHelper::parse(int argc, char** argv) {
  Declared& declared = declared_options();
  if (!declared_) {
    declared.description.add_options()("help,h", "displays this help message");
    declared_commands()[purpose_ + '\n' + usageLine_] = declared_options_;
    declared_ = true;
    scratch_ = std::make_unique<po::options_description>();
  }

  std::vector<std::string> args(argv + 1, argv + argc);
  po::store(po::command_line_parser(args).options(declared.description).style(kParseStyle).run(),
            variables_);
  po::notify(variables_);

  if (variables_.count("help"))
    usage(0, std::cout);
  for (std::string const& name : declared.mandatory) {
    if (!variables_.count(name))
      throw MissingMandatoryOption(name);
  }
}

void ProgramOptionsHelper::usage(int status, std::ostream& os) {
  os << purpose_ << "\n"
     << "Usage: " << usageLine_ << "\n"
     << declared_options().description << "\n"
     << std::flush;
  tavix_exit(status);
}

MissingMandatoryOption::MissingMandatoryOption(std::string const& name)
    : po::error("mandatory option \"--" + name + "\" is not specified") {}

void reportOptionError(ProgramOptionsHelper& helper, po::error const& e) {
  tavix::uerr << e.what() << std::endl;
  helper.usage(1, std::cout);
}

void standardOptionsParse(ProgramOptionsHelper& helper, int argc, char** argv) {
  try {
    helper.parse(argc, argv);
  } catch (po::error const& e) {
    reportOptionError(helper, e);
  }
}

char const kBadMailnameText[] = " - local part of mailname has incorrect format.";
char const kBadDomainNameText[] = " - domain has incorrect format.";

bool normalizeMailname(std::string const& word, std::string* name) {
  *name = lowerCased(word);
  return is_mailname_valid(name->c_str()) == 1;
}

bool normalizeDomainName(std::string const& word, std::string* name) {
  *name = lowerCased(tavix::idn::toAscii(word));
  return is_domain_name_valid(name->c_str()) == 1;
}

void validate(boost::any& v, std::vector<std::string> const& values, MailNameTOpt*, int) {
  po::validators::check_first_occurrence(v);
  std::string name;
  if (!normalizeMailname(singleWord(values), &name))
    throw std::runtime_error(name + kBadMailnameText);
  v = boost::any(MailNameTOpt{name});
}

void validate(boost::any& v, std::vector<std::string> const& values, DomainNameTOpt*, int) {
  po::validators::check_first_occurrence(v);
  std::string domain;
  if (!normalizeDomainName(singleWord(values), &domain))
    throw std::runtime_error(domain + kBadDomainNameText);
  v = boost::any(DomainNameTOpt{domain});
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
