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
// computed independently (AES-256-CBC with PKCS#7 padding).
std::string TestKey() {
  std::string key;
  for (int i = 0; i < 32; ++i) key += static_cast<char>(i);
  return key;
}
const char kTestIv[] = "EBESExQVFhcYGRobHB0eHw==";
const char kPasswordData[] = "Lus6SEDHpP/7OPLtKTzp3A==";      // "password"
const char kZeroPaddedData[] = "KPM/TWlHghrIqVJ+XQihPw==";    // "password", zero padding

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

struct RoundTripCase {
  const char* password;
  size_t data_len;  // PKCS#7 always adds at least one byte
};

TEST_F(CipherTest, MailPasswordsRoundTripInTheStoredFormat) {
  const RoundTripCase cases[] = {
      {"x", 16},
      {"secret", 16},
      {"fifteen chars!!", 16},
      {"sixteen chars!!!", 32},
      {"seventeen chars!!", 32},
      {"p\xC3\xA4ss w\xC3\xB6rd $ with: colons", 32},
      {"0123456789012345678901234567890123456789012345678901234567890123456789", 80},
  };
  const Context mail(kSpec, WriteKey("key", TestKey()));
  ASSERT_TRUE(mail.ok());
  for (const RoundTripCase& c : cases) {
    SCOPED_TRACE(c.password);
    const std::string text = Take(mail_aes_encrypt(c.password));
    ASSERT_EQ(text.compare(0, 18, kPrefix), 0) << text;
    // 24 base64 characters of the 16-byte IV, then "$" and the data.
    EXPECT_EQ(text.substr(18 + 22, 3), "==$") << text;
    EXPECT_EQ(DataLength(text), c.data_len);
    EXPECT_EQ(Take(mail_aes_decrypt(text.c_str())), c.password);
  }
}

TEST_F(CipherTest, EveryEncryptionDrawsAFreshIv) {
  const Context mail(kSpec, WriteKey("key", TestKey()));
  ASSERT_TRUE(mail.ok());
  const std::string first = Take(mail_aes_encrypt("password"));
  const std::string second = Take(mail_aes_encrypt("password"));
  EXPECT_NE(first.substr(0, 18 + 24), second.substr(0, 18 + 24));
  EXPECT_NE(first, second);
  EXPECT_EQ(Take(mail_aes_decrypt(first.c_str())), "password");
  EXPECT_EQ(Take(mail_aes_decrypt(second.c_str())), "password");
}

TEST_F(CipherTest, AGivenIvGivesAKnownReproducibleText) {
  const Context mail(kSpec, WriteKey("key", TestKey()));
  ASSERT_TRUE(mail.ok());
  const std::string expected = std::string(kPrefix) + kTestIv + "$" + kPasswordData;
  for (const std::string& enc_spec :
       {std::string(kPrefix) + kTestIv + "$", std::string(kPrefix) + kTestIv}) {
    SCOPED_TRACE(enc_spec);
    EXPECT_EQ(Take(tavix_cipher_crypt("password", enc_spec.c_str())), expected);
    EXPECT_EQ(Take(tavix_cipher_crypt("password", enc_spec.c_str())), expected);
  }
  EXPECT_EQ(Take(mail_aes_decrypt(expected.c_str())), "password");
  // The given IV served one message only: the next one draws its own again.
  EXPECT_NE(Take(mail_aes_encrypt("password")).substr(18, 24), kTestIv);
}

TEST_F(CipherTest, OnlyTheFirstSixteenBytesOfALongerIvCount) {
  const Context mail(kSpec, WriteKey("key", TestKey()));
  ASSERT_TRUE(mail.ok());
  std::string iv;
  for (int i = 0x10; i < 0x24; ++i) iv += static_cast<char>(i);
  const std::string long_iv = Take(b64_encode_cstr(iv.c_str()));
  const std::string text =
      Take(tavix_cipher_crypt("password", (kPrefix + long_iv + "$").c_str()));
  EXPECT_EQ(text, std::string(kPrefix) + long_iv + "$" + kPasswordData);
  EXPECT_EQ(Take(mail_aes_decrypt(text.c_str())), "password");
}

