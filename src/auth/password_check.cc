#include "auth/password_check.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <string.h>

#include <cstdlib>

#include "mailauth/cipher.h"

namespace tavix {
namespace auth {

namespace {

// Random bytes in the form and length of a stored password. Under a real
// key they decrypt to garbage, or more likely fail the padding check; the
// caller throws the answer away either way.
const char kDecoyEncrypted[] =
    "$AES-256-CBC:PKCS$q1Pf8xVd0nHk3sWm5bLz7A==$Jd2k9QmXv0aT4rLp8sWn1yBc6eHg3uZf5oKi7jMq2wE=";

// A decrypted password, wiped before its memory is given back.
class Plain {
 public:
  explicit Plain(char* text) : text_(text) {}
  ~Plain() {
    if (text_) {
      OPENSSL_cleanse(text_, strlen(text_));
      std::free(text_);
    }
  }
  Plain(const Plain&) = delete;
  Plain& operator=(const Plain&) = delete;
  const char* get() const { return text_; }

 private:
  char* text_;
};

// The comparison's other side when there is no plain text: as long as the
// given password, so the work is the same.
const char kNothing[kMaxRequest + 1] = {};

bool MatchEncrypted(const char* stored, const Secret& given, Work* work) {
  if (work)
    work->decryptions += 1;
  Plain plain(mail_aes_decrypt(stored));
  const char* other = plain.get() ? plain.get() : kNothing;
  size_t other_size = plain.get() ? strlen(plain.get()) : given.size() + 1;
  bool equal = SecretsEqual(given.data(), given.size(), other, other_size);
  return equal && plain.get() != nullptr && !given.empty();
}

bool MatchHash(const char* hash, const Secret& given, Work* work) {
  if (work)
    work->crypts += 1;
  struct crypt_data data;
  memset(&data, 0, sizeof(data));
  // crypt_r() wants a NUL-terminated password; Secret keeps one after its
  // bytes. A password with a NUL inside cannot be what was hashed.
  if (memchr(given.data(), '\0', given.size()) != nullptr)
    return false;
  const char* result = crypt_r(given.data(), hash, &data);
  bool equal = result != nullptr && result[0] != '*' &&
               SecretsEqual(result, strlen(result), hash, strlen(hash));
  OPENSSL_cleanse(&data, sizeof(data));
  return equal && !given.empty();
}

}  // namespace

// Random bytes hashed with a random salt; no password is known to match.
const char kDecoyHash[] =
    "$6$Qm3vT9xLp2RkW8sZ$hm4m7Q6z81YplAo5QsKGdnQd3zmN5.Nk1sEYWocAhRFdEirTeYLL/"
    "1JDCpoDwf46bveqc1M1XrdqbR9RzXhnK/";

bool SecretsEqual(const char* a, size_t a_size, const char* b, size_t b_size) {
  // Compare `a` with as much of `b` as it has, padded with the nothing
  // buffer: CRYPTO_memcmp() runs over a's length in every case.
  char copy[kMaxRequest + 1];
  size_t n = a_size < sizeof(copy) ? a_size : sizeof(copy);
  memset(copy, 0, sizeof(copy));
  memcpy(copy, b, b_size < n ? b_size : n);
  bool equal = CRYPTO_memcmp(a, copy, n) == 0;
  OPENSSL_cleanse(copy, sizeof(copy));
  return equal && a_size == b_size && a_size <= kMaxRequest;
}

Match MatchPassword(const MailAuthRecord& record, const Secret& given, Work* work) {
  // One decryption and one crypt(3) whichever form is stored; the one the
  // record does not need runs on its decoy and its answer is dropped.
  if (record.has_encrypted && !record.encrypted.empty()) {
    bool match = MatchEncrypted(record.encrypted.c_str(), given, work);
    (void)MatchHash(kDecoyHash, given, work);
    return match ? Match::kYes : Match::kNo;
  }
  if (record.has_raw && !record.raw.empty()) {
    (void)MatchEncrypted(kDecoyEncrypted, given, work);
    return MatchHash(record.raw.c_str(), given, work) ? Match::kYes : Match::kNo;
  }
  DecoyMatch(given, work);
  return Match::kUnusable;
}

void DecoyMatch(const Secret& given, Work* work) {
  (void)MatchEncrypted(kDecoyEncrypted, given, work);
  (void)MatchHash(kDecoyHash, given, work);
}

}  // namespace auth
}  // namespace tavix
