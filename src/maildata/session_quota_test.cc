#include "maildata/session_quota.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

#include "maildata/session_mail_data.h"
#include "qmail/qmail_test_support.h"
#include "util/fs.h"

namespace {

using tavix::test::CaptureStreams;
using tavix::test::LogRecorder;
using tavix::test::read_file;
using tavix::test::write_file;

namespace fs = std::filesystem;

const char kDomainRoot[] = "/var/qmail/mailnames/example.com";
const char kEmptyUsage[] = "           0           0\n";

// A domain of two mail names: "info" without a quota of its own and "own"
// with one.
const char kSession[] = R"({"domain": {"name": "Example.COM",
    "mbox_quota": 5, "mbox_quota_unit": "KB",
    "dom_aliases": [], "maillists": [],
    "mails": [{"name": "INFO", "aliases": []},
              {"name": "own", "mbox_quota": 7, "aliases": []}]}})";

// The session mail data for one test, released at its end.
class Session {
 public:
  explicit Session(const std::string& json) {
    if (json.empty())
      return;
    std::string text = json;
    tavix::UniqueFile stream(fmemopen(&text[0], text.size(), "r"));
    EXPECT_TRUE(stream && read_session_mail_db_info(stream.get(), 0) == 0);
  }
  ~Session() { free_session_mail_db_info(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
};

// Mailboxes of example.com, removed at the end.
class Mailboxes {
 public:
  Mailboxes() {
    for (const char* name : {"info", "own"}) {
      for (const char* sub : {"new", "cur", "tmp"})
        fs::create_directories(maildir(name) + "/" + sub);
    }
    write_file(maildirsize("own"), "7S,0C\n");
  }
  ~Mailboxes() {
    std::error_code ignored;
    fs::remove_all(kDomainRoot, ignored);
  }
  Mailboxes(const Mailboxes&) = delete;
  Mailboxes& operator=(const Mailboxes&) = delete;

  static std::string maildir(const std::string& name) {
    return std::string(kDomainRoot) + "/" + name + "/Maildir";
  }
  static std::string maildirsize(const std::string& name) {
    return maildir(name) + "/maildirsize";
  }
};

TEST(DefaultQuotaTest, AppliesToMailboxesWithoutAQuotaOfTheirOwn) {
  const struct {
    const char* what;
    std::function<int()> operation;
    const char* info_header;
  } cases[] = {
      {"store_default_mbox_quota",
       [] { return store_default_mbox_quota("example.com", 2048); },
       "2048S,0C\n"},
      {"store_domain_quota",
       [] { return store_domain_quota("example.com", 0); }, "1S,0C\n"},
      {"rm_domain_quota", [] { return rm_domain_quota("example.com"); },
       "0S,0C\n"},
      {"rm_default_mbox_quota",
       [] { return rm_default_mbox_quota("example.com"); }, "0S,0C\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Session session(kSession);
    Mailboxes boxes;
    auto run = CaptureStreams([&] { return c.operation(); });
    EXPECT_EQ(1, run.result) << run.err;
    EXPECT_EQ(std::string(c.info_header) + kEmptyUsage,
              read_file(Mailboxes::maildirsize("info")));
    EXPECT_EQ("7S,0C\n", read_file(Mailboxes::maildirsize("own")));
  }
}

TEST(DefaultQuotaTest, RefusesWithoutTheSessionOfTheDomain) {
  const struct {
    const char* session;
    const char* message;
  } cases[] = {
      {"",
       "Session mail DB info is not filled in call to "
       "store_default_mbox_quota(). Probably a programming error."},
      {kSession,
       "Session mail DB info is invalid, expected one for domain "
       "'example.net', got 'example.com'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    Session session(c.session);
    LogRecorder log;
    EXPECT_EQ(0, store_default_mbox_quota("example.net", 2048));
    EXPECT_TRUE(LogRecorder::Has(3, c.message));
  }
}

// Removing a mailbox's quota falls back to the domain's default, which is
// no limit when the session says nothing about the domain.
TEST(MboxQuotaTest, RemovingFallsBackToTheDomainDefault) {
  const struct {
    const char* what;
    std::string session;  // "" for none
    const char* header;
    bool empty_object = false;  // made by get_session_mail_db_info()
  } cases[] = {
      {"no session data", "", "0S,0C\n"},
      {"empty session object", "", "0S,0C\n", true},
      {"domain default 5 KB", kSession, "5120S,0C\n"},
      {"domain default 0",
       R"({"domain": {"name": "example.com", "mbox_quota": 0,
           "dom_aliases": [], "maillists": [], "mails": []}})",
       "1S,0C\n"},
      {"session of another domain",
       R"({"domain": {"name": "example.net", "mbox_quota": 5,
           "dom_aliases": [], "maillists": [], "mails": []}})",
       "0S,0C\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Session session(c.session);
    if (c.empty_object) {
      ASSERT_NE(nullptr, get_session_mail_db_info());
    }
    Mailboxes boxes;
    write_file(Mailboxes::maildirsize("info"), "100S,0C\n");
    auto run = CaptureStreams([] { return rm_mbox_quota("example.com", "info"); });
    EXPECT_EQ(1, run.result) << run.err;
    EXPECT_EQ(std::string(c.header) + kEmptyUsage,
              read_file(Mailboxes::maildirsize("info")));
  }
}

}  // namespace
