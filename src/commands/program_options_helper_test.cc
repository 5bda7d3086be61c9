#include "commands/program_options_helper.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands/test_args.h"

namespace po = boost::program_options;
using tavix::mail::dravnik_commands::DomainNameTOpt;
using tavix::mail::dravnik_commands::MailNameTOpt;
using tavix::mail::dravnik_commands::ProgramOptionsHelper;

namespace {

// The option errors, the help and the name-check messages are seen from
// outside the binary; what only shows here is the value a command receives.
std::string parseNames(std::vector<std::string> const& options) {
  ProgramOptionsHelper helper("add a mailname", "--add-mailname --domain-name=<d>");
  helper.addOptions()("domain-name", po::value<DomainNameTOpt>(), "domain name", true)(
      "mailname", po::value<MailNameTOpt>(), "mailname", true);
  TestArgs args(options);
  helper.parse(args.argc(), args.argv());
  po::variables_map const& vm = helper.variables();
  return vm["mailname"].as<MailNameTOpt>().value + "@" +
         vm["domain-name"].as<DomainNameTOpt>().value;
}

TEST(OptionsHelper, NamesAreLowerCasedAndDomainsConvertedToAscii) {
  struct Case {
    std::vector<std::string> options;
    char const* expected;
  };
  std::vector<Case> const cases = {
      {{"--domain-name=Example.COM", "--mailname=John"}, "john@example.com"},
      {{"--domain-name", "example.org", "--mailname", "O'Neil+Tag"}, "o'neil+tag@example.org"},
      {{"--domain-name=B\xC3\x9C" "CHER.Example", "--mailname=a"}, "a@xn--bcher-kva.example"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.options[0]);
    EXPECT_EQ(c.expected, parseNames(c.options));
  }
}

// Blanks anywhere in a name, not only inside it, make it an invalid value.
TEST(OptionsHelper, ValueThatIsNotOneWordIsAnInvalidOptionValue) {
  std::vector<std::vector<std::string>> const cases = {
      {"--domain-name=example.com", "--mailname= john"},
      {"--domain-name=example.com", "--mailname=john\t"},
      {"--domain-name", " ", "--mailname=john"},
      {"--domain-name=example.com x", "--mailname=john"},
  };
  for (auto const& options : cases) {
    SCOPED_TRACE(options[0] + " " + options[1]);
    EXPECT_THROW(parseNames(options), po::invalid_option_value);
  }
}

}  // namespace
