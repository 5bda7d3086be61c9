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
    "mbox_quota": 5, "mbox_quota_unit": "KB", "dom_aliases": [], "maillists": [],
    "mails": [{"name": "INFO", "aliases": []},
              {"name": "own", "mbox_quota": 7, "aliases": []}]}})";

std::string MaildirSize(const std::string& name) {
  return std::string(kDomainRoot) + "/" + name + "/Maildir/maildirsize";
}

// The session mail data ("" for none) and the mailboxes of example.com, for
// one case; both go at its end.
class Setting {
 public:
  explicit Setting(const std::string& json) {
    for (const char* name : {"info", "own"}) {
      for (const char* sub : {"new", "cur", "tmp"})
        fs::create_directories(std::string(kDomainRoot) + "/" + name + "/Maildir/" + sub);
    }
    write_file(MaildirSize("own"), "7S,0C\n");
    if (json.empty()) return;
    std::string text = json;
    tavix::UniqueFile stream(fmemopen(&text[0], text.size(), "r"));
    EXPECT_TRUE(stream && read_session_mail_db_info(stream.get(), 0) == 0);
  }
  ~Setting() {
    free_session_mail_db_info();
    std::error_code ignored;
    fs::remove_all(kDomainRoot, ignored);
  }
};

// The domain's quota reaches only mailboxes without one of their own.
TEST(DefaultQuotaTest, AppliesToMailboxesWithoutAQuotaOfTheirOwn) {
  const struct {
    const char* what;
    std::function<int()> operation;
    const char* info_header;
  } cases[] = {
      {"store", [] { return store_default_mbox_quota("example.com", 2048); }, "2048S,0C\n"},
      {"remove", [] { return rm_default_mbox_quota("example.com"); }, "0S,0C\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Setting setting(kSession);
    auto run = CaptureStreams([&] { return c.operation(); });
    EXPECT_EQ(1, run.result) << run.err;
    EXPECT_EQ(std::string(c.info_header) + kEmptyUsage, read_file(MaildirSize("info")));
    EXPECT_EQ("7S,0C\n", read_file(MaildirSize("own")));
  }
  Setting none("");
  LogRecorder log;
  EXPECT_EQ(0, store_default_mbox_quota("example.com", 2048));
  EXPECT_TRUE(LogRecorder::Has(3, "Session mail DB info is not filled in call to "
                                  "store_default_mbox_quota(). Probably a programming error."));
}

// Removing a mailbox's quota falls back to the domain's default, which is
// no limit when the session says nothing about the domain (here the empty
// object made when no data was read).
TEST(MboxQuotaTest, RemovingFallsBackToTheDomainDefault) {
  const struct {
    std::string session;
    const char* header;
  } cases[] = {
      {"", "0S,0C\n"},
      {kSession, "5120S,0C\n"},
      {R"({"domain": {"name": "example.com", "mbox_quota": 0,
           "dom_aliases": [], "maillists": [], "mails": []}})", "1S,0C\n"},
      {R"({"domain": {"name": "example.net", "mbox_quota": 5,
           "dom_aliases": [], "maillists": [], "mails": []}})", "0S,0C\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.session);
    Setting setting(c.session);
    ASSERT_NE(nullptr, get_session_mail_db_info());
    write_file(MaildirSize("info"), "100S,0C\n");
    auto run = CaptureStreams([] { return rm_mbox_quota("example.com", "info"); });
    EXPECT_EQ(1, run.result) << run.err;
    EXPECT_EQ(std::string(c.header) + kEmptyUsage, read_file(MaildirSize("info")));
  }
}

}  // namespace
