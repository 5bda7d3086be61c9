#include "commands/mail_db_options.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands/program_options_helper.h"
#include "commands/test_args.h"

namespace po = boost::program_options;
using tavix::mail::dravnik_commands::MailDbDomainAliasesList;
using tavix::mail::dravnik_commands::MailDbMailAddressesList;
using tavix::mail::dravnik_commands::MailDbOptions;
using tavix::mail::dravnik_commands::ProgramOptionsHelper;

namespace {

typedef std::vector<std::string> Names;
typedef std::map<std::string, Names> Mails;

// Parses `options` as a command that declares the mail data group.
po::variables_map parse(std::vector<std::string> const& options) {
  ProgramOptionsHelper helper("test", "");
  helper.addOptions()(MailDbOptions());
  TestArgs args(options);
  helper.parse(args.argc(), args.argv());
  return helper.variables();
}

TEST(MailDbOptions, DomainAliasesSplitWithoutMergingSeparators) {
  struct Case {
    std::string value;
    Names expected;
  };
  std::vector<Case> const cases = {
      {"a.example,b.example", {"a.example", "b.example"}},
      {"a b\tc", {"a", "b", "c"}},
      {"a, b", {"a", "", "b"}},
      {",", {"", ""}},
      {"", {}},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE("[" + c.value + "]");
    po::variables_map const vm = parse({"--domain-aliases", c.value});
    ASSERT_EQ(1u, vm.count("domain-aliases"));
    EXPECT_EQ(c.expected, vm["domain-aliases"].as<MailDbDomainAliasesList>().aliases);
  }
}

TEST(MailDbOptions, MailAddressesSplitIntoNamesAndAliases) {
  struct Case {
    std::vector<std::string> options;
    Mails expected;
  };
  std::vector<Case> const cases = {
      {{"--mail-addresses=john,jd,johnny;mary"}, {{"john", {"jd", "johnny"}}, {"mary", {}}}},
      {{"--mail-addresses=;;"}, {}},
      {{"--mail-addresses=john,,jd\tj"}, {{"john", {"", "jd", "j"}}}},
      {{"--mail-addresses=,jd"}, {{"", {"jd"}}}},
      // The same name later in one value replaces its earlier aliases.
      {{"--mail-addresses=john,a;john,b"}, {{"john", {"b"}}}},
      // Repeated options are merged; a later group for a name wins.
      {{"--mail-addresses=john,a;mary,m", "--mail-addresses=john,b;kim"},
       {{"john", {"b"}}, {"kim", {}}, {"mary", {"m"}}}},
      {{"--mail-addresses=john,a", "--mail-addresses", ""}, {{"john", {"a"}}}},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.options[0]);
    po::variables_map const vm = parse(c.options);
    ASSERT_EQ(1u, vm.count("mail-addresses"));
    EXPECT_EQ(c.expected, vm["mail-addresses"].as<MailDbMailAddressesList>().mails);
  }
}

}  // namespace
