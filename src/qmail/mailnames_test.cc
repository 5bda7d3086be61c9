#include "qmail/mailnames.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "mailauth/auth_db.h"
#include "mailauth/auth_records.h"
#include "maildata/session_mail_data.h"
#include "qmail/mail_domains.h"
#include "qmail/qmail_control.h"
#include "qmail/qmail_test_support.h"

namespace {

using tavix::test::AuthFlags;
using tavix::test::Attributes;
using tavix::test::attributes_of;
using tavix::test::CaptureStreams;
using tavix::test::exists;
using tavix::test::read_file;
using tavix::test::RunInChild;
using tavix::test::write_file;

const uid_t kPopuser = 110;
const char kAssign[] = "/var/qmail/users/assign";
const char kDomain[] = "example.com";
const std::string kDomainDir = "/var/qmail/mailnames/example.com";
const Attributes kMailboxDir{kPopuser, kPopuser, 0700};

std::string Line(const std::string& local, const std::string& mailname) {
  return "=example.com-" + local + ":popuser:110:110:" + kDomainDir + "/" + mailname +
         ":::";
}

bool HasLine(const std::string& line) {
  std::istringstream lines(read_file(kAssign));
  for (std::string l; std::getline(lines, l);)
    if (l == line) return true;
  return false;
}

std::string FirstLine(const std::string& path) {
  std::istringstream lines(read_file(path));
  std::string line;
  std::getline(lines, line);
  return line;
}

// Runs every "|" line of the mail name's .qmail as qmail's local delivery
// does: through the shell, as popuser, in the mail name's directory, with
// the message as a file on standard input. The first non-zero exit code,
// or 0.
int Deliver(const std::string& home) {
  const std::string message = kDomainDir + "/message";
  write_file(message, "From: a@example.org\nTo: john@example.com\nSubject: t\n\nHi.\n");
  std::istringstream lines(read_file(home + "/.qmail"));
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] != '|') continue;
    pid_t pid = fork();
    if (pid == 0) {
      int fd = open(message.c_str(), O_RDONLY);
      if (fd < 0 || dup2(fd, STDIN_FILENO) < 0 || chdir(home.c_str()) != 0 ||
          setgroups(0, nullptr) != 0 || setgid(kPopuser) != 0 || setuid(kPopuser) != 0)
        _exit(126);
      execl("/bin/sh", "sh", "-c", line.c_str() + 1, static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = -1;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    if (WEXITSTATUS(status) != 0) return WEXITSTATUS(status);
  }
  return 0;
}

size_t CountNew(const std::string& home) {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(home + "/Maildir/new")) {
    (void)entry;
    ++count;
  }
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

TEST_F(MailnamesTest, AddWritesAssignLineTreeAndDotqmail) {
  ASSERT_EQ(0, add_mailname("john", kDomain));
  ASSERT_EQ(0, add_mailname("john", kDomain));  // a repeat keeps one line
  EXPECT_EQ(Line("john", "john"), FirstLine(kAssign));
  EXPECT_EQ(std::string::npos, read_file(kAssign).find(Line("john", "john"), 1));
  EXPECT_EQ(0, run_qmail_newu());  // the stand-in checks the file's syntax

  const std::string home = kDomainDir + "/john";
  for (const char* sub : {"", "/Maildir", "/Maildir/tmp", "/Maildir/new", "/Maildir/cur",
                          "/Maildir/.Spam", "/Maildir/.Spam/tmp", "/Maildir/.Spam/new",
                          "/Maildir/.Spam/cur", "/@attachments"}) {
    SCOPED_TRACE(sub);
    EXPECT_EQ(kMailboxDir, attributes_of(home + sub));
  }
  EXPECT_EQ("| true\n", read_file(home + "/.qmail"));
  EXPECT_EQ((Attributes{kPopuser, kPopuser, 0600}), attributes_of(home + "/.qmail"));
  EXPECT_EQ("0S,0C", FirstLine(home + "/Maildir/maildirsize"));
  EXPECT_EQ((Attributes{0, 0, 0644}), attributes_of(kAssign));

  EXPECT_EQ(0, rm_mailname("john", kDomain));
  EXPECT_FALSE(HasLine(Line("john", "john")));
  EXPECT_FALSE(exists(home));
}

// add_mailname lower-cases the line and the path; rm_mailname does not, so
// a name given in capitals is only removed in lower case.
TEST_F(MailnamesTest, NameFormsOfAddAndRemove) {
  ASSERT_EQ(0, add_mailname("John", "Example.COM"));
  EXPECT_EQ(Line("john", "john"), FirstLine(kAssign));
  EXPECT_TRUE(exists(kDomainDir + "/john/Maildir/new"));
  EXPECT_EQ(0, rm_mailname("John", kDomain));
  EXPECT_TRUE(HasLine(Line("john", "john")));
  EXPECT_TRUE(exists(kDomainDir + "/john"));
  EXPECT_EQ(0, rm_mailname("john", kDomain));
  EXPECT_FALSE(HasLine(Line("john", "john")));
  EXPECT_FALSE(exists(kDomainDir + "/john"));
}

