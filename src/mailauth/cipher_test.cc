// tests/test_cipher.py checks the stored PKCS#7 texts against another AES
// implementation; these tests cover what it cannot reach.
#include "mailauth/cipher.h"

#include <errno.h>
#include <syslog.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "mailauth/auth_db.h"
#include "mailauth/base64.h"
#include "util/test_support.h"
#include "util/unique_free.h"

namespace {

using tavix::test::LogRecorder;
using tavix::test::TempDir;
using tavix::unique_free;

const char kSpec[] = "AES-256-CBC:PKCS";
const char kPrefix[] = "$AES-256-CBC:PKCS$";

// Key bytes 0x00..0x1f and IV bytes 0x10..0x1f; the expected texts below were
// computed independently.
std::string TestKey() {
  std::string key;
  for (int i = 0; i < 32; ++i) key += static_cast<char>(i);
  return key;
}
const char kTestIv[] = "EBESExQVFhcYGRobHB0eHw==";
const char kPasswordData[] = "Lus6SEDHpP/7OPLtKTzp3A==";  // "password", PKCS#7

std::string Take(char* text) {
  unique_free<char> owner(text);
  return owner ? std::string(owner.get()) : std::string("<null>");
}

class CipherTest : public testing::Test {
 protected:
  std::string WriteKey(const std::string& name, const std::string& bytes) {
    const std::string path = dir_.path(name);
    tavix::test::write_file(path, bytes);
    return path;
  }

  TempDir dir_;
  LogRecorder log_;
};

// Holds one reference to a cipher context for a test's scope.
class Context {
 public:
  Context(const char* spec, const std::string& key_path)
      : spec_(spec), ok_(tavix_cipher_init(spec, key_path.c_str()) == 1) {}
  ~Context() {
    if (ok_) tavix_cipher_cleanup(spec_);
  }
  bool ok() const { return ok_; }

 private:
  const char* spec_;
  bool ok_;
};

// Only the first sixteen bytes of a longer IV count; an empty password
// encrypts but is refused on the way back. Without ":PKCS" the text is
// padded with zeros.
TEST_F(CipherTest, AGivenIvGivesAKnownText) {
  std::string long_iv;
  for (int i = 0x10; i < 0x24; ++i) long_iv += static_cast<char>(i);
  unique_free<char> long_iv_text(
      b64_encode(reinterpret_cast<const unsigned char*>(long_iv.data()), long_iv.size()));
  const std::string long_spec = kPrefix + std::string(long_iv_text.get());
  const std::string iv = kPrefix + std::string(kTestIv);
  const std::string zero_iv = "$AES-256-CBC$" + std::string(kTestIv);
  const struct {
    const char* spec;
    std::string enc_spec;
    const char* plain;
    std::string expected;
    const char* decrypted;
  } cases[] = {
      {kSpec, long_spec, "password", long_spec + "$" + kPasswordData, "password"},
      {kSpec, iv, "", iv + "$Wm4EVwj7cZbwLlU9AsOmkg==", "<null>"},
      {"AES-256-CBC", zero_iv, "password", zero_iv + "$KPM/TWlHghrIqVJ+XQihPw==", "password"},
  };
  const std::string key = WriteKey("key", TestKey());
  for (const auto& c : cases) {
    const Context context(c.spec, key);
    ASSERT_TRUE(context.ok());
    EXPECT_EQ(Take(tavix_cipher_crypt(c.plain, c.enc_spec.c_str())), c.expected);
    EXPECT_EQ(Take(tavix_cipher_decrypt(c.expected.c_str())), c.decrypted);
    // The given IV served one message only: the next one draws its own again.
    EXPECT_NE(Take(tavix_cipher_encrypt(c.spec, c.plain)), c.expected);
  }
}

TEST_F(CipherTest, BadTextsDoNotDecrypt) {
  const Context mail(kSpec, WriteKey("key", TestKey()));
  ASSERT_TRUE(mail.ok());
  const std::string texts[] = {
      "$AES-256-CBC:PKCS$", "$AES-256-CBC:PKCS$$", "AES-256-CBC:PKCS$x$y",
      // An IV too short to use.
      "$AES-256-CBC:PKCS$EBES$Lus6SEDHpP/7OPLtKTzp3A==",
      // Data that is not a whole block.
      kPrefix + std::string(kTestIv) + "$Lus6SEDHpP/7OPLt",
      // A cipher nobody initialised has no context to decrypt with.
      "$AES-128-CBC:PKCS$EBESExQVFhcYGRobHB0eHw==$AAAA",
  };
  for (const std::string& text : texts)
    EXPECT_EQ(Take(tavix_cipher_decrypt(text.c_str())), "<null>") << text;
}

TEST_F(CipherTest, UnusableKeysAndCiphersAreRefused) {
  const std::string path = dir_.path("key");
  const struct {
    const char* spec;
    int key_len;  // -1: no key file
    std::string reason;
  } cases[] = {
      {kSpec, -1, "Can't read encryption key from '" + path + "': No such file or directory (2)"},
      {kSpec, 16, "Failed to read entire encryption key from '" + path + "': Success (0)"},
      {"AES-256-CBC:PKCS-AND-MUCH-MORE-TEXT", 32,
       "Unknown encryption cipher: 'AES-256-CBC:PKCS-AND-MUCH-MORE-TEXT'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    LogRecorder::lines().clear();
    if (c.key_len >= 0) WriteKey("key", TestKey().substr(0, c.key_len));
    EXPECT_EQ(tavix_cipher_init(c.spec, path.c_str()), 0);
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, c.reason));
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Failed to initialize encryption cipher '" +
                                              std::string(c.spec) + "' with key '" + path + "'"));
    EXPECT_EQ(Take(tavix_cipher_encrypt(c.spec, "password")), "<null>");
  }
}

