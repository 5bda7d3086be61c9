#include "qmail/nonexisting_mail.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "maildata/session_mail_data.h"
#include "qmail/mail_domains.h"
#include "qmail/qmail_test_support.h"
#include "util/exec.h"
#include "util/fs.h"
#include "util/unique_free.h"

namespace {

using tavix::test::Attributes;
using tavix::test::attributes_of;
using tavix::test::exists;
using tavix::test::CaptureStreams;
using tavix::test::read_file;
using tavix::test::ScratchDir;
using tavix::test::write_file;

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

// Null and empty texts give the default; mail that is bounced or forwarded
// must first be accepted, so setting either takes the domain and its
// aliases off the reject list.
TEST_F(NonexistingMailTest, BounceAndCatchAllWriteOneLineAndUnlist) {
  const std::string bounce = "|bouncesaying This\\ address\\ no\\ longer\\ accepts\\ mail.\n";
  const struct {
    int (*set)();
    std::string line;
  } cases[] = {
      {[] { return add_bounce("example.com", nullptr); }, bounce},
      {[] { return add_bounce("example.com", ""); }, bounce},
      {[] { return add_catch("example.com", "info@bücher.example"); },
       "&info@xn--bcher-kva.example\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    ASSERT_EQ(0, add_reject_for("other.org"));
    ASSERT_EQ(0, add_reject("example.com"));
    ASSERT_EQ(0, c.set());
    EXPECT_EQ(c.line, read_file(kDefault));
    EXPECT_EQ((Attributes{110, 110, 0600}), attributes_of(kDefault));
    EXPECT_EQ("other.org\n", read_file(kReject));
  }
}

TEST_F(NonexistingMailTest, RejectListsEachNameOnce) {
  ASSERT_FALSE(exists(kReject));
  ASSERT_EQ(0, del_reject("example.com"));  // creates the list, empty
  EXPECT_EQ("", read_file(kReject));
  EXPECT_EQ((Attributes{0, 0, 0644}), attributes_of(kReject));

  ASSERT_EQ(0, add_reject("example.com"));
  ASSERT_EQ(0, add_reject("example.com"));
  EXPECT_EQ(kAllListed, read_file(kReject));
  ASSERT_EQ(0, del_reject("example.com"));
  EXPECT_EQ("", read_file(kReject));

  ASSERT_EQ(0, add_reject_for("Bücher.example"));
  ASSERT_EQ(0, add_reject_for("bücher.example"));
  EXPECT_EQ("xn--bcher-kva.example\n", read_file(kReject));
}

// qmail runs a "|" line with /bin/sh -c; with a bouncesaying that prints
// its arguments, the line must give back the text as one argument.
std::string run_bounce_line(const std::string& line) {
  ScratchDir dir;
  const std::string stub = dir.path("bouncesaying");
  write_file(stub, "#!/bin/sh\nprintf '%s|%s' \"$#\" \"$1\"\n");
  EXPECT_EQ(0, chmod(stub.c_str(), 0755));
  const std::string command = "|bouncesaying ";
  EXPECT_EQ(command, line.substr(0, command.size()));
  const std::string script = stub + line.substr(command.size() - 1);
  char* out = nullptr;
  EXPECT_EQ(0, fork_execl_getout(&out, "/bin/sh", "sh", "-c", script.c_str(),
                                 static_cast<char*>(nullptr)));
  tavix::unique_free<char> owned(out);
  return out ? out : "";
}

TEST_F(NonexistingMailTest, BounceTextReachesTheShellAsOneWord) {
  const char* const texts[] = {
      "it's \"quoted\"",        "back\\slash\\",   "$HOME ${x} $(id) `id`",
      "* ? [a] ~ # ; & | < > ( )", "tab\there",           " spaced  out ",
      "two\nlines",                "bücher",
  };
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    ASSERT_EQ(0, add_bounce("example.com", text));
    std::string line = read_file(kDefault);
    ASSERT_EQ(line.size() - 1, line.find('\n')) << "one line, ended by a newline";
    line.pop_back();
    std::string expected = text;
    std::replace(expected.begin(), expected.end(), '\n', ' ');
    EXPECT_EQ("1|" + expected, run_bounce_line(line));
  }
}

// A control character could end the delivery line early and leave the
// rest as a line of its own; the file and the reject list stay as they
// were.
TEST_F(NonexistingMailTest, ControlCharactersAreRefused) {
  ASSERT_EQ(0, add_bounce("example.com", "old"));
  ASSERT_EQ(0, add_reject_for("example.com"));
  const std::string before = read_file(kDefault);
  const char* const addresses[] = {"a@b.example\n|/bin/evil", "a\x7f@b.example", "a@b\t"};
  for (const char* address : addresses) {
    SCOPED_TRACE(address);
    EXPECT_EQ(0, is_catchall_address_safe(address));
    EXPECT_EQ(-1, CaptureStreams([&] { return add_catch("example.com", address); }).result);
  }
  const char* const texts[] = {"gone\r\n|/bin/evil", "del\x7f", "\x1b[31m"};
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    EXPECT_EQ(0, is_bounce_text_safe(text));
    EXPECT_EQ(-1, CaptureStreams([&] { return add_bounce("example.com", text); }).result);
  }
  EXPECT_EQ(before, read_file(kDefault));
  EXPECT_EQ("example.com\n", read_file(kReject));
}

}  // namespace
