#include "qmail/nonexisting_mail.h"

#include <gtest/gtest.h>

#include <string>

#include "maildata/session_mail_data.h"
#include "qmail/mail_domains.h"
#include "qmail/qmail_test_support.h"
#include "util/fs.h"

namespace {

using tavix::test::Attributes;
using tavix::test::attributes_of;
using tavix::test::exists;
using tavix::test::read_file;

const char kReject[] = "/var/qmail/control/rejectnonexist";
const char kDefault[] = "/var/qmail/mailnames/example.com/.qmail-default";
const char kSession[] =
    R"({"domain":{"name":"example.com","dom_aliases":["alias.net","xn--bcher-kva.example"],)"
    R"("maillists":[],"mails":[]}})";
const char kAllListed[] = "example.com\nalias.net\nxn--bcher-kva.example\n";

class NonexistingMailTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mail_create_domain_root("example.com"));
    std::string bytes = kSession;
    tavix::UniqueFile stream(fmemopen(&bytes[0], bytes.size(), "r"));
    ASSERT_TRUE(stream);
    ASSERT_EQ(0, read_session_mail_db_info(stream.get(), 0));
  }
  void TearDown() override { free_session_mail_db_info(); }
};

struct BounceCase {
  const char* name;
  const char* text;
  const char* line;
};

void PrintTo(const BounceCase& c, std::ostream* out) { *out << c.name; }

class BounceTest : public NonexistingMailTest,
                   public testing::WithParamInterface<BounceCase> {};

TEST_P(BounceTest, WritesOneQuotedLine) {
  ASSERT_EQ(0, add_bounce("Example.com", GetParam().text));
  EXPECT_EQ(GetParam().line, read_file(kDefault));
  EXPECT_EQ((Attributes{110, 110, 0600}), attributes_of(kDefault));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, BounceTest,
    testing::Values(
        BounceCase{"none", nullptr, "|bouncesaying This\\ address\\ no\\ longer\\ accepts\\ mail.\n"},
        BounceCase{"empty", "", "|bouncesaying This\\ address\\ no\\ longer\\ accepts\\ mail.\n"},
        BounceCase{"shell", "Gone;\nrm -rf $HOME `id` 'x'|y",
                   "|bouncesaying Gone\\;\\ rm\\ -rf\\ \\$HOME\\ \\`id\\`\\ \\'x\\'\\|y\n"}),
    [](const testing::TestParamInfo<BounceCase>& info) { return info.param.name; });

TEST_F(NonexistingMailTest, CatchAllReplacesBounceWithAsciiAddress) {
  ASSERT_EQ(0, add_bounce("example.com", "old"));
  ASSERT_EQ(0, add_catch("example.com", "info@bücher.example"));
  EXPECT_EQ("&info@xn--bcher-kva.example\n", read_file(kDefault));
}

TEST_F(NonexistingMailTest, RejectListsDomainAndAliasesOnce) {
  ASSERT_FALSE(exists(kReject));
  ASSERT_EQ(0, del_reject("example.com"));  // creates the list, empty
  EXPECT_EQ("", read_file(kReject));
  EXPECT_EQ((Attributes{0, 0, 0644}), attributes_of(kReject));

  ASSERT_EQ(0, add_reject("example.com"));
  ASSERT_EQ(0, add_reject("example.com"));
  EXPECT_EQ(kAllListed, read_file(kReject));
  ASSERT_EQ(0, del_reject("example.com"));
  EXPECT_EQ("", read_file(kReject));
}

// Mail that is bounced or forwarded must first be accepted, so setting
// either takes the domain and its aliases off the reject list.
TEST_F(NonexistingMailTest, BounceAndCatchAllUnlist) {
  const std::string other = "other.org\n";
  for (auto set : {+[] { return add_bounce("example.com", nullptr); },
                   +[] { return add_catch("example.com", "a@b.example"); }}) {
    ASSERT_EQ(0, add_reject_for("other.org"));
    ASSERT_EQ(0, add_reject("example.com"));
    ASSERT_EQ(other + kAllListed, read_file(kReject));
    ASSERT_EQ(0, set());
    EXPECT_EQ(other, read_file(kReject));
  }
}

TEST_F(NonexistingMailTest, RejectForOneNameOnly) {
  ASSERT_EQ(0, add_reject_for("Bücher.example"));
  ASSERT_EQ(0, add_reject_for("bücher.example"));
  EXPECT_EQ("xn--bcher-kva.example\n", read_file(kReject));
}

}  // namespace
