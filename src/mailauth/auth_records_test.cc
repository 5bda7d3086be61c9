#include "mailauth/auth_records.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "mailauth/auth_db.h"
#include "mailauth/sqlite_test_support.h"
#include "util/test_support.h"

namespace {

using namespace std::chrono_literals;
using tavix::test::kNull;
using tavix::test::LockHolder;
using tavix::test::LogRecorder;
using tavix::test::MillisecondsOf;
using tavix::test::QueryRows;
using tavix::test::Row;
using tavix::test::Rows;
using tavix::test::TempDir;

constexpr uint8_t kRaw = MAIL_AUTH_RAW_PASSWORD;
constexpr uint8_t kUserOff = MAIL_AUTH_USER_DISABLED;
constexpr uint8_t kDomainOff = MAIL_AUTH_DOMAIN_DISABLED;
const char kEncryptedPrefix[] = "$AES-256-CBC:PKCS$";

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

// A fresh database and key in a temporary directory for every test.
class AuthRecordsTest : public testing::Test {
 protected:
  void SetUp() override {
    mailAuthDBSetPath(db_.c_str());
    mailAuthKeySetPath(key_.c_str());
    Reset();
  }
  void TearDown() override {
    mailAuthDBSetPath(saved_db_);
    mailAuthKeySetPath(saved_key_);
  }
  // An empty database and a new key, for each case of a table.
  void Reset() {
    ASSERT_EQ(0, mailAuthDBInit());
    ASSERT_EQ(0, mailAuthKeyInit());
  }

  Rows Domains() { return QueryRows(db_, "SELECT name, status FROM domains ORDER BY name"); }
  // domain, mail name, userPassword, cmusaslsecretPLAIN, status
  Rows Users() {
    return QueryRows(db_,
                     "SELECT d.name, u.name, u.userPassword, u.cmusaslsecretPLAIN, u.status "
                     "FROM users AS u JOIN domains AS d ON u.dom_id = d.id "
                     "ORDER BY d.name, u.name");
  }

