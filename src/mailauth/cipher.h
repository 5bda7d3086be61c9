// Password encryption for the mail authentication database.
//
// Named, reference-counted cipher contexts (one per cipher specification such
// as "AES-256-CBC:PKCS") over OpenSSL's EVP interface, and the text form
// "$<spec>$<base64 IV>$<base64 data>" in which encrypted passwords are stored.
#ifndef DRAVNIK_MAILAUTH_CIPHER_H_
#define DRAVNIK_MAILAUTH_CIPHER_H_

#include <cstddef>
#include <cstdint>

#include <openssl/evp.h>

struct symmetric_cipher {
  EVP_CIPHER_CTX* enc_ctx;
  EVP_CIPHER_CTX* dec_ctx;
  uint8_t enc_ctx_initialised;
  uint8_t dec_ctx_initialised;
  const EVP_CIPHER* cipher;
  unsigned char key[64];
  unsigned char iv[16];
  char* plain;               // always NUL-terminated
  unsigned char* encrypted;  // always followed by one zero byte
  int32_t plain_len;
  int32_t encrypted_len;
  uint32_t flags;
};

// Flag bits of a symmetric cipher.
enum {
  SYMMETRIC_CIPHER_PER_MESSAGE_IV = 1,
  SYMMETRIC_CIPHER_ZERO_PADDING = 4,
};

int symmetric_cipher_init(symmetric_cipher* c);
int symmetric_cipher_cleanup(symmetric_cipher* c);
int symmetric_cipher_set_key(symmetric_cipher* c, const unsigned char* key, size_t len);
int symmetric_cipher_set_iv(symmetric_cipher* c, const unsigned char* iv, size_t len);
const unsigned char* symmetric_cipher_get_iv(symmetric_cipher* c, size_t* len);
int symmetric_cipher_set_plain(symmetric_cipher* c, const char* text);
const char* symmetric_cipher_get_plain(symmetric_cipher* c);
int symmetric_cipher_set_encrypted(symmetric_cipher* c, const unsigned char* data, size_t len);
const unsigned char* symmetric_cipher_get_encrypted(symmetric_cipher* c, size_t* len);
int encrypt_symmetric(symmetric_cipher* c);
int decrypt_symmetric(symmetric_cipher* c);

int tavix_cipher_init(const char* spec, const char* key_path);
char* tavix_cipher_encrypt(const char* spec, const char* plain);
char* tavix_cipher_crypt(const char* plain, const char* enc_spec);
char* tavix_cipher_decrypt(const char* text);
bool tavix_cipher_cleanup(const char* spec);

bool is_encrypted_with_mail_aes(const char* text);
int mail_aes_init(const char* key_path);
char* mail_aes_encrypt(const char* plain);
char* mail_aes_decrypt(const char* text);
void mail_aes_cleanup();
int mail_aes_gen_key(unsigned char* buf, size_t size);

// Use the key at mailAuthKey (auth_db.h).
int mailPasswdCipherInit();
void mailPasswdCipherCleanup();
// op 0 decrypts, op 1 encrypts; returns a heap string or NULL.
char* mailPasswdCipherOp(const char* text, int op, const char* mailname, const char* domain);

// One reference to the mail cipher (mail_aes_init/mail_aes_cleanup) for
// the length of a scope.
class MailCipherReference {
 public:
  explicit MailCipherReference(const char* key_path) : held_(mail_aes_init(key_path) != 0) {}
  ~MailCipherReference() {
    if (held_)
      mail_aes_cleanup();
  }
  MailCipherReference(const MailCipherReference&) = delete;
  MailCipherReference& operator=(const MailCipherReference&) = delete;
  bool held() const { return held_; }

 private:
  bool held_;
};

#endif  // DRAVNIK_MAILAUTH_CIPHER_H_
