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

class MailDomainsTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, mailAuthDBInitStyle(0)); }
  void TearDown() override { free_session_mail_db_info(); }
};



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
