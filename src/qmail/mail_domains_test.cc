#include "qmail/mail_domains.h"

#include <gtest/gtest.h>

#include <string>

#include "mailauth/auth_db.h"
#include "mailauth/auth_records.h"
#include "maildata/session_mail_data.h"
#include "qmail/qmail_control.h"
#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::AuthFlags;
using tavix::test::Attributes;
using tavix::test::attributes_of;
using tavix::test::exists;
using tavix::test::read_file;
using tavix::test::RunInChild;
using tavix::test::write_file;

const char kRcpthosts[] = "/var/qmail/control/rcpthosts";
const char kVirtualdomains[] = "/var/qmail/control/virtualdomains";
const char kLocals[] = "/var/qmail/control/locals";
const char kAssign[] = "/var/qmail/users/assign";
const char kRoot[] = "/var/qmail/mailnames";
const Attributes kMailboxDir{110, 110, 0700};

std::string DomainLine(const std::string& d) {
  return "+" + d + ":popuser:110:110:/var/qmail/mailnames/" + d + ":::\n";
}
std::string MailnameLine(const std::string& d, const std::string& m) {
  return "=" + d + "-" + m + ":popuser:110:110:/var/qmail/mailnames/" + d + "/" + m + ":::\n";
}

class MailDomainsTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, mailAuthDBInitStyle(0)); }
  void TearDown() override { free_session_mail_db_info(); }
};

struct DomainCase {
  const char* name;
  const char* given;
  const char* written;
};

void PrintTo(const DomainCase& c, std::ostream* out) { *out << c.name; }

class AddDomainTest : public MailDomainsTest,
                      public testing::WithParamInterface<DomainCase> {};

TEST_P(AddDomainTest, WritesEachFileOnceAndTheDirectory) {
  const DomainCase& c = GetParam();
  const std::string d = c.written;
  write_file(kLocals, std::string("localhost\n") + c.given + "\n");
  ASSERT_EQ(0, add_domain(c.given));
  ASSERT_EQ(0, add_domain(c.given));  // a repeat must not duplicate lines

  EXPECT_EQ(d + "\n", read_file(kRcpthosts));
  EXPECT_EQ(d + ":" + d + "\n", read_file(kVirtualdomains));
  EXPECT_EQ(DomainLine(d) + ".\n", read_file(kAssign));
  EXPECT_EQ("localhost\n", read_file(kLocals));
  EXPECT_EQ(kMailboxDir, attributes_of(std::string(kRoot) + "/" + d));
  std::string dflt = std::string(kRoot) + "/" + d + "/.qmail-default";
  EXPECT_EQ("|bouncesaying This\\ address\\ no\\ longer\\ accepts\\ mail.\n", read_file(dflt));
  EXPECT_EQ((Attributes{110, 110, 0600}), attributes_of(dflt));
  // qmail-newu accepts the result, and the run is recorded.
  EXPECT_EQ(0, run_qmail_newu());
  EXPECT_EQ("[]\n", read_file("/run/sandbox/log/qmail-newu.calls"));
}

INSTANTIATE_TEST_SUITE_P(Names, AddDomainTest,
                         testing::Values(DomainCase{"lower", "example.com", "example.com"},
                                         DomainCase{"mixed_case", "Example.COM", "example.com"},
                                         DomainCase{"idn", "bücher.example", "xn--bcher-kva.example"}),
                         [](const testing::TestParamInfo<DomainCase>& info) {
                           return info.param.name;
                         });

TEST_F(MailDomainsTest, DisableAndEnableKeepMailboxesAndAssign) {
  ASSERT_EQ(0, add_domain("example.com"));
  write_file(kAssign, MailnameLine("example.com", "info") + read_file(kAssign));
  const std::string mailbox = std::string(kRoot) + "/example.com/info";
  ASSERT_EQ(0, mkdir(mailbox.c_str(), 0700));
  ASSERT_EQ(0, mailAuthSet("info", "example.com", "pw", MAIL_AUTH_RAW_PASSWORD));
  const std::string assign = read_file(kAssign);

  ASSERT_EQ(0, off_mail_dom("example.com"));
  EXPECT_EQ("", read_file(kRcpthosts));
  EXPECT_EQ("", read_file(kVirtualdomains));
  EXPECT_EQ(assign, read_file(kAssign));
  EXPECT_TRUE(exists(mailbox));
  EXPECT_TRUE(AuthFlags("info@example.com") & MAIL_AUTH_DOMAIN_DISABLED);

  ASSERT_EQ(0, on_mail_dom("example.com"));
  EXPECT_EQ("example.com\n", read_file(kRcpthosts));
  EXPECT_EQ("example.com:example.com\n", read_file(kVirtualdomains));
  EXPECT_EQ(assign, read_file(kAssign));
  EXPECT_FALSE(AuthFlags("info@example.com") & MAIL_AUTH_DOMAIN_DISABLED);
}

