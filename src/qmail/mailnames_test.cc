#include "qmail/mailnames.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <sstream>
#include <string>

#include "mailauth/auth_db.h"
#include "mailauth/auth_records.h"
#include "maildata/session_mail_data.h"
#include "qmail/mail_domains.h"
#include "qmail/qmail_control.h"
#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::Attributes;
using tavix::test::attributes_of;
using tavix::test::exists;
using tavix::test::read_file;
using tavix::test::RunInChild;

const char kAssign[] = "/var/qmail/users/assign";
const char kDomain[] = "example.com";
const std::string kDomainDir = "/var/qmail/mailnames/example.com";

std::string Line(const std::string& local, const std::string& mailname) {
  return "=example.com-" + local + ":popuser:110:110:" + kDomainDir + "/" + mailname + ":::";
}

// How often `line` is a whole line of the assign file.
int Count(const std::string& line) {
  std::istringstream lines(read_file(kAssign));
  int count = 0;
  for (std::string l; std::getline(lines, l);) count += l == line;
  return count;
}

class MailnamesTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mailAuthDBInitStyle(0));
    ASSERT_EQ(0, add_mail_dom(kDomain));
    // As every command has one: an empty session (no domain aliases).
    ASSERT_NE(nullptr, get_session_mail_db_info());
  }
  void TearDown() override {
    rm_mail_dom(kDomain);
    free_session_mail_db_info();
  }
};


// A removal whose authentication record cannot be removed keeps the
// directory but not the assign line.
TEST_F(MailnamesTest, RemovalWithoutAuthDatabaseKeepsTheDirectory) {
  ASSERT_EQ(0, add_mailname("john", kDomain));
  auto child = RunInChild([] {
    mailAuthDBSetPath("/var/qmail/no-such-dir/auth.db");  // every record call fails
    printf("result=%d\n", rm_mailname("john", kDomain));
  });
  EXPECT_NE(std::string::npos, child.output.find("result=-1")) << child.output;
  EXPECT_EQ(0, Count(Line("john", "john")));
  EXPECT_TRUE(exists(kDomainDir + "/john/Maildir"));
}

}  // namespace