  TempDir tmp_;
  LogRecorder log_;
  std::string db_ = tmp_.path("auth/passwd.db");
  std::string key_ = tmp_.path("auth/passwd_db_key");
  const char* const saved_db_ = mailAuthDB;
  const char* const saved_key_ = mailAuthKey;
};

TEST_F(AuthRecordsTest, CreatedSchemaIsTheScript) {
  Rows expected = {
      {"CREATE TABLE domains (  id     INTEGER PRIMARY KEY AUTOINCREMENT, name   VARCHAR(255) UNIQUE, status INTEGER NOT NULL DEFAULT 0)"},
      {"CREATE INDEX domains_name ON domains(name)"},
      {"CREATE TRIGGER fkd_users_domains_id  BEFORE DELETE ON domains  FOR EACH ROW BEGIN    DELETE FROM users WHERE dom_id = OLD.id;  END"},
      {"CREATE TABLE users(  id           INTEGER PRIMARY KEY AUTOINCREMENT, dom_id       INTEGER NOT NULL, name         VARCHAR(255) NOT NULL, userPassword VARCHAR(255), cmusaslsecretPLAIN VARCHAR(255), status INT NOT NULL DEFAULT 0, UNIQUE(name, dom_id))"},
      {"CREATE INDEX users_name ON users(name)"},
      {"CREATE INDEX users_dom_id ON users(dom_id)"},
      {"CREATE TRIGGER fki_users_domains_id  BEFORE INSERT ON users  FOR EACH ROW BEGIN    SELECT RAISE(ROLLBACK, 'insert on table \"users\" violates foreign key constraint \"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END"},
      {"CREATE TRIGGER fku_users_domains_id  BEFORE UPDATE ON users  FOR EACH ROW BEGIN    SELECT RAISE(ROLLBACK, 'update on table \"users\" violates foreign key constraint \"fk_domains_id\"')    WHERE (SELECT id FROM domains WHERE id = NEW.dom_id) IS NULL;  END"},
  };
  // Internal objects (sqlite_sequence, the unique constraint's index) have
  // no statement of their own.
  EXPECT_EQ(expected, QueryRows(db_, "SELECT sql FROM sqlite_master WHERE sql IS NOT NULL "
                                     "AND name NOT LIKE 'sqlite_%' ORDER BY rowid"));
}

// A password for a user of an unknown domain registers the domain first,
// disabled only when asked; an existing domain keeps its state. Names are
// stored in lower case.
TEST_F(AuthRecordsTest, SettingAUserRegistersItsDomain) {
  const int kNone = -1;
  struct Case {
    int earlier;  // flags of another user set before, or kNone
    uint8_t flags;
    const char* domain_status;
    const char* user_status;
  } const cases[] = {
      {kNone, kRaw, "0", "0"},
      {kNone, kRaw | kDomainOff, "1", "0"},
      {kNone, kRaw | kUserOff, "0", "1"},
      {kNone, kRaw | kUserOff | kDomainOff, "1", "1"},
      {kRaw | kDomainOff, kRaw, "1", "0"},
      {kRaw, kRaw | kDomainOff, "0", "0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.earlier << " " << int(c.flags));
    Reset();
    if (c.earlier != kNone) {
      ASSERT_EQ(0, mailAuthSetRaw("a", "example.com", "x", c.earlier));
    }
    ASSERT_EQ(0, mailAuthSetRaw("John", "Example.COM", "secret", c.flags));
    EXPECT_EQ((Rows{{"example.com", c.domain_status}}), Domains());
    EXPECT_EQ((Row{"example.com", "john", kNull, "secret", c.user_status}), Users().back());
  }
}

// The two password columns replace each other: a row never carries both.
TEST_F(AuthRecordsTest, RawAndEncryptedPasswordsReplaceEachOther) {
  for (const char* password : {"secret", "again"}) {
    ASSERT_EQ(0, mailAuthSet("john", "example.com", password, 0));
    const Rows users = Users();
    ASSERT_EQ(1u, users.size());
    EXPECT_EQ(0u, users[0][2].rfind(kEncryptedPrefix, 0)) << users[0][2];
    EXPECT_EQ(kNull, users[0][3]);

    ASSERT_EQ(0, mailAuthSet("john", "example.com", "plain", kRaw));
    EXPECT_EQ((Rows{{"example.com", "john", kNull, "plain", "0"}}), Users());
  }
}

TEST_F(AuthRecordsTest, EmptyPostboxPasswordRemovesTheUser) {
  for (const char* empty : {static_cast<const char*>(nullptr), ""}) {
    Reset();
    ASSERT_EQ(0, set_postbox_passwd("john", "example.com", "secret", kRaw));
    ASSERT_EQ(0, set_postbox_passwd("jane", "example.com", "secret", kRaw));
    EXPECT_EQ(0, set_postbox_passwd("john", "example.com", empty, kRaw));
    EXPECT_EQ((Rows{{"example.com", "jane", kNull, "secret", "0"}}), Users());
  }
}

// A clone copies the stored text unchanged (an encrypted password stays
// encrypted) and gives a target domain it registers the source's state.
TEST_F(AuthRecordsTest, CloneCopiesTheStoredRecord) {
  struct Case {
    uint8_t flags;
    bool disable_domain;
  } const cases[] = {{0, false}, {kRaw, false}, {kUserOff, true}, {kRaw | kUserOff, true}};
  for (const Case& c : cases) {
    Reset();
    ASSERT_EQ(0, mailAuthSet("john", "old.test", "secret", c.flags));
    if (c.disable_domain) {
      ASSERT_EQ(0, mailAuthDisableDomain("old.test"));
    }
    const Row source = Users().at(0);

    ASSERT_EQ(0, mailAuthClone("john", "old.test", "jack", "new.test"));

    const char* status = c.disable_domain ? "1" : "0";
    EXPECT_EQ((Rows{{"new.test", status}, {"old.test", status}}), Domains());
    EXPECT_EQ((Rows{{"new.test", "jack", source[2], source[3], source[4]}, source}), Users())
        << int(c.flags);
  }
  // An unknown source does nothing.
  EXPECT_EQ(0, mailAuthClone("nobody", "old.test", "jill", "new.test"));
  EXPECT_EQ(0, mailAuthClone("john", "unknown.test", "jill", "other.test"));
  EXPECT_EQ(2u, Domains().size());
  EXPECT_EQ(2u, Users().size());
}

// Removal never registers a domain; removing a domain takes its users along.
TEST_F(AuthRecordsTest, RemovingUsersAndDomains) {
  ASSERT_EQ(0, mailAuthSetRaw("john", "example.com", "x", kRaw));
  ASSERT_EQ(0, mailAuthSetRaw("john", "other.test", "x", kRaw));
  ASSERT_EQ(0, mailAuthSetRaw("a", "gone.test", "x", kRaw));
  ASSERT_EQ(0, mailAuthSetRaw("b", "gone.test", "x", kRaw));

  EXPECT_EQ(0, mailAuthRemove("john", "nowhere.test"));
  EXPECT_TRUE(LogRecorder::lines().empty());
  EXPECT_EQ(0, mailAuthRemove("nobody", "example.com"));
  EXPECT_EQ(0, mailAuthRemove("John", "example.com"));
  EXPECT_EQ(0, mailAuthRemoveDomain("GONE.test"));

  EXPECT_EQ((Rows{{"other.test", "john", kNull, "x", "0"}}), Users());
  EXPECT_EQ((Rows{{"example.com", "0"}, {"other.test", "0"}}), Domains());
}

TEST_F(AuthRecordsTest, RenamingAndDomainStatus) {
  ASSERT_EQ(0, mailAuthSetRaw("john", "example.com", "x", kRaw));
  EXPECT_EQ(0, mailAuthRename("JOHN", "Jack", "example.com"));
  EXPECT_EQ((Rows{{"example.com", "jack", kNull, "x", "0"}}), Users());
  EXPECT_EQ(0, mailAuthRename("nobody", "someone", "example.com"));  // nothing to rename
  EXPECT_EQ(-1, mailAuthRename("jack", "john", "nowhere.test"));
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "No such domain 'nowhere.test' in the mail "
                                        "authentication DB"));

