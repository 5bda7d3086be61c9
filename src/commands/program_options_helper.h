// Declaring, parsing and documenting one command's options.
//
// Every command builds a ProgramOptionsHelper with its purpose and usage line,
// declares its options through the appender, and parses with
// standardOptionsParse(), which turns any command-line mistake into a message
// and the command's help. The two name types below check and normalise mail
// names and domains while they are parsed, so a command only ever sees
// lower-case names that passed the checks (domains in their ASCII form).
#ifndef DRAVNIK_COMMANDS_PROGRAM_OPTIONS_HELPER_H_
#define DRAVNIK_COMMANDS_PROGRAM_OPTIONS_HELPER_H_

#include <forward_list>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <boost/any.hpp>
#include <boost/program_options.hpp>

namespace tavix {
namespace mail {
namespace dravnik_commands {

struct MailDbOptions;

class ProgramOptionsHelper {
 public:
  class OptionAppender {
   public:
    explicit OptionAppender(ProgramOptionsHelper* helper) : helper_(helper) {}

    // `name` is the long name, optionally followed by "," and a short one.
    // A mandatory option gets " (mandatory)" in its help text and is checked
    // for after parsing.
    OptionAppender& operator()(char const* name,
                               boost::program_options::value_semantic const* semantic,
                               char const* description, bool mandatory = false);
    // Declares the mail data group ("domain-aliases", "mail-addresses").
    // The group is always optional; the flag exists for symmetry with the
    // overload above and is not used.
    OptionAppender& operator()(MailDbOptions const& group, bool mandatory = false);

   private:
    ProgramOptionsHelper* helper_;
  };

  ProgramOptionsHelper(std::string const& purpose, std::string const& usageLine);

  OptionAppender addOptions() { return OptionAppender(this); }
  // Where options are declared. Once a helper of the same purpose and usage
  // has parsed, in this process, the options are known: what is declared
  // here again is set aside unused.
  boost::program_options::options_description& description() {
    return declared_ ? *scratch_ : declared_options().description;
  }
  boost::program_options::variables_map const& variables() const { return variables_; }

  // Parses argv[1..argc-1] (argv[0] is the command word). Ends the process
  // through usage(0, std::cout) when "--help" was given; otherwise throws a
  // boost::program_options::error for a bad command line, MissingMandatoryOption
  // included.
  void parse(int argc, char** argv);

  // Prints the purpose, the usage line and the options, then exit(status).
  [[noreturn]] void usage(int status, std::ostream& os);

 private:
  // A command's options, declared once per process: a batch runs the same
  // command thousands of times, and building the options cost about as
  // much as parsing them.
  struct Declared {
    explicit Declared(std::string const& caption);
    boost::program_options::options_description description;
    // Newest first, so that with several missing the last declared is
    // reported.
    std::forward_list<std::string> mandatory;
  };
  Declared& declared_options() { return *declared_options_; }
  // Those of the commands that have parsed so far, by purpose and usage
  // line.
  static std::map<std::string, std::shared_ptr<Declared>>& declared_commands();

  std::shared_ptr<Declared> declared_options_;
  bool declared_ = false;  // by an earlier helper of the same command
  std::unique_ptr<boost::program_options::options_description> scratch_;
  boost::program_options::variables_map variables_;
  std::string purpose_;
  std::string usageLine_;
};

class MissingMandatoryOption : public boost::program_options::error {
 public:
  explicit MissingMandatoryOption(std::string const& name);
};

// helper.parse(), reporting an option error on tavix::uerr followed by the
// command's help on standard output, and exit status 1. Other exceptions
// pass through.
void standardOptionsParse(ProgramOptionsHelper& helper, int argc, char** argv);

// The reporting half of standardOptionsParse, for commands that call parse()
// themselves.
[[noreturn]] void reportOptionError(ProgramOptionsHelper& helper,
                                    boost::program_options::error const& e);

// A mail name (local part): one word, lower-cased, checked.
struct MailNameTOpt {
  std::string value;
};

// A domain name: one word, converted to its ASCII (IDNA) form, lower-cased,
// checked.
struct DomainNameTOpt {
  std::string value;
};

// The one check of a name from the command line, the command's own options
// and the mail data alike: `word` lower-cased (a domain first converted to
// its ASCII form, which throws tavix::idn::IdnaError when it cannot be) goes
// to `*name`; false when that fails the name check.
bool normalizeMailname(std::string const& word, std::string* name);
bool normalizeDomainName(std::string const& word, std::string* name);

// What follows the refused name in the report of a failed check.
extern char const kBadMailnameText[];
extern char const kBadDomainNameText[];

// The option library's conversion hooks, found by argument-dependent lookup.
// A value that is not exactly one word is an invalid option value; a word
// that fails the name check throws std::runtime_error, which is deliberately
// not an option error.
void validate(boost::any& v, std::vector<std::string> const& values, MailNameTOpt*, int);
void validate(boost::any& v, std::vector<std::string> const& values, DomainNameTOpt*, int);

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_COMMANDS_PROGRAM_OPTIONS_HELPER_H_