TEST(MailAesTest, RecognisesTheStoredPrefix) {
  const struct {
    const char* text;
    bool encrypted;
  } cases[] = {
      {nullptr, false}, {"", false}, {"$AES-256-CBC:PKCS", false}, {"$aes-256-cbc:pkcs$", false},
      {"$AES-256-CBC:PKCS$", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(is_encrypted_with_mail_aes(c.text), c.encrypted) << (c.text ? c.text : "NULL");
    if (!c.encrypted) {
      errno = 0;
      EXPECT_EQ(mail_aes_decrypt(c.text), nullptr);
      EXPECT_EQ(errno, EINVAL);
    }
  }
}

class PasswdCipherOpTest : public CipherTest {
 protected:
  void SetUp() override { mailAuthKeySetPath(key_.c_str()); }
  void TearDown() override { mailAuthKeySetPath(saved_); }

  const char* const saved_ = mailAuthKey;
  const std::string key_ = WriteKey("passwd_db_key", TestKey());
};

TEST_F(PasswdCipherOpTest, FailuresNameTheMailAddress) {
  EXPECT_EQ(Take(mailPasswdCipherOp("no prefix", 0, "john", "example.com")), "<null>");
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR,
                               "Failed to decrypt password for mail address 'john@example.com'"));
  EXPECT_EQ(Take(mailPasswdCipherOp(nullptr, 1, "john", nullptr)), "<null>");
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Failed to encrypt password for mail address 'john'"));

  const std::string absent = dir_.path("absent");
  mailAuthKeySetPath(absent.c_str());
  EXPECT_EQ(Take(mailPasswdCipherOp("password", 1, "john", "example.com")), "<null>");
  EXPECT_TRUE(LogRecorder::Has(
      LOG_ERR,
      "Failed to initialize password cipher context (for mail address 'john@example.com')"));
  EXPECT_EQ(mailPasswdCipherInit(), -1);
  // No reference was taken, so none was dropped.
  EXPECT_FALSE(LogRecorder::Has(LOG_INFO, "A programming error?"));
}

}  // namespace