  EXPECT_EQ(0, mailAuthDisableDomain("EXAMPLE.com"));
  EXPECT_EQ((Rows{{"example.com", "1"}}), Domains());
  EXPECT_EQ(0, mailAuthEnableDomain("example.com"));
  EXPECT_EQ((Rows{{"example.com", "0"}}), Domains());
  EXPECT_EQ(0, mailAuthDisableDomain("unknown.test"));

  EXPECT_EQ(0, mailAuthRenameDomain("example.com", "New.Example"));
  EXPECT_EQ((Rows{{"new.example", "0"}}), Domains());
  EXPECT_EQ((Rows{{"new.example", "jack", kNull, "x", "0"}}), Users());
}

TEST_F(AuthRecordsTest, CheckRefusesMalformedAddresses) {
  for (const char* address : {"@x", "x", "x@"}) {
    Recorder recorder;
    EXPECT_EQ(-1, mailAuthCheck(address, Recorder::Callback, &recorder)) << address;
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, std::string("Invalid mail address '") + address + "'"));
    EXPECT_TRUE(recorder.seen.empty());
  }
}

// The callback sees the usable password and flags built from the columns:
// raw 1, user disabled 2, domain disabled 4; an encrypted one decrypted.
TEST_F(AuthRecordsTest, CheckHandsOverPasswordAndFlags) {
  struct Case {
    uint8_t set_flags;
    bool disable_domain;
    int seen_flags;
  } const cases[] = {
      {0, false, 0},        {kRaw, false, 1}, {kUserOff, false, 2},
      {kRaw | kUserOff, false, 3}, {0, true, 4},     {kRaw | kUserOff, true, 7},
  };
  for (const Case& c : cases) {
    Reset();
    ASSERT_EQ(0, mailAuthSet("john", "example.com", "secret", c.set_flags));
    if (c.disable_domain) {
      ASSERT_EQ(0, mailAuthDisableDomain("example.com"));
    }
    Recorder recorder;
    recorder.answers = {42};
    EXPECT_EQ(42, mailAuthCheck("John@Example.com", Recorder::Callback, &recorder));
    EXPECT_EQ((std::vector<Seen>{{"John@Example.com", "secret", c.seen_flags}}), recorder.seen)
        << int(c.set_flags);
  }
}

TEST_F(AuthRecordsTest, CheckOfUnknownOrPasswordlessUsers) {
  ASSERT_EQ(0, mailAuthSetRaw("john", "example.com", nullptr, kRaw));
  // Text in the encrypted column that cannot be decrypted is handed over as stored.
  ASSERT_EQ(0, mailAuthSetRaw("jill", "example.com", "not encrypted", 0));
  Recorder recorder;
  EXPECT_EQ(1, mailAuthCheck("jack@example.com", Recorder::Callback, &recorder));
  EXPECT_TRUE(LogRecorder::Has(LOG_INFO,
                               "No such user 'jack@example.com' in mail authorization database"));
  EXPECT_EQ(1, mailAuthCheck("john@other.test", Recorder::Callback, &recorder));
  EXPECT_EQ(-1, mailAuthCheck("john@example.com", Recorder::Callback, &recorder));
  EXPECT_TRUE(recorder.seen.empty());
  EXPECT_EQ(1, mailAuthCheck("jill@example.com", Recorder::Callback, &recorder));
  EXPECT_EQ((std::vector<Seen>{{"jill@example.com", "not encrypted", 0}}), recorder.seen);
}

