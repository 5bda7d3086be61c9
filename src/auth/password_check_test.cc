#include "auth/password_check.h"

#include <crypt.h>
#include <gtest/gtest.h>

#include <string.h>

#include <cstdlib>
#include <string>

#include "mailauth/auth_db.h"
#include "mailauth/cipher.h"
#include "util/test_support.h"
#include "util/unique_free.h"

namespace {

using tavix::auth::Match;
using tavix::auth::MatchPassword;
using tavix::auth::Secret;
using tavix::test::LogRecorder;
using tavix::test::TempDir;

class PasswordCheckTest : public testing::Test {
 protected:
  void SetUp() override {
    mailAuthKeySetPath(key_.c_str());
    ASSERT_EQ(0, mailAuthKeyInit());
    ASSERT_EQ(1, mail_aes_init(key_.c_str()));
  }
  void TearDown() override {
    mail_aes_cleanup();
    mailAuthKeySetPath(saved_key_);
  }

  static MailAuthRecord Encrypted(const char* password) {
    MailAuthRecord record;
    tavix::unique_free<char> text(mail_aes_encrypt(password));
    record.has_encrypted = text != nullptr;
    record.encrypted = text ? text.get() : "";
    return record;
  }
  static MailAuthRecord Hashed(const char* password) {
    MailAuthRecord record;
    record.has_raw = true;
    record.raw = crypt(password, "$6$saltsalt$");
    return record;
  }

  TempDir tmp_;
  LogRecorder log_;
  std::string key_ = tmp_.path("passwd_db_key");
  const char* const saved_key_ = mailAuthKey;
};

TEST_F(PasswordCheckTest, OnlyTheStoredPasswordMatches) {
  MailAuthRecord undecryptable;
  undecryptable.has_encrypted = true;
  undecryptable.encrypted = "$AES-256-CBC:PKCS$AAAAAAAAAAAAAAAAAAAAAA==$AAAAAAAAAAAAAAAAAAAAAA==";
  MailAuthRecord nothing;
  nothing.has_raw = true;
  MailAuthRecord plain_in_raw;  // what no command writes: a raw non-hash
  plain_in_raw.has_raw = true;
  plain_in_raw.raw = "secret";

  struct Case {
    const char* what;
    MailAuthRecord record;
    std::string given;
    Match match;
  } cases[] = {
      {"encrypted, right", Encrypted("s3cret"), "s3cret", Match::kYes},
      {"encrypted, wrong", Encrypted("s3cret"), "s3creT", Match::kNo},
      {"encrypted, prefix", Encrypted("s3cret"), "s3cre", Match::kNo},
      {"encrypted, longer", Encrypted("s3cret"), "s3crets", Match::kNo},
      {"encrypted, empty", Encrypted("s3cret"), "", Match::kNo},
      {"encrypted, NUL inside", Encrypted("s3cret"), std::string("s3cret\0x", 8), Match::kNo},
      {"long password", Encrypted(std::string(300, 'p').c_str()), std::string(300, 'p'),
       Match::kYes},
      {"undecryptable", undecryptable, "anything", Match::kNo},
      {"undecryptable, stored text given", undecryptable, undecryptable.encrypted, Match::kNo},
      {"hash, right", Hashed("h4sh"), "h4sh", Match::kYes},
      {"hash, wrong", Hashed("h4sh"), "h4sH", Match::kNo},
      {"hash, empty", Hashed("h4sh"), "", Match::kNo},
      {"hash, the hash given", Hashed("h4sh"), Hashed("h4sh").raw, Match::kNo},
      {"raw text that is no hash", plain_in_raw, "secret", Match::kNo},
      {"no password", nothing, "x", Match::kUnusable},
      {"no record columns", MailAuthRecord(), "x", Match::kUnusable},
  };
  for (const Case& c : cases) {
    Secret given;
    given.assign(c.given.data(), c.given.size());
    EXPECT_EQ(c.match, MatchPassword(c.record, given)) << c.what;
  }
}

TEST(SecretsEqualTest, LengthAndEveryByteCount) {
  using tavix::auth::SecretsEqual;
  EXPECT_TRUE(SecretsEqual("abc", 3, "abc", 3));
  EXPECT_FALSE(SecretsEqual("abc", 3, "abd", 3));
  EXPECT_FALSE(SecretsEqual("abc", 3, "abcd", 4));
  EXPECT_FALSE(SecretsEqual("abcd", 4, "abc", 3));
  EXPECT_FALSE(SecretsEqual("abc", 3, "", 0));
  EXPECT_TRUE(SecretsEqual("", 0, "", 0));
}

// Each check costs one decryption and one crypt(3), whatever is stored and
// whether the address has a record at all: the time of the answer must not
// tell an unknown address from a wrong password.
TEST_F(PasswordCheckTest, EveryCheckDoesTheSameWork) {
  MailAuthRecord nothing;
  struct Case {
    const char* what;
    MailAuthRecord record;
    const char* given;
  } cases[] = {
      {"encrypted, right", Encrypted("s3cret"), "s3cret"},
      {"encrypted, wrong", Encrypted("s3cret"), "wrong"},
      {"hash, right", Hashed("h4sh"), "h4sh"},
      {"hash, wrong", Hashed("h4sh"), "wrong"},
      {"no password stored", nothing, "wrong"},
  };
  for (const Case& c : cases) {
    Secret given;
    given.assign(c.given, strlen(c.given));
    tavix::auth::Work work;
    MatchPassword(c.record, given, &work);
    EXPECT_EQ(1, work.decryptions) << c.what;
    EXPECT_EQ(1, work.crypts) << c.what;
  }
  Secret given;
  given.assign("wrong", 5);
  tavix::auth::Work work;
  tavix::auth::DecoyMatch(given, &work);
  EXPECT_EQ(1, work.decryptions);
  EXPECT_EQ(1, work.crypts);
}

// A decoy setting that this system's crypt(3) refused would fail at once
// and cost nothing; it must run the whole method, and match nothing.
TEST(DecoyHashTest, RunsTheWholeMethodAndMatchesNothing) {
  struct crypt_data data = {};
  const char* result = crypt_r("s3cret", tavix::auth::kDecoyHash, &data);
  ASSERT_NE(nullptr, result);
  EXPECT_EQ(std::string("$6$"), std::string(result, 3));
  EXPECT_EQ(strlen(tavix::auth::kDecoyHash), strlen(result));
  EXPECT_STRNE(tavix::auth::kDecoyHash, result);
  MailAuthRecord decoy;
  decoy.has_raw = true;
  decoy.raw = tavix::auth::kDecoyHash;
  for (const char* guess : {"", "x", "password", "s3cret"}) {
    Secret given;
    given.assign(guess, strlen(guess));
    EXPECT_NE(Match::kYes, MatchPassword(decoy, given)) << guess;
  }
}

TEST_F(PasswordCheckTest, DecoyLogsNothing) {
  Secret given;
  given.assign("guess", 5);
  tavix::auth::DecoyMatch(given);
  EXPECT_TRUE(LogRecorder::lines().empty());
}

}  // namespace
