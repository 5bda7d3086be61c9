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

// Decoded length of the data part of a stored text.
size_t DataLength(const std::string& text) {
  size_t len = 0;
  unique_free<unsigned char> data(b64_decode(text.substr(text.rfind('$') + 1).c_str(), &len));
  return len;
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

TEST_F(CipherTest, TextsRoundTripInWholeBlocksWithAFreshIvEachTime) {
  const std::string p15(15, 'p'), p16(16, 'p'), p17(17, 'p');
  const struct {
    const char* spec;
    std::string plain;
    size_t data_len;
  } cases[] = {
      // PKCS#7 always adds at least one byte.
      {kSpec, "x", 16}, {kSpec, p15, 16}, {kSpec, p16, 32}, {kSpec, std::string(70, 'p'), 80},
      {kSpec, "p\xC3\xA4ss w\xC3\xB6rd $ with: colons", 32},
      // Zero padding: an empty text becomes one block of zeros, read back as "".
      {"AES-256-CBC", "", 16}, {"AES-256-CBC", p15, 16}, {"AES-256-CBC", p16, 16},
      {"AES-256-CBC", p17, 32}, {"AES-256-CBC:ZERO", p16, 16},
  };
  const std::string key = WriteKey("key", TestKey());
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.spec) + " " + c.plain);
    const Context context(c.spec, key);
    ASSERT_TRUE(context.ok());
    const std::string prefix = "$" + std::string(c.spec) + "$";
    const std::string text = Take(tavix_cipher_encrypt(c.spec, c.plain.c_str()));
    ASSERT_EQ(text.compare(0, prefix.size(), prefix), 0) << text;
    // 24 base64 characters of the 16-byte IV, then "$" and the data.
    const std::string iv = text.substr(prefix.size(), 25);
    EXPECT_EQ(iv.substr(22), "==$") << text;
    EXPECT_EQ(DataLength(text), c.data_len);
    EXPECT_EQ(Take(tavix_cipher_decrypt(text.c_str())), c.plain);
    EXPECT_NE(Take(tavix_cipher_encrypt(c.spec, c.plain.c_str())).substr(prefix.size(), 25), iv);
  }
}

