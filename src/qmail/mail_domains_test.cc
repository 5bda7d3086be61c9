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
const std::string kRoot = "/var/qmail/mailnames/";

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

// Names are written lower-case and in ASCII, a repeat duplicates nothing,
// and a served domain must not stay local (its line as given goes).
TEST_F(MailDomainsTest, AddWritesEachFileOnceAndTheDirectory) {
  write_file(kLocals, "localhost\nExample.COM\nbücher.example\n");
  ASSERT_EQ(0, add_domain("Example.COM"));
  ASSERT_EQ(0, add_domain("example.com"));
  ASSERT_EQ(0, add_domain("bücher.example"));

  const std::string idn = "xn--bcher-kva.example";
  EXPECT_EQ("example.com\n" + idn + "\n", read_file(kRcpthosts));
  EXPECT_EQ("example.com:example.com\n" + idn + ":" + idn + "\n", read_file(kVirtualdomains));
  EXPECT_EQ(DomainLine(idn) + DomainLine("example.com") + ".\n", read_file(kAssign));
  EXPECT_EQ("localhost\n", read_file(kLocals));
  EXPECT_EQ((Attributes{110, 110, 0700}), attributes_of(kRoot + idn));
  const std::string dflt = kRoot + "example.com/.qmail-default";
  EXPECT_EQ("|bouncesaying This\\ address\\ no\\ longer\\ accepts\\ mail.\n", read_file(dflt));
  EXPECT_EQ((Attributes{110, 110, 0600}), attributes_of(dflt));
  EXPECT_EQ(0, run_qmail_newu());  // the stand-in checks the assign file's syntax
}

// A domain whose name ends another's must not take that one's lines along.
TEST_F(MailDomainsTest, RemovalClearsOnlyThatDomain) {
  ASSERT_EQ(0, add_domain("sub.example.com"));
  ASSERT_EQ(0, add_domain("example.com"));
  write_file(kAssign, MailnameLine("example.com", "info") +
                          MailnameLine("sub.example.com", "info") + read_file(kAssign));
  ASSERT_EQ(0, mailAuthSet("info", "example.com", "pw", MAIL_AUTH_RAW_PASSWORD));
  ASSERT_EQ(0, mailAuthSet("info", "sub.example.com", "pw", MAIL_AUTH_RAW_PASSWORD));

  ASSERT_EQ(0, remove_domain("example.com"));
  EXPECT_EQ("sub.example.com\n", read_file(kRcpthosts));
  EXPECT_EQ("sub.example.com:sub.example.com\n", read_file(kVirtualdomains));
  EXPECT_EQ(MailnameLine("sub.example.com", "info") + DomainLine("sub.example.com") + ".\n",
            read_file(kAssign));
  EXPECT_FALSE(exists(kRoot + "example.com"));
  EXPECT_TRUE(exists(kRoot + "sub.example.com"));
  EXPECT_EQ(-1, AuthFlags("info@example.com"));
  EXPECT_NE(-1, AuthFlags("info@sub.example.com"));
}

TEST_F(MailDomainsTest, DomainAliasesTakeTheAsciiNameOnce) {
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

TEST_F(MailDomainsTest, FailuresEndWithStatusOne) {
  const struct {
    int (*body)();
    const char* message;
  } cases[] = {
      {[] { return add_mail_dom(""); }, "empty domain"},
      {[] { return add_domain_alias("example.com", ""); }, "empty domain or domain alias"},
      {[] {
         unlink(kVirtualdomains);
         return rm_mail_dom("example.com");
       },
       "Unable to remove domain from virtualdomains file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    auto outcome = RunInChild([&] { c.body(); });
    EXPECT_TRUE(WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == 1);
    EXPECT_NE(std::string::npos, outcome.output.find(c.message)) << outcome.output;
  }
}

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