TEST_F(CipherTest, BadTextsDoNotDecrypt) {
  const Context mail(kSpec, WriteKey("key", TestKey()));
  ASSERT_TRUE(mail.ok());
  const std::string iv = std::string(kPrefix) + kTestIv + "$";
  const char* const texts[] = {
      "$AES-256-CBC:PKCS$",
      "$AES-256-CBC:PKCS$$",
      "AES-256-CBC:PKCS$x$y",
      // An IV too short to use.
      "$AES-256-CBC:PKCS$EBES$Lus6SEDHpP/7OPLtKTzp3A==",
  };
  for (const char* text : texts) {
    EXPECT_EQ(Take(tavix_cipher_decrypt(text)), "<null>") << text;
  }
  // Data that is not a whole block.
  EXPECT_EQ(Take(tavix_cipher_decrypt((iv + "Lus6SEDHpP/7OPLt").c_str())), "<null>");
  // A cipher nobody initialised has no context to decrypt with.
  EXPECT_EQ(Take(tavix_cipher_decrypt("$AES-128-CBC:PKCS$EBESExQVFhcYGRobHB0eHw==$AAAA")),
            "<null>");
}

TEST_F(CipherTest, AnEmptyPasswordEncryptsButDoesNotDecrypt) {
  const Context mail(kSpec, WriteKey("key", TestKey()));
  ASSERT_TRUE(mail.ok());
  const std::string text =
      Take(tavix_cipher_crypt("", (std::string(kPrefix) + kTestIv + "$").c_str()));
  EXPECT_EQ(text, std::string(kPrefix) + kTestIv + "$Wm4EVwj7cZbwLlU9AsOmkg==");
  EXPECT_EQ(Take(mail_aes_decrypt(text.c_str())), "<null>");
}

TEST_F(CipherTest, KeyFilesShorterThanTheKeyAreRefused) {
  const std::string key = TestKey();
  for (size_t len : {0, 1, 31}) {
    SCOPED_TRACE(len);
    LogRecorder::lines().clear();
    const std::string path = WriteKey("short", key.substr(0, len));
    EXPECT_EQ(mail_aes_init(path.c_str()), 0);
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Failed to read entire encryption key from '" + path +
                                              "': "));
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Failed to initialize encryption cipher "
                                          "'AES-256-CBC:PKCS' with key '" + path + "'"));
    EXPECT_EQ(Take(mail_aes_encrypt("password")), "<null>");
  }
}

TEST_F(CipherTest, AMissingKeyFileIsReported) {
  const std::string path = dir_.path("absent");
  EXPECT_EQ(mail_aes_init(path.c_str()), 0);
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Can't read encryption key from '" + path +
                                            "': No such file or directory (2)"));
}

TEST_F(CipherTest, OnlyTheFirstThirtyTwoBytesOfALongerKeyFileCount) {
  const Context mail(kSpec, WriteKey("long", TestKey() + "trailing bytes are ignored"));
  ASSERT_TRUE(mail.ok());
  EXPECT_EQ(Take(tavix_cipher_crypt("password", (std::string(kPrefix) + kTestIv).c_str())),
            std::string(kPrefix) + kTestIv + "$" + kPasswordData);
}

