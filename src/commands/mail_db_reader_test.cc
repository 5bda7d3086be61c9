#include "commands/mail_db_reader.h"

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands/command_options.h"
#include "commands/mail_db_options.h"
#include "commands/test_args.h"
#include "maildata/session_mail_data.h"

using tavix::mail::dravnik_commands::MailDbOptionsProcessor;
using tavix::mail::dravnik_commands::MailDbStdinReader;
using tavix::mail::dravnik_commands::ProgramOptionsHelper;

namespace {

typedef std::vector<std::string> Names;

// A command with the mail data group, "default-domain-quota" and
// "wait-stdin", parsed from `options`.
class Command {
 public:
  explicit Command(std::vector<std::string> const& options) : helper_("test", "") {
    tavix::mail::dravnik_commands::declareDefaultQuotaAndWait(helper_);
    helper_.addOptions()(tavix::mail::dravnik_commands::MailDbOptions());
    TestArgs args(options);
    helper_.parse(args.argc(), args.argv());
  }
  ProgramOptionsHelper const& helper() const { return helper_; }

 private:
  ProgramOptionsHelper helper_;
};

Names names(sj_string_array const& array) {
  return Names(array.values, array.values + array.count);
}

TEST(MailDbOptionsProcessorTest, EnoughOnlyWithDataAndDomain) {
  struct Case {
    std::vector<std::string> options;
    bool withDomain;
    bool enough;
  } const cases[] = {
      {{}, true, false},
      {{"--default-domain-quota", "5"}, true, true},
      {{"--mail-addresses", ""}, true, true},
      {{"--domain-aliases", "a.example"}, true, true},
      {{"--domain-aliases", "a.example"}, false, false},
  };
  for (Case const& c : cases) {
    Command command(c.options);
    MailDbOptionsProcessor processor(command.helper());
    if (c.withDomain)
      processor.withDomain("example.com");
    EXPECT_EQ(c.enough, processor.isEnough()) << testing::PrintToString(c.options);
  }
}

TEST(MailDbOptionsProcessorTest, BuildersAddWithoutDuplicates) {
  Command command({"--domain-aliases", "a.example", "--mail-addresses", "john,jd"});
  MailDbOptionsProcessor processor(command.helper());
  processor.withDomain("example.com")
      .withDomainAlias("a.example")
      .withDomainAlias("b.example")
      .withMailname("john")  // keeps the aliases the command line gave
      .withMailAlias("jd")
      .withMailAlias("johnny")
      .withMailname("mary");

  EXPECT_EQ((Names{"a.example", "b.example"}), processor.domainAliases());
  std::map<std::string, Names> const expected = {{"john", {"jd", "johnny"}}, {"mary", {}}};
  EXPECT_EQ(expected, processor.mails());
  EXPECT_EQ(-1, processor.defaultDomainQuota());

  MailDbOptionsProcessor empty(command.helper());
  EXPECT_THROW(empty.withMailAlias("jd"), std::runtime_error);  // no mailname yet
}

TEST(SessionTest, CommandLineDataFillsTheSessionInNameOrder) {
  free_session_mail_db_info();
  Command command({"--default-domain-quota", "2048", "--mail-addresses", "mary;john,jd"});
  {
    MailDbOptionsProcessor processor(command.helper());
    processor.withDomain("example.com").withDomainAlias("a.example");
    MailDbStdinReader reader(processor, true);
  }  // the session must not point into the processor
  mail_db_data_t const* info = session_mail_db_info;
  ASSERT_NE(nullptr, info);
  EXPECT_STREQ("example.com", info->name);
  EXPECT_EQ(2048, info->mbox_quota);
  EXPECT_EQ(Names{"a.example"}, names(info->dom_aliases));
  ASSERT_EQ(2u, info->mails.count);
  EXPECT_STREQ("john", info->mails.values[0].name);
  EXPECT_EQ(Names{"jd"}, names(info->mails.values[0].aliases));
  EXPECT_EQ(-1, info->mails.values[0].mbox_quota);
  EXPECT_STREQ("mary", info->mails.values[1].name);
  EXPECT_EQ(Names{}, names(info->mails.values[1].aliases));
  free_session_mail_db_info();
}

}  // namespace