class AuthIterationTest : public AuthRecordsTest {
 protected:
  void SetUp() override {
    AuthRecordsTest::SetUp();
    // Stored out of order; iteration goes by domain, then name.
    ASSERT_EQ(0, mailAuthSetRaw("zed", "b.test", "3", kRaw));
    ASSERT_EQ(0, mailAuthSetRaw("amy", "b.test", "2", kRaw | kUserOff));
    ASSERT_EQ(0, mailAuthSet("zed", "a.test", "1", 0));
    ASSERT_EQ(0, mailAuthSetRaw("nopass", "a.test", nullptr, kRaw));  // skipped
  }
};

TEST_F(AuthIterationTest, VisitsEveryUserInOrder) {
  Recorder recorder;
  recorder.answers = {5, 6, 7};
  EXPECT_EQ(7, mailAuthIterateAll(Recorder::Callback, &recorder));
  EXPECT_EQ((std::vector<Seen>{{"zed@a.test", "1", 0}, {"amy@b.test", "2", 3},
                               {"zed@b.test", "3", 1}}),
            recorder.seen);
  EXPECT_TRUE(LogRecorder::Has(LOG_INFO, "empty password properties (both plain and encrypted) "
                                         "for user nopass@a.test, skipped"));
}

TEST_F(AuthIterationTest, StopsAtTheFirstAnswerOfZeroOrLess) {
  struct Case {
    std::vector<int> answers;
    int result;
    size_t calls;
  } const cases[] = {{{0}, 0, 1}, {{1, -3}, -3, 2}, {{2, 2, 0}, 0, 3}};
  for (const Case& c : cases) {
    Recorder recorder;
    recorder.answers = c.answers;
    EXPECT_EQ(c.result, mailAuthIterateAll(Recorder::Callback, &recorder));
    EXPECT_EQ(c.calls, recorder.seen.size());
  }
}

TEST_F(AuthIterationTest, ShortCheckFindsTheNameInEveryDomain) {
  Recorder recorder;
  EXPECT_EQ(1, mailAuthCheckShort("ZED", Recorder::Callback, &recorder));
  // This query has no order of its own.
  std::sort(recorder.seen.begin(), recorder.seen.end());
  EXPECT_EQ((std::vector<Seen>{{"zed@a.test", "1", 0}, {"zed@b.test", "3", 1}}), recorder.seen);

  // Nothing to visit answers 1.
  Recorder none;
  none.answers = {0};
  EXPECT_EQ(1, mailAuthCheckShort("nobody", Recorder::Callback, &none));
  EXPECT_TRUE(none.seen.empty());
}

// Another connection holding the database locked well beyond SQLite's own
// busy timeout makes an operation wait, not fail.
TEST_F(AuthRecordsTest, OperationsWaitForAConcurrentWriter) {
  ASSERT_EQ(0, mailAuthSetRaw("john", "example.com", "x", kRaw));
  Recorder recorder;
  recorder.answers = {9, 9};
  struct Case {
    const char* name;
    std::function<int()> run;
    int expected;
  } const cases[] = {
      {"write", [] { return mailAuthSetRaw("jack", "example.com", "y", kRaw); }, 0},
      {"read", [&] { return mailAuthCheck("john@example.com", Recorder::Callback, &recorder); },
       9},
      {"iteration", [&] { return mailAuthCheckShort("jack", Recorder::Callback, &recorder); }, 9},
  };
  for (const Case& c : cases) {
    LockHolder lock(db_, 200ms);
    ASSERT_TRUE(lock.locked());
    int result = -2;
    long long ms = MillisecondsOf([&] { result = c.run(); });
    EXPECT_EQ(c.expected, result) << c.name;
    EXPECT_GE(ms, 150) << c.name;
  }
  EXPECT_EQ(2u, Users().size());
}

}  // namespace
