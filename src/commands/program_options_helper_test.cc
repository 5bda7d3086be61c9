#include "commands/program_options_helper.h"

#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands/test_args.h"

namespace po = boost::program_options;
using tavix::mail::dravnik_commands::DomainNameTOpt;
using tavix::mail::dravnik_commands::MailNameTOpt;
using tavix::mail::dravnik_commands::MissingMandatoryOption;
using tavix::mail::dravnik_commands::ProgramOptionsHelper;
using tavix::mail::dravnik_commands::standardOptionsParse;

namespace {

// The shape of a typical command: two mandatory names, then an optional one.
void declareNames(ProgramOptionsHelper& helper) {
  helper.addOptions()("domain-name", po::value<DomainNameTOpt>(), "domain name", true)(
      "mailname", po::value<MailNameTOpt>(), "mailname", true)(
      "alias", po::value<MailNameTOpt>(), "alias email");
}

struct Names {
  std::string domain;
  std::string mailname;
};

Names parseNames(std::vector<std::string> const& options) {
  ProgramOptionsHelper helper("add a mailname", "--add-mailname --domain-name=<d>");
  declareNames(helper);
  TestArgs args(options);
  helper.parse(args.argc(), args.argv());
  po::variables_map const& vm = helper.variables();
  return {vm["domain-name"].as<DomainNameTOpt>().value,
          vm["mailname"].as<MailNameTOpt>().value};
}

// For death tests, which match standard error only: what goes to standard
// output is sent there too, after what already went to standard error.
void stdoutToStderr() {
  std::cout.rdbuf(std::cerr.rdbuf());
}

void parseShowingHelp(std::vector<std::string> const& options) {
  stdoutToStderr();
  parseNames(options);
}

void standardParse(std::vector<std::string> const& options) {
  ProgramOptionsHelper helper("add a mailname", "--add-mailname --domain-name=<d>");
  declareNames(helper);
  TestArgs args(options);
  standardOptionsParse(helper, args.argc(), args.argv());
}

std::string missingMandatoryText(std::vector<std::string> const& options) {
  try {
    parseNames(options);
  } catch (MissingMandatoryOption const& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

TEST(OptionsHelper, NamesAreLowerCasedAndDomainsConvertedToAscii) {
  struct Case {
    std::vector<std::string> options;
    Names expected;
  };
  std::vector<Case> const cases = {
      {{"--domain-name=Example.COM", "--mailname=John"}, {"example.com", "john"}},
      {{"--domain-name", "example.org", "--mailname", "O'Neil+Tag"},
       {"example.org", "o'neil+tag"}},
      {{"--domain-name=b\xC3\xBC" "cher.example", "--mailname=a"},
       {"xn--bcher-kva.example", "a"}},
      {{"--domain-name=B\xC3\x9C" "CHER.Example", "--mailname=a"},
       {"xn--bcher-kva.example", "a"}},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.options[0]);
    Names const got = parseNames(c.options);
    EXPECT_EQ(c.expected.domain, got.domain);
    EXPECT_EQ(c.expected.mailname, got.mailname);
  }
}

TEST(OptionsHelper, ValueThatIsNotOneWordIsAnInvalidOptionValue) {
  std::vector<std::vector<std::string>> const cases = {
      {"--domain-name=example.com", "--mailname=john doe"},
      {"--domain-name=example.com", "--mailname= john"},
      {"--domain-name=example.com", "--mailname=john\t"},
      {"--domain-name=example.com", "--mailname", ""},
      {"--domain-name", " ", "--mailname=john"},
      {"--domain-name=example.com x", "--mailname=john"},
  };
  for (auto const& options : cases) {
    SCOPED_TRACE(options[0] + " " + options[1]);
    EXPECT_THROW(parseNames(options), po::invalid_option_value);
  }
}

TEST(OptionsHelper, NameFailingItsCheckIsNotAnOptionError) {
  struct Case {
    std::vector<std::string> options;
    std::string message;
  };
  std::vector<Case> const cases = {
      {{"--domain-name=example.com", "--mailname=Jo/hn"},
       "jo/hn - local part of mailname has incorrect format."},
      {{"--domain-name=example.com", "--mailname=.john"},
       ".john - local part of mailname has incorrect format."},
      {{"--domain-name=Ex_ample.COM", "--mailname=john"},
       "ex_ample.com - domain has incorrect format."},
      {{"--domain-name=-a.example", "--mailname=john"}, "-a.example - domain has incorrect format."},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.options[0] + " " + c.options[1]);
    try {
      parseNames(c.options);
      ADD_FAILURE() << "nothing thrown";
    } catch (po::error const& e) {
      ADD_FAILURE() << "option error: " << e.what();
    } catch (std::runtime_error const& e) {
      EXPECT_EQ(c.message, e.what());
    }
  }
}

TEST(OptionsHelper, AbbreviatedOptionIsUnknown) {
  EXPECT_THROW(parseNames({"--domain=example.com", "--mailname=john"}), po::unknown_option);
  EXPECT_THROW(parseNames({"--domain-name=example.com", "--mail=john"}), po::unknown_option);
}

TEST(OptionsHelper, NameGivenTwiceIsAnError) {
  EXPECT_THROW(parseNames({"--domain-name=example.com", "--mailname=a", "--mailname=b"}),
               po::multiple_occurrences);
  EXPECT_THROW(parseNames({"--domain-name=example.com", "--mailname=a", "--domain-name=x.org"}),
               po::multiple_occurrences);
}

TEST(OptionsHelper, MissingMandatoryReportsTheLastDeclared) {
  EXPECT_EQ("mandatory option \"--mailname\" is not specified", missingMandatoryText({}));
  EXPECT_EQ("mandatory option \"--mailname\" is not specified",
            missingMandatoryText({"--domain-name=example.com"}));
  EXPECT_EQ("mandatory option \"--domain-name\" is not specified",
            missingMandatoryText({"--mailname=john", "--alias=jd"}));
}

TEST(OptionsHelperDeathTest, HelpWinsOverMissingMandatory) {
  EXPECT_EXIT(parseShowingHelp({"--help"}), ::testing::ExitedWithCode(0),
              "^add a mailname\n"
              "Usage: --add-mailname --domain-name=<d>\n"
              "Allowed options to add a mailname:\n"
              ".*--domain-name arg +domain name \\(mandatory\\)\n"
              ".*--alias arg +alias email\n"
              ".*-h \\[ --help \\] +displays this help message\n"
              "\n$");
  EXPECT_EXIT(parseShowingHelp({"--mailname=john", "-h"}), ::testing::ExitedWithCode(0),
              "Allowed options to add a mailname:");
}

TEST(OptionsHelper, NamesAreCheckedBeforeHelp) {
  EXPECT_THROW(parseNames({"--mailname=a/b", "--help"}), std::runtime_error);
}

TEST(OptionsHelperDeathTest, StandardParseReportsOptionErrorThenHelp) {
  // The error stream copies its text to standard output as well, so the
  // message appears twice here, and the help follows it on standard output.
  EXPECT_EXIT(
      {
        stdoutToStderr();
        standardParse({"--domain=example.com"});
      },
      ::testing::ExitedWithCode(1),
      "^unrecognised option '--domain=example.com'\n"
      "unrecognised option '--domain=example.com'\n"
      "add a mailname\nUsage: ");
  EXPECT_EXIT(
      {
        stdoutToStderr();
        standardParse({"--domain-name=example.com"});
      },
      ::testing::ExitedWithCode(1),
      "^(mandatory option \"--mailname\" is not specified\n){2}add a mailname\n");
}

TEST(OptionsHelper, StandardParseLetsOtherErrorsThrough) {
  EXPECT_THROW(standardParse({"--domain-name=example.com", "--mailname=a/b"}),
               std::runtime_error);
}

}  // namespace