TEST_F(MailnamesTest, MailboxDeliversAndQuotaZeroRefuses) {
  const std::string home = kDomainDir + "/john";
  ASSERT_EQ(0, add_mailname("john", kDomain));
  ASSERT_EQ(0, add_mn_postbox("john", kDomain, "secret", 0));
  EXPECT_EQ("| true\n| /usr/bin/deliverquota ./Maildir\n", read_file(home + "/.qmail"));
  EXPECT_EQ(0, AuthFlags("john@example.com"));

  EXPECT_EQ(0, Deliver(home));
  EXPECT_EQ(1u, CountNew(home));
  ASSERT_EQ(0, set_quota(kDomain, "john", 0));  // blocks every delivery
  EXPECT_EQ(77, Deliver(home));
  EXPECT_EQ(1u, CountNew(home));
  ASSERT_EQ(0, set_quota(kDomain, "john", -1));  // back to the unlimited default
  EXPECT_EQ("0S,0C", FirstLine(home + "/Maildir/maildirsize"));
  EXPECT_EQ(0, Deliver(home));
  EXPECT_EQ(2u, CountNew(home));

  EXPECT_EQ(0, rm_mn_postbox("john", kDomain));
  EXPECT_EQ("| true\n", read_file(home + "/.qmail"));
  EXPECT_EQ(-1, AuthFlags("john@example.com"));
  EXPECT_EQ(-1, rm_mn_postbox("a..b", kDomain));
}

TEST_F(MailnamesTest, AliasLinesPointAtTheMailname) {
  ASSERT_EQ(0, add_mailname("john", kDomain));
  EXPECT_EQ(0, add_mn_alias("john", "EXAMPLE.com", "Info"));
  EXPECT_EQ(0, add_mn_alias("john", kDomain, "info"));
  EXPECT_EQ(Line("info", "john"), FirstLine(kAssign));
  EXPECT_EQ(std::string::npos, read_file(kAssign).find(Line("info", "john"), 1));
  EXPECT_EQ(0, run_qmail_newu());
  EXPECT_EQ(0, rm_mn_alias("john", "Example.com", "INFO"));
  EXPECT_FALSE(HasLine(Line("info", "john")));
  EXPECT_TRUE(HasLine(Line("john", "john")));
}

struct RenameCase {
  const char* title;
  const char* password;
  int jane_flags;  // the record afterwards: -1 none
};

TEST_F(MailnamesTest, RenameMovesLinesDirectoryRecordsAndDotqmail) {
  const RenameCase cases[] = {{"with password", "secret", 0},
                              {"without password", nullptr, -1}};
  for (const RenameCase& c : cases) {
    SCOPED_TRACE(c.title);
    ASSERT_EQ(0, add_mailname("john", kDomain));
    ASSERT_EQ(0, add_mn_postbox("john", kDomain, "secret", 0));
    ASSERT_EQ(0, add_mn_alias("john", kDomain, "info"));
    write_file(kDomainDir + "/john/.qmail",
               read_file(kDomainDir + "/john/.qmail") + "&john@example.org\n");

    EXPECT_EQ(0, ch_mailname("john", kDomain, "jane", c.password));
    EXPECT_EQ(Line("jane", "jane"), FirstLine(kAssign));
    EXPECT_TRUE(HasLine(Line("info", "jane")));
    EXPECT_FALSE(HasLine(Line("john", "john")));
    EXPECT_FALSE(exists(kDomainDir + "/john"));
    EXPECT_EQ("| true\n| /usr/bin/deliverquota ./Maildir\n&jane@example.org\n",
              read_file(kDomainDir + "/jane/.qmail"));
    EXPECT_EQ((Attributes{kPopuser, kPopuser, 0600}),
              attributes_of(kDomainDir + "/jane/.qmail"));
    EXPECT_EQ(c.jane_flags, AuthFlags("jane@example.com"));
    EXPECT_EQ(-1, AuthFlags("john@example.com"));
    EXPECT_EQ(0, run_qmail_newu());

    rm_mn_alias("jane", kDomain, "info");
    rm_mailname("jane", kDomain);
  }
}

struct FatalCase {
  const char* title;
  int (*call)();
  const char* message;
};

TEST_F(MailnamesTest, InvalidNamesEndTheRun) {
  const FatalCase cases[] = {
      {"add", [] { return add_mailname("a..b", kDomain); }, "invalid mailname or domain name."},
      {"add domain", [] { return add_mailname("john", ""); }, "invalid mailname or domain name."},
      {"remove", [] { return rm_mailname("", kDomain); }, "empty mailname or maildomain"},
      {"alias", [] { return add_mn_alias("john", kDomain, "a b"); },
       "empty mailname, maildomain or mailalias"},
      {"remove alias", [] { return rm_mn_alias("john", "", "info"); },
       "empty mailname, maildomain or mailalias"},
      {"rename", [] { return ch_mailname("john", kDomain, "a..b", nullptr); },
       "empty mailname or maildomain"},
  };
  for (const FatalCase& c : cases) {
    SCOPED_TRACE(c.title);
    auto child = RunInChild([&c] { c.call(); });
    EXPECT_TRUE(WIFEXITED(child.status) && WEXITSTATUS(child.status) == 1) << child.status;
    EXPECT_NE(std::string::npos, child.output.find(c.message)) << child.output;
  }
}

// A removal whose authentication record cannot be removed keeps the
// directory but not the assign line.
TEST_F(MailnamesTest, RemovalWithoutAuthDatabaseKeepsTheDirectory) {
  ASSERT_EQ(0, add_mailname("john", kDomain));
  auto child = RunInChild([] {
    mailAuthDBSetPath("/var/qmail/no-such-dir/auth.db");  // every record call fails
    printf("result=%d\n", rm_mailname("john", kDomain));
  });
  EXPECT_NE(std::string::npos, child.output.find("result=-1")) << child.output;
  EXPECT_FALSE(HasLine(Line("john", "john")));
  EXPECT_TRUE(exists(kDomainDir + "/john/Maildir"));
}

}  // namespace
