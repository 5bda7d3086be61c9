#include "mailauth/auth_records.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "mailauth/auth_db.h"
#include "mailauth/sqlite_test_support.h"
#include "util/test_support.h"

namespace {

using tavix::test::kNull;
using tavix::test::LogRecorder;
using tavix::test::TempDir;

constexpr uint8_t kRaw = MAIL_AUTH_RAW_PASSWORD;
constexpr uint8_t kUserOff = MAIL_AUTH_USER_DISABLED;

// What the callback was handed: address, password and flags.
using Seen = std::tuple<std::string, std::string, int>;

// Records every call and answers from a script (1 once it runs out).
struct Recorder {
  std::vector<Seen> seen;
  std::vector<int> answers;

  static int Callback(const char* address, const char* password, uint8_t flags, void* data) {
    auto* self = static_cast<Recorder*>(data);
    self->seen.emplace_back(address, password ? password : kNull, flags);
    size_t call = self->seen.size() - 1;
    return call < self->answers.size() ? self->answers[call] : 1;
  }
};

// A fresh database and key in a temporary directory for every test, with
// users stored out of order, one without a password; b.test is disabled.
// The callback sees the usable password (an encrypted one decrypted) and
// flags built from the columns: raw 1, user disabled 2, domain disabled 4.
class AuthLookupTest : public testing::Test {
 protected:
  void SetUp() override {
    mailAuthDBSetPath(db_.c_str());
    mailAuthKeySetPath(key_.c_str());
    ASSERT_EQ(0, mailAuthDBInit());
    ASSERT_EQ(0, mailAuthKeyInit());
    ASSERT_EQ(0, mailAuthSetRaw("zed", "b.test", "3", kRaw));
    ASSERT_EQ(0, mailAuthSetRaw("amy", "b.test", "2", kRaw | kUserOff));
    ASSERT_EQ(0, mailAuthSet("zed", "a.test", "1", 0));
    ASSERT_EQ(0, mailAuthSetRaw("nopass", "a.test", nullptr, kRaw));
    ASSERT_EQ(0, mailAuthDisableDomain("b.test"));
  }
  void TearDown() override {
    mailAuthDBSetPath(saved_db_);
    mailAuthKeySetPath(saved_key_);
  }

  TempDir tmp_;
  LogRecorder log_;
  std::string db_ = tmp_.path("auth/passwd.db");
  std::string key_ = tmp_.path("auth/passwd_db_key");
  const char* const saved_db_ = mailAuthDB;
  const char* const saved_key_ = mailAuthKey;
};

TEST_F(AuthLookupTest, CheckHandsOverOneUser) {
  Recorder recorder;
  recorder.answers = {42};
  EXPECT_EQ(42, mailAuthCheck("Amy@B.test", Recorder::Callback, &recorder));
  for (const char* address : {"@x", "x", "x@"}) {
    EXPECT_EQ(-1, mailAuthCheck(address, Recorder::Callback, &recorder)) << address;
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, std::string("Invalid mail address '") + address + "'"));
  }
  EXPECT_EQ(1, mailAuthCheck("jack@a.test", Recorder::Callback, &recorder));
  EXPECT_TRUE(LogRecorder::Has(LOG_INFO,
                               "No such user 'jack@a.test' in mail authorization database"));
  EXPECT_EQ(1, mailAuthCheck("zed@c.test", Recorder::Callback, &recorder));
  EXPECT_EQ(-1, mailAuthCheck("nopass@a.test", Recorder::Callback, &recorder));
  // Text in the encrypted column that cannot be decrypted is handed over as stored.
  ASSERT_EQ(0, mailAuthSetRaw("jill", "a.test", "not encrypted", 0));
  EXPECT_EQ(1, mailAuthCheck("jill@a.test", Recorder::Callback, &recorder));
  EXPECT_EQ((std::vector<Seen>{{"Amy@B.test", "2", 7}, {"jill@a.test", "not encrypted", 0}}),
            recorder.seen);
}

// The raw look-up hands over the columns as stored and tells a missing user
// from a failure.
TEST_F(AuthLookupTest, LookupGivesTheStoredColumns) {
  MailAuthRecord record;
  ASSERT_EQ(1, mailAuthLookup("ZED", "a.test", &record));
  EXPECT_TRUE(record.has_encrypted);
  EXPECT_EQ(0u, record.encrypted.find("$AES-256-CBC:PKCS$"));
  EXPECT_FALSE(record.has_raw);
  EXPECT_FALSE(record.user_disabled || record.domain_disabled);

  MailAuthRecord amy;
  ASSERT_EQ(1, mailAuthLookup("amy", "b.test", &amy));
  EXPECT_FALSE(amy.has_encrypted);
  EXPECT_EQ("2", amy.raw);
  EXPECT_TRUE(amy.user_disabled && amy.domain_disabled);

  EXPECT_EQ(0, mailAuthLookup("zed", "c.test", &record));
  EXPECT_EQ(0, mailAuthLookup("jack", "a.test", &record));
  // The path is kept by pointer, not copied: it must outlive the look-up.
  const std::string missing = tmp_.path("missing/passwd.db");
  mailAuthDBSetPath(missing.c_str());
  EXPECT_EQ(-1, mailAuthLookup("zed", "a.test", &record));
}

// Iteration goes by domain, then name, skips users without a password and
// stops at the first answer of zero or less, giving it back.
TEST_F(AuthLookupTest, IterationVisitsEveryUserInOrder) {
  const std::vector<Seen> all = {
      {"zed@a.test", "1", 0}, {"amy@b.test", "2", 7}, {"zed@b.test", "3", 5}};
  const struct {
    std::vector<int> answers;
    int result;
    size_t calls;
  } cases[] = {{{5, 6, 7}, 7, 3}, {{0}, 0, 1}, {{1, -3}, -3, 2}};
  for (const auto& c : cases) {
    Recorder recorder;
    recorder.answers = c.answers;
    EXPECT_EQ(c.result, mailAuthIterateAll(Recorder::Callback, &recorder));
    EXPECT_EQ(std::vector<Seen>(all.begin(), all.begin() + c.calls), recorder.seen);
  }
  EXPECT_TRUE(LogRecorder::Has(LOG_INFO, "empty password properties (both plain and encrypted) "
                                         "for user nopass@a.test, skipped"));
}

TEST_F(AuthLookupTest, ShortCheckFindsTheNameInEveryDomain) {
  Recorder recorder;
  EXPECT_EQ(1, mailAuthCheckShort("ZED", Recorder::Callback, &recorder));
  // This query has no order of its own.
  std::sort(recorder.seen.begin(), recorder.seen.end());
  EXPECT_EQ((std::vector<Seen>{{"zed@a.test", "1", 0}, {"zed@b.test", "3", 5}}), recorder.seen);
  // Nothing to visit answers 1.
  Recorder none;
  none.answers = {0};
  EXPECT_EQ(1, mailAuthCheckShort("nobody", Recorder::Callback, &none));
  EXPECT_TRUE(none.seen.empty());
}

}  // namespace