TEST_F(CipherTest, NestedReferencesShareOneContext) {
  const std::string key = WriteKey("key", TestKey());
  const std::string other = WriteKey("other", std::string(32, 'k'));
  const std::string enc_spec = std::string(kPrefix) + kTestIv;
  const std::string expected = enc_spec + "$" + kPasswordData;

  ASSERT_EQ(mail_aes_init(key.c_str()), 1);
  // A second reference reuses the context: the other key file is not read.
  ASSERT_EQ(mail_aes_init(other.c_str()), 1);
  EXPECT_EQ(Take(tavix_cipher_crypt("password", enc_spec.c_str())), expected);
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

TEST_F(CipherTest, UnknownCiphersAreRefused) {
  const std::string key = WriteKey("key", TestKey());
  for (const char* spec : {"NO-SUCH-CIPHER:PKCS", "AES-256-CBC:PKCS-AND-MUCH-MORE-TEXT"}) {
    SCOPED_TRACE(spec);
    EXPECT_EQ(tavix_cipher_init(spec, key.c_str()), 0);
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Unknown encryption cipher: '" + std::string(spec) + "'"));
    EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Failed to initialize encryption cipher '" +
                                              std::string(spec) + "' with key '" + key + "'"));
  }
}

struct PaddingCase {
  const char* spec;
  size_t plain_len;
  size_t data_len;
};

TEST_F(CipherTest, SpecsWithoutPkcsPadWithZeros) {
  const PaddingCase cases[] = {
      {"AES-256-CBC", 1, 16},       {"AES-256-CBC", 15, 16},      {"AES-256-CBC", 16, 16},
      {"AES-256-CBC", 17, 32},      {"AES-256-CBC:ZERO", 16, 16}, {"AES-256-CBC:PKCS", 16, 32},
      {"AES-256-CBC:PKCS", 15, 16},
  };
  const std::string key = WriteKey("key", TestKey());
  for (const PaddingCase& c : cases) {
    SCOPED_TRACE(std::string(c.spec) + " " + std::to_string(c.plain_len));
    const Context context(c.spec, key);
    ASSERT_TRUE(context.ok());
    const std::string plain(c.plain_len, 'p');
    const std::string text = Take(tavix_cipher_encrypt(c.spec, plain.c_str()));
    EXPECT_EQ(text.compare(0, strlen(c.spec) + 2, "$" + std::string(c.spec) + "$"), 0) << text;
    EXPECT_EQ(DataLength(text), c.data_len);
    EXPECT_EQ(Take(tavix_cipher_decrypt(text.c_str())), plain);
  }
}

TEST_F(CipherTest, ZeroPaddingMatchesAKnownText) {
  const Context context("AES-256-CBC", WriteKey("key", TestKey()));
  ASSERT_TRUE(context.ok());
  const std::string expected = std::string("$AES-256-CBC$") + kTestIv + "$" + kZeroPaddedData;
  EXPECT_EQ(Take(tavix_cipher_crypt("password", ("$AES-256-CBC$" + std::string(kTestIv)).c_str())),
            expected);
  EXPECT_EQ(Take(tavix_cipher_decrypt(expected.c_str())), "password");
  // An empty text becomes one block of zeros. Unlike PKCS padding, those
  // zeros stay in the decrypted buffer, so the result is an empty string.
  const std::string empty = Take(tavix_cipher_encrypt("AES-256-CBC", ""));
  EXPECT_EQ(DataLength(empty), 16u);
  EXPECT_EQ(Take(tavix_cipher_decrypt(empty.c_str())), "");
}