TEST_F(CipherTest, AGivenIvGivesAKnownText) {
  std::string long_iv;  // only its first sixteen bytes count
  for (int i = 0x10; i < 0x24; ++i) long_iv += static_cast<char>(i);
  long_iv = Take(b64_encode_cstr(long_iv.c_str()));
  const std::string iv = kPrefix + std::string(kTestIv), known = iv + "$" + kPasswordData;
  const std::string key = TestKey();
  const struct {
    const char* spec;
    std::string key, enc_spec;
    const char* plain;
    std::string expected;
    const char* decrypted;
  } cases[] = {
      {kSpec, key, iv + "$", "password", known, "password"},
      {kSpec, key, iv, "password", known, "password"},
      // Only the first 32 bytes of a longer key file count.
      {kSpec, key + "trailing", iv, "password", known, "password"},
      {kSpec, key, kPrefix + long_iv, "password", kPrefix + long_iv + "$" + kPasswordData,
       "password"},
      // An empty password encrypts but is refused on the way back.
      {kSpec, key, iv, "", iv + "$Wm4EVwj7cZbwLlU9AsOmkg==", "<null>"},
      {"AES-256-CBC", key, "$AES-256-CBC$" + std::string(kTestIv), "password",
       "$AES-256-CBC$" + std::string(kTestIv) + "$KPM/TWlHghrIqVJ+XQihPw==", "password"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.enc_spec + " " + c.plain);
    const Context context(c.spec, WriteKey("key", c.key));
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
      {kSpec, 0, "Failed to read entire encryption key from '" + path + "': "},
      {kSpec, 31, "Failed to read entire encryption key from '" + path + "': "},
      {"NO-SUCH-CIPHER:PKCS", 32, "Unknown encryption cipher: 'NO-SUCH-CIPHER:PKCS'"},
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

TEST_F(CipherTest, NestedReferencesShareOneContext) {
  const std::string key = WriteKey("key", TestKey());
  const std::string other = WriteKey("other", std::string(32, 'k'));
  const std::string enc_spec = std::string(kPrefix) + kTestIv;
  const std::string expected = enc_spec + "$" + kPasswordData;

  ASSERT_EQ(mail_aes_init(key.c_str()), 1);
  // A second reference reuses the context: the other key file is not read.
  ASSERT_EQ(mail_aes_init(other.c_str()), 1);
  EXPECT_FALSE(tavix_cipher_cleanup(kSpec));
  EXPECT_EQ(Take(tavix_cipher_crypt("password", enc_spec.c_str())), expected);
  EXPECT_TRUE(tavix_cipher_cleanup(kSpec));
  EXPECT_EQ(Take(mail_aes_encrypt("password")), "<null>");

  // One cleanup too many is reported, not fatal.
  EXPECT_TRUE(tavix_cipher_cleanup(kSpec));
  EXPECT_TRUE(LogRecorder::Has(
      LOG_INFO, "Failed to correctly destroy encryption cipher 'AES-256-CBC:PKCS'. "
                "A programming error?"));

  // A new life of the context reads the key file again.
  const Context again(kSpec, other);
  ASSERT_TRUE(again.ok());
  EXPECT_NE(Take(tavix_cipher_crypt("password", enc_spec.c_str())), expected);
}

TEST(MailAesTest, RecognisesTheStoredPrefix) {
  const struct {
    const char* text;
    bool encrypted;
  } cases[] = {
      {nullptr, false},           {"", false},
      {"$AES-256-CBC:PKCS", false}, {"$aes-256-cbc:pkcs$", false}, {"$AES-256-CBC:PKCS$", true},
      {"$AES-256-CBC:PKCS$EBESExQVFhcYGRobHB0eHw==$Lus6SEDHpP/7OPLtKTzp3A==", true},
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

TEST(MailAesTest, GeneratesThirtyTwoRandomKeyBytes) {
  unsigned char first[40], second[32];
  errno = 0;
  EXPECT_EQ(mail_aes_gen_key(first, 31), 0);
  EXPECT_EQ(errno, EINVAL);

  std::memset(first, 0xAA, sizeof(first));
  ASSERT_EQ(mail_aes_gen_key(first, sizeof(first)), 32);
  ASSERT_EQ(mail_aes_gen_key(second, sizeof(second)), 32);
  EXPECT_NE(std::memcmp(first, second, 32), 0);
  for (size_t i = 32; i < sizeof(first); ++i) EXPECT_EQ(first[i], 0xAA) << i;
}

TEST(SymmetricCipherTest, RefusesTooLittleKeyOrIvAndUsesTheNewestKey) {
  symmetric_cipher c;
  ASSERT_EQ(symmetric_cipher_init(&c), 1);
  const unsigned char bytes[40] = {1, 2, 3};
  const struct {
    int (*set)(symmetric_cipher*, const unsigned char*, size_t);
    const unsigned char* data;
    size_t len;
    int result;
  } cases[] = {
      {symmetric_cipher_set_key, nullptr, 32, 0}, {symmetric_cipher_set_key, bytes, 31, 0},
      {symmetric_cipher_set_key, bytes, 32, 1},   {symmetric_cipher_set_iv, nullptr, 16, 0},
      {symmetric_cipher_set_iv, bytes, 15, 0},    {symmetric_cipher_set_iv, bytes, 40, 1},
  };
  for (const auto& k : cases) {
    errno = 0;
    EXPECT_EQ(k.set(&c, k.data, k.len), k.result) << k.len;
    EXPECT_EQ(errno, k.result ? 0 : EINVAL);
  }
  size_t len = 0;
  const unsigned char* iv = symmetric_cipher_get_iv(&c, &len);
  EXPECT_EQ(len, 16u);
  EXPECT_EQ(std::memcmp(iv, bytes, 16), 0);

  // Nothing to work on yet.
  errno = 0;
  EXPECT_EQ(encrypt_symmetric(&c), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(symmetric_cipher_get_plain(&c), nullptr);

  for (const char* plain : {"first message", "a second, longer message"}) {
    ASSERT_EQ(symmetric_cipher_set_plain(&c, plain), 1);
    ASSERT_EQ(encrypt_symmetric(&c), 1);
    const unsigned char* data = symmetric_cipher_get_encrypted(&c, &len);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(len % 16, 0u);
    EXPECT_EQ(data[len], 0);
    ASSERT_EQ(symmetric_cipher_set_plain(&c, "overwritten"), 1);
    ASSERT_EQ(decrypt_symmetric(&c), 1);
    EXPECT_STREQ(symmetric_cipher_get_plain(&c), plain);
  }

  // A new key reaches the context in use: with a fixed IV only the key differs.
  c.flags = 0;
  std::string texts[2];
  for (int i = 0; i < 2; ++i) {
    const std::string key(32, static_cast<char>('a' + i));
    ASSERT_EQ(symmetric_cipher_set_key(&c, reinterpret_cast<const unsigned char*>(key.data()), 32),
              1);
    ASSERT_EQ(encrypt_symmetric(&c), 1);
    const unsigned char* data = symmetric_cipher_get_encrypted(&c, &len);
    texts[i].assign(reinterpret_cast<const char*>(data), len);
  }
  EXPECT_NE(texts[0], texts[1]);
  EXPECT_EQ(symmetric_cipher_cleanup(&c), 1);
}

class PasswdCipherOpTest : public CipherTest {
 protected:
  void SetUp() override { mailAuthKeySetPath(key_.c_str()); }
  void TearDown() override { mailAuthKeySetPath(saved_); }

  const char* const saved_ = mailAuthKey;
  const std::string key_ = WriteKey("passwd_db_key", TestKey());
  const std::string absent_ = dir_.path("absent");
};

TEST_F(PasswdCipherOpTest, EncryptsAndDecryptsWithItsOwnReference) {
  const std::string text = Take(mailPasswdCipherOp("password", 1, "john", "example.com"));
  ASSERT_TRUE(is_encrypted_with_mail_aes(text.c_str())) << text;
  EXPECT_EQ(Take(mailPasswdCipherOp(text.c_str(), 0, "john", "example.com")), "password");
  // The call let its reference go: no context is left behind.
  EXPECT_EQ(Take(mail_aes_encrypt("password")), "<null>");

  // A caller's own reference outlives the calls.
  ASSERT_EQ(mailPasswdCipherInit(), 0);
  EXPECT_EQ(Take(mailPasswdCipherOp(text.c_str(), 0, "john", "example.com")), "password");
  EXPECT_EQ(Take(mail_aes_decrypt(text.c_str())), "password");
  mailPasswdCipherCleanup();
  EXPECT_EQ(Take(mail_aes_encrypt("password")), "<null>");
  EXPECT_EQ(Take(mailPasswdCipherOp("password", 2, "john", "example.com")), "<null>");
}

TEST_F(PasswdCipherOpTest, FailuresNameTheMailAddress) {
  EXPECT_EQ(Take(mailPasswdCipherOp("no prefix", 0, "john", "example.com")), "<null>");
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR,
                               "Failed to decrypt password for mail address 'john@example.com'"));
  EXPECT_EQ(Take(mailPasswdCipherOp(nullptr, 1, "john", nullptr)), "<null>");
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Failed to encrypt password for mail address 'john'"));

  mailAuthKeySetPath(absent_.c_str());
  EXPECT_EQ(Take(mailPasswdCipherOp("password", 1, "john", "example.com")), "<null>");
  EXPECT_TRUE(LogRecorder::Has(
      LOG_ERR,
      "Failed to initialize password cipher context (for mail address 'john@example.com')"));
  EXPECT_EQ(mailPasswdCipherInit(), -1);
  // No reference was taken, so none was dropped.
  EXPECT_FALSE(LogRecorder::Has(LOG_INFO, "A programming error?"));
}

}  // namespace
