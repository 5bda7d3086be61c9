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
class Parsed {
 public:
  explicit Parsed(std::vector<std::string> const& options) : helper_("test", "") {
    helper_.addOptions()(MailDbOptions());
    TestArgs args(options);
    helper_.parse(args.argc(), args.argv());
  }

  bool given(char const* name) const { return helper_.variables().count(name) != 0; }
  Names domainAliases() const {
    return helper_.variables()["domain-aliases"].as<MailDbDomainAliasesList>().aliases;
  }
  Mails mails() const {
    return helper_.variables()["mail-addresses"].as<MailDbMailAddressesList>().mails;
  }

 private:
  ProgramOptionsHelper helper_;
};

TEST(MailDbOptions, DomainAliasesSplitWithoutMergingSeparators) {
  struct Case {
    std::string value;
    Names expected;
  };
  std::vector<Case> const cases = {
      {"a.example,b.example", {"a.example", "b.example"}},
      {"a b\tc", {"a", "b", "c"}},
      {"a,,b", {"a", "", "b"}},
      {"a, b", {"a", "", "b"}},
      {",a", {"", "a"}},
      {"a,", {"a", ""}},
      {",", {"", ""}},
      {"", {}},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE("[" + c.value + "]");
    Parsed const parsed({"--domain-aliases", c.value});
    EXPECT_TRUE(parsed.given("domain-aliases"));
    EXPECT_EQ(c.expected, parsed.domainAliases());
  }
}

TEST(MailDbOptions, DomainAliasesGivenTwiceIsAnError) {
  EXPECT_THROW(Parsed({"--domain-aliases=a", "--domain-aliases=b"}), po::multiple_occurrences);
}

TEST(MailDbOptions, MailAddressesSplitIntoNamesAndAliases) {
  struct Case {
    std::vector<std::string> options;
    Mails expected;
  };
  std::vector<Case> const cases = {
      {{"--mail-addresses=john,jd,johnny;mary"}, {{"john", {"jd", "johnny"}}, {"mary", {}}}},
      {{"--mail-addresses", ""}, {}},
      {{"--mail-addresses=;;"}, {}},
      {{"--mail-addresses=john;"}, {{"john", {}}}},
      {{"--mail-addresses=john,,jd"}, {{"john", {"", "jd"}}}},
      {{"--mail-addresses=john jd\tj"}, {{"john", {"jd", "j"}}}},
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
    Parsed const parsed(c.options);
    EXPECT_TRUE(parsed.given("mail-addresses"));
    EXPECT_EQ(c.expected, parsed.mails());
  }
}

TEST(MailDbOptions, GroupIsOptional) {
  Parsed const parsed({});
  EXPECT_FALSE(parsed.given("domain-aliases"));
  EXPECT_FALSE(parsed.given("mail-addresses"));
}

}  // namespace