TEST(MailAesTest, RecognisesTheStoredPrefix) {
  const struct {
    const char* text;
    bool encrypted;
  } cases[] = {
      {nullptr, false},
      {"", false},
      {"$AES", false},
      {"$AES-256-CBC:PKCS", false},
      {"$aes-256-cbc:pkcs$", false},
      {"$AES-256-CBC:PKCS$", true},
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
  unsigned char small[31];
  errno = 0;
  EXPECT_EQ(mail_aes_gen_key(small, sizeof(small)), 0);
  EXPECT_EQ(errno, EINVAL);

  unsigned char first[40], second[32];
  std::memset(first, 0xAA, sizeof(first));
  ASSERT_EQ(mail_aes_gen_key(first, sizeof(first)), 32);
  ASSERT_EQ(mail_aes_gen_key(second, sizeof(second)), 32);
  EXPECT_NE(std::memcmp(first, second, 32), 0);
  for (size_t i = 32; i < sizeof(first); ++i) EXPECT_EQ(first[i], 0xAA) << i;
}

TEST(SymmetricCipherTest, SettersRefuseTooLittleKeyOrIv) {
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
  size_t iv_len = 0;
  const unsigned char* iv = symmetric_cipher_get_iv(&c, &iv_len);
  EXPECT_EQ(iv_len, 16u);
  EXPECT_EQ(std::memcmp(iv, bytes, 16), 0);

  // Nothing to work on yet.
  errno = 0;
  EXPECT_EQ(encrypt_symmetric(&c), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(symmetric_cipher_get_plain(&c), nullptr);
  EXPECT_EQ(symmetric_cipher_cleanup(&c), 1);
}

TEST(SymmetricCipherTest, EncryptsAndDecryptsWithOneObject) {
  symmetric_cipher c;
  ASSERT_EQ(symmetric_cipher_init(&c), 1);
  const std::string key = TestKey();
  ASSERT_EQ(symmetric_cipher_set_key(&c, reinterpret_cast<const unsigned char*>(key.data()), 32),
            1);
  for (const char* plain : {"first message", "a second, longer message"}) {
    ASSERT_EQ(symmetric_cipher_set_plain(&c, plain), 1);
    ASSERT_EQ(encrypt_symmetric(&c), 1);
    size_t len = 0;
    const unsigned char* data = symmetric_cipher_get_encrypted(&c, &len);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(len % 16, 0u);
    EXPECT_EQ(data[len], 0);
    ASSERT_EQ(symmetric_cipher_set_plain(&c, "overwritten"), 1);
    ASSERT_EQ(decrypt_symmetric(&c), 1);
    EXPECT_STREQ(symmetric_cipher_get_plain(&c), plain);
  }
  EXPECT_EQ(symmetric_cipher_cleanup(&c), 1);
}

TEST(SymmetricCipherTest, ANewKeyReachesAContextInUse) {
  symmetric_cipher c;
  ASSERT_EQ(symmetric_cipher_init(&c), 1);
  c.flags = 0;  // a fixed IV, so that only the key differs
  const unsigned char iv[16] = {};
  ASSERT_EQ(symmetric_cipher_set_iv(&c, iv, sizeof(iv)), 1);
  ASSERT_EQ(symmetric_cipher_set_plain(&c, "password"), 1);
  std::string texts[2];
  for (int i = 0; i < 2; ++i) {
    const std::string key(32, static_cast<char>('a' + i));
    ASSERT_EQ(
        symmetric_cipher_set_key(&c, reinterpret_cast<const unsigned char*>(key.data()), 32), 1);
    ASSERT_EQ(encrypt_symmetric(&c), 1);
    size_t len = 0;
    const unsigned char* data = symmetric_cipher_get_encrypted(&c, &len);
    ASSERT_NE(data, nullptr);
    texts[i].assign(reinterpret_cast<const char*>(data), len);
  }
  EXPECT_NE(texts[0], texts[1]);
  EXPECT_EQ(symmetric_cipher_cleanup(&c), 1);
}

class PasswdCipherOpTest : public CipherTest {
 protected:
  void SetUp() override {
    saved_ = mailAuthKey;
    key_ = WriteKey("passwd_db_key", TestKey());
    mailAuthKeySetPath(key_.c_str());
  }
  void TearDown() override { mailAuthKeySetPath(saved_); }

  const char* saved_ = nullptr;
  std::string key_;
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

  const std::string absent = dir_.path("absent");
  mailAuthKeySetPath(absent.c_str());
  EXPECT_EQ(Take(mailPasswdCipherOp("password", 1, "john", "example.com")), "<null>");
  EXPECT_TRUE(LogRecorder::Has(
      LOG_ERR,
      "Failed to initialize password cipher context (for mail address 'john@example.com')"));
  EXPECT_EQ(mailPasswdCipherInit(), -1);
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Failed to initialize password cipher context"));
  // No reference was taken, so none was dropped.
  EXPECT_FALSE(LogRecorder::Has(LOG_INFO, "A programming error?"));
}

}  // namespace