TEST_F(MailDomainsTest, RemovalClearsOnlyThatDomain) {
  ASSERT_EQ(0, add_domain("other.com"));
  ASSERT_EQ(0, add_domain("example.com"));
  write_file(kAssign, MailnameLine("example.com", "info") + MailnameLine("other.com", "info") +
                          read_file(kAssign));
  ASSERT_EQ(0, mailAuthSet("info", "example.com", "pw", MAIL_AUTH_RAW_PASSWORD));
  ASSERT_EQ(0, mailAuthSet("info", "other.com", "pw", MAIL_AUTH_RAW_PASSWORD));

  ASSERT_EQ(0, remove_domain("example.com"));
  EXPECT_EQ("other.com\n", read_file(kRcpthosts));
  EXPECT_EQ("other.com:other.com\n", read_file(kVirtualdomains));
  EXPECT_EQ(MailnameLine("other.com", "info") + DomainLine("other.com") + ".\n",
            read_file(kAssign));
  EXPECT_FALSE(exists(std::string(kRoot) + "/example.com"));
  EXPECT_TRUE(exists(std::string(kRoot) + "/other.com"));
  EXPECT_EQ(-1, AuthFlags("info@example.com"));
  EXPECT_NE(-1, AuthFlags("info@other.com"));
}

TEST_F(MailDomainsTest, DomainAliases) {
  ASSERT_EQ(0, add_domain("example.com"));
  write_file(kLocals, "localhost\nalias.example\n");
  ASSERT_EQ(0, add_domain_alias("Example.com", "alias.example"));
  ASSERT_EQ(0, add_domain_alias("example.com", "alias.example"));
  EXPECT_EQ("example.com\nalias.example\n", read_file(kRcpthosts));
  EXPECT_EQ("example.com:example.com\nalias.example:example.com\n", read_file(kVirtualdomains));
  EXPECT_EQ("localhost\n", read_file(kLocals));

  ASSERT_EQ(0, rename_domain_alias("example.com", "alias.example", "bücher.example"));
  EXPECT_EQ("example.com\nxn--bcher-kva.example\n", read_file(kRcpthosts));
  EXPECT_EQ("example.com:example.com\nxn--bcher-kva.example:example.com\n",
            read_file(kVirtualdomains));

  ASSERT_EQ(0, del_domain_alias("example.com", "bücher.example"));
  EXPECT_EQ("example.com\n", read_file(kRcpthosts));
  EXPECT_EQ("example.com:example.com\n", read_file(kVirtualdomains));
}

struct FatalCase {
  const char* name;
  int (*body)();
  const char* message;
};

void PrintTo(const FatalCase& c, std::ostream* out) { *out << c.name; }

class FatalTest : public MailDomainsTest, public testing::WithParamInterface<FatalCase> {};

TEST_P(FatalTest, EndsWithStatusOne) {
  const FatalCase& c = GetParam();
  auto outcome = RunInChild([&] { c.body(); });
  ASSERT_TRUE(WIFEXITED(outcome.status));
  EXPECT_EQ(1, WEXITSTATUS(outcome.status));
  EXPECT_NE(std::string::npos, outcome.output.find(c.message)) << outcome.output;
}

INSTANTIATE_TEST_SUITE_P(
    Failures, FatalTest,
    testing::Values(
        FatalCase{"empty", [] { return add_mail_dom(""); }, "empty domain"},
        FatalCase{"empty_alias", [] { return add_domain_alias("example.com", ""); },
                  "empty domain or domain alias"},
        FatalCase{"no_virtualdomains",
                  [] {
                    unlink(kVirtualdomains);
                    return rm_mail_dom("example.com");
                  },
                  "Unable to remove domain from virtualdomains file"}),
    [](const testing::TestParamInfo<FatalCase>& info) { return info.param.name; });

// The append fails on a directory; the partial domain is taken away again
// before the run ends.
TEST_F(MailDomainsTest, FailedAddTakesItsLinesAway) {
  unlink(kVirtualdomains);
  ASSERT_EQ(0, mkdir(kVirtualdomains, 0755));
  auto outcome = RunInChild([] { add_mail_dom("example.com"); });
  EXPECT_EQ(1, WEXITSTATUS(outcome.status));
  EXPECT_EQ("", read_file(kRcpthosts));
}

}  // namespace
