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


}  // namespace
