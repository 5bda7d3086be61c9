#include "mailauth/cipher.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <forward_list>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "mailauth/auth_db.h"
#include "mailauth/base64.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/unique_free.h"

namespace {

const char kMailCipherSpec[] = "AES-256-CBC:PKCS";
const size_t kMaxSpecLen = 31;
// Room on the stack for the key (and a fixed IV) read from a key file.
const size_t kKeyBufferSize = 80;
// The setters refuse more than this; the lengths are kept in 32 bits.
const size_t kMaxDataLen = 0x7FFFFFFE;

// Random bytes for keys and IVs. RAND_bytes rather than the deprecated
// RAND_pseudo_bytes: a key must be unpredictable, and so must a CBC IV, since
// an IV the attacker can foresee lets chosen plain texts probe stored ones.
bool RandomBytes(unsigned char* buf, size_t len) {
  return RAND_bytes(buf, static_cast<int>(len)) == 1;
}

// Secret bytes on the stack that are wiped however the scope is left.
template <size_t N>
struct WipedBuffer {
  unsigned char bytes[N] = {};
  WipedBuffer() = default;
  WipedBuffer(const WipedBuffer&) = delete;
  WipedBuffer& operator=(const WipedBuffer&) = delete;
  ~WipedBuffer() { OPENSSL_cleanse(bytes, N); }
};

// Replaces a heap buffer holding `used` meaningful bytes by a fresh one of
// `size` bytes. The old contents may be a password: they are wiped before
// the memory goes back to the allocator, which is why this is not realloc().
template <typename T>
bool ReplaceBuffer(T** buf, size_t used, size_t size) {
  T* fresh = static_cast<T*>(std::calloc(size, 1));
  if (fresh == nullptr)
    return false;
  if (*buf != nullptr) {
    OPENSSL_cleanse(*buf, used);
    std::free(*buf);
  }
  *buf = fresh;
  return true;
}

size_t KeyLength(const symmetric_cipher* c) {
  return static_cast<size_t>(EVP_CIPHER_get_key_length(c->cipher));
}

size_t IvLength(const symmetric_cipher* c) {
  return static_cast<size_t>(EVP_CIPHER_get_iv_length(c->cipher));
}

size_t BlockSize(const symmetric_cipher* c) {
  return static_cast<size_t>(EVP_CIPHER_get_block_size(c->cipher));
}

bool HasFlag(const symmetric_cipher* c, uint32_t flag) { return (c->flags & flag) != 0; }

// Frees one OpenSSL context; false when resetting it failed.
bool DropContext(EVP_CIPHER_CTX** ctx) {
  if (*ctx == nullptr)
    return true;
  const bool ok = EVP_CIPHER_CTX_reset(*ctx) == 1;
  EVP_CIPHER_CTX_free(*ctx);
  *ctx = nullptr;
  return ok;
}

// Prepares `ctx` for one message. The first time, the cipher and key are
// set up; afterwards only the IV changes, which keeps the key schedule.
bool StartContext(const symmetric_cipher* c, EVP_CIPHER_CTX** ctx, uint8_t* initialised,
                  int encrypt) {
  if (*ctx == nullptr) {
    *ctx = EVP_CIPHER_CTX_new();
    if (*ctx == nullptr)
      return false;
  }
  int ok;
  if (!*initialised)
    ok = EVP_CipherInit_ex(*ctx, c->cipher, nullptr, c->key, c->iv, encrypt);
  else
    ok = EVP_CipherInit_ex(*ctx, nullptr, nullptr, nullptr, c->iv, encrypt);
  if (ok != 1)
    return false;
  *initialised = 1;
  if (HasFlag(c, SYMMETRIC_CIPHER_ZERO_PADDING))
    EVP_CIPHER_CTX_set_padding(*ctx, 0);
  return true;
}

// Runs `len` bytes through the context, appending to `out` at `*out_len`.
bool Feed(EVP_CIPHER_CTX* ctx, unsigned char* out, int32_t* out_len, const unsigned char* in,
          size_t len) {
  if (len == 0)
    return true;
  int produced = 0;
  if (EVP_CipherUpdate(ctx, out + *out_len, &produced, in, static_cast<int>(len)) != 1)
    return false;
  *out_len += produced;
  return true;
}

bool Finish(EVP_CIPHER_CTX* ctx, unsigned char* out, int32_t* out_len) {
  int produced = 0;
  if (EVP_CipherFinal_ex(ctx, out + *out_len, &produced) != 1)
    return false;
  *out_len += produced;
  return true;
}

// One named, reference-counted cipher context.
struct CipherFree {
  void operator()(EVP_CIPHER* cipher) const { EVP_CIPHER_free(cipher); }
};
using FetchedCipher = std::unique_ptr<EVP_CIPHER, CipherFree>;

struct CipherNode {
  std::string name;
  FetchedCipher fetched;  // what cipher.cipher points at
  symmetric_cipher cipher;
  unsigned refs = 0;

  explicit CipherNode(const std::string& spec) : name(spec) { symmetric_cipher_init(&cipher); }
  ~CipherNode() { symmetric_cipher_cleanup(&cipher); }
  CipherNode(const CipherNode&) = delete;
  CipherNode& operator=(const CipherNode&) = delete;
};

// New contexts go in front. Nodes never move, so pointers to them stay valid
// until they are erased.
std::forward_list<CipherNode> g_contexts;
bool g_openssl_initialised = false;

CipherNode* FindNode(const char* name) {
  for (CipherNode& node : g_contexts) {
    if (node.name == name)
      return &node;
  }
  return nullptr;
}

void EraseNode(const CipherNode* target) {
  g_contexts.remove_if([target](const CipherNode& node) { return &node == target; });
}

// Wipes every key still held when the process ends. OpenSSL releases its own
// state from an exit handler that it registered before this one was, so this
// one runs first, while the contexts can still be freed.
void CleanupAtExit() { g_contexts.clear(); }

bool InitialiseOpenSsl() {
  if (g_openssl_initialised)
    return true;
  if (OPENSSL_init_crypto(0, nullptr) != 1)
    return false;
  if (atexit(CleanupAtExit) != 0)
    return false;
  g_openssl_initialised = true;
  return true;
}

uint32_t FlagsForSpec(const std::string& spec) {
  const size_t colon = spec.find(':');
  if (colon != std::string::npos && spec.find("PKCS", colon + 1) != std::string::npos)
    return SYMMETRIC_CIPHER_PER_MESSAGE_IV;
  return SYMMETRIC_CIPHER_PER_MESSAGE_IV | SYMMETRIC_CIPHER_ZERO_PADDING;
}

// The cipher comes straight from OpenSSL's providers, by the name they
// know it by: no table of every legacy cipher name has to be built first,
// which is most of the time a short-lived program (dravnik-auth, once per
// login) would otherwise spend in OpenSSL.
bool LookUpCipher(const std::string& spec, FetchedCipher* cipher) {
  if (spec.size() > kMaxSpecLen) {
    tavix_log(LOG_ERR, "Unknown encryption cipher: '%s'", spec.c_str());
    return false;
  }
  if (!InitialiseOpenSsl())
    return false;
  const std::string name = spec.substr(0, spec.find(':'));
  cipher->reset(EVP_CIPHER_fetch(nullptr, name.c_str(), nullptr));
  if (!*cipher) {
    tavix_log(LOG_ERR, "Unknown encryption cipher: '%s'", spec.c_str());
    return false;
  }
  return true;
}

// Reads exactly `len` bytes from the start of the key file, straight into
// `buf`: no stdio buffer keeps a copy of the key.
bool ReadKeyFile(const char* path, unsigned char* buf, size_t len) {
  tavix::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (!fd) {
    const int err = errno;
    tavix_log(LOG_ERR, "Can't read encryption key from '%s': %s (%d)", path, strerror(err), err);
    return false;
  }
  size_t done = 0;
  while (done < len) {
    ssize_t got = read(fd.get(), buf + done, len - done);
    if (got < 0 && errno == EINTR)
      continue;
    if (got <= 0) {
      const int err = got == 0 ? 0 : errno;
      tavix_log(LOG_ERR, "Failed to read entire encryption key from '%s': %s (%d)", path,
                strerror(err), err);
      return false;
    }
    done += static_cast<size_t>(got);
  }
  return true;
}

// Creates the context for `spec` from the key file; false when it could not.
bool CreateContext(const std::string& spec, const char* key_path) {
  const uint32_t flags = FlagsForSpec(spec);
  FetchedCipher fetched;
  if (!LookUpCipher(spec, &fetched))
    return false;
  const EVP_CIPHER* evp = fetched.get();

  const size_t key_len = static_cast<size_t>(EVP_CIPHER_get_key_length(evp));
  const size_t iv_len = static_cast<size_t>(EVP_CIPHER_get_iv_length(evp));
  // Without a per-message IV the fixed IV follows the key in the key file.
  const bool fixed_iv = (flags & SYMMETRIC_CIPHER_PER_MESSAGE_IV) == 0;
  const size_t read_len = key_len + (fixed_iv ? iv_len : 0);
  if (read_len > kKeyBufferSize) {
    tavix_log(LOG_CRIT, "Not enough space supplied to read encryption key data from '%s'",
              key_path);
    return false;
  }
  WipedBuffer<kKeyBufferSize> key;
  if (!ReadKeyFile(key_path, key.bytes, read_len))
    return false;

  CipherNode* node;
  try {
    node = &g_contexts.emplace_front(spec);
  } catch (const std::bad_alloc&) {
    return false;
  }
  node->refs = 1;
  node->cipher.flags = flags;
  node->cipher.cipher = evp;
  node->fetched = std::move(fetched);
  bool ok = symmetric_cipher_set_key(&node->cipher, key.bytes, key_len);
  if (ok && fixed_iv)
    ok = symmetric_cipher_set_iv(&node->cipher, key.bytes + key_len, iv_len);
  if (ok)
    return true;

  tavix_log(LOG_ERR, "Failed to create encryption cipher '%s'. Invalid key or IV length?",
            spec.c_str());
  if (!symmetric_cipher_cleanup(&node->cipher))
    tavix_log(LOG_INFO, "Failed to clean up cipher context after unsuccessfull construction");
  EraseNode(node);
  return false;
}

// Sets the context's IV from its base64 text.
bool SetIvFromText(symmetric_cipher* c, const char* text) {
  size_t len = 0;
  tavix::unique_free<unsigned char> iv(b64_decode(text, &len));
  return iv && symmetric_cipher_set_iv(c, iv.get(), len);
}

std::string Base64(const unsigned char* data, size_t len) {
  tavix::unique_free<char> text(b64_encode(data, len));
  if (!text)
    throw std::bad_alloc();
  return text.get();
}

// Encrypts with the context's own per-message IV, or with `iv_text` when it
// is given, and formats the stored text.
char* EncryptWith(CipherNode* node, const char* plain, const std::string& iv_text) {
  symmetric_cipher* c = &node->cipher;
  if (!symmetric_cipher_set_plain(c, plain))
    return nullptr;
  const bool per_message_iv = HasFlag(c, SYMMETRIC_CIPHER_PER_MESSAGE_IV);
  bool ok = true;
  if (per_message_iv && !iv_text.empty()) {
    // A given IV replaces the random one for this message only.
    ok = SetIvFromText(c, iv_text.c_str());
    if (ok) {
      c->flags &= ~SYMMETRIC_CIPHER_PER_MESSAGE_IV;
      ok = encrypt_symmetric(c);
      c->flags |= SYMMETRIC_CIPHER_PER_MESSAGE_IV;
    }
  } else {
    ok = encrypt_symmetric(c);
  }
  size_t data_len = 0;
  const unsigned char* data = ok ? symmetric_cipher_get_encrypted(c, &data_len) : nullptr;
  if (data == nullptr)
    return nullptr;

  std::string text = "$" + node->name + "$";
  if (per_message_iv) {
    if (iv_text.empty()) {
      size_t iv_len = 0;
      const unsigned char* iv = symmetric_cipher_get_iv(c, &iv_len);
      text += Base64(iv, iv_len);
    } else {
      text += iv_text;
    }
    text += "$";
  }
  text += Base64(data, data_len);
  return strdup(text.c_str());
}

// The parts of "$<name>$<iv>$<data>"; `iv` is empty in "$<name>$<data>".
struct EncryptedText {
  std::string name;
  std::string iv;
  std::string data;
};

bool SplitEncrypted(const char* text, EncryptedText* parts) {
  const std::string s(text);
  if (s.empty() || s[0] != '$')
    return false;
  const size_t name_end = s.find('$', 1);
  if (name_end == std::string::npos)
    return false;
  parts->name = s.substr(1, name_end - 1);
  const size_t data_start = s.rfind('$');
  if (data_start > name_end)
    parts->iv = s.substr(name_end + 1, data_start - name_end - 1);
  parts->data = s.substr(data_start + 1);
  return true;
}

char* DecryptWith(CipherNode* node, const EncryptedText& parts) {
  symmetric_cipher* c = &node->cipher;
  if (HasFlag(c, SYMMETRIC_CIPHER_PER_MESSAGE_IV) && !parts.iv.empty() &&
      !SetIvFromText(c, parts.iv.c_str()))
    return nullptr;
  size_t len = 0;
  tavix::unique_free<unsigned char> data(b64_decode(parts.data.c_str(), &len));
  if (!data || !symmetric_cipher_set_encrypted(c, data.get(), len) || !decrypt_symmetric(c))
    return nullptr;
  // An empty plain text counts as failure: there is no password to give back.
  const char* plain = symmetric_cipher_get_plain(c);
  return plain != nullptr ? strdup(plain) : nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------
// The cipher object

int symmetric_cipher_init(symmetric_cipher* c) {
  std::memset(c, 0, sizeof(*c));
  c->cipher = EVP_aes_256_cbc();
  c->flags = SYMMETRIC_CIPHER_PER_MESSAGE_IV;
  return 1;
}

int symmetric_cipher_cleanup(symmetric_cipher* c) {
  bool ok = DropContext(&c->enc_ctx);
  ok = DropContext(&c->dec_ctx) && ok;
  if (c->plain != nullptr) {
    OPENSSL_cleanse(c->plain, static_cast<size_t>(c->plain_len) + 1);
    std::free(c->plain);
  }
  std::free(c->encrypted);
  OPENSSL_cleanse(c, sizeof(*c));
  return ok ? 1 : 0;
}

int symmetric_cipher_set_key(symmetric_cipher* c, const unsigned char* key, size_t len) {
  if (key == nullptr || c->cipher == nullptr || len < KeyLength(c) ||
      KeyLength(c) > sizeof(c->key)) {
    errno = EINVAL;
    return 0;
  }
  std::memcpy(c->key, key, KeyLength(c));
  // A new key must reach the OpenSSL contexts, which otherwise keep theirs.
  c->enc_ctx_initialised = 0;
  c->dec_ctx_initialised = 0;
  return 1;
}

int symmetric_cipher_set_iv(symmetric_cipher* c, const unsigned char* iv, size_t len) {
  if (iv == nullptr || c->cipher == nullptr || len < IvLength(c) || IvLength(c) > sizeof(c->iv)) {
    errno = EINVAL;
    return 0;
  }
  // A longer IV is cut to the cipher's IV length.
  std::memcpy(c->iv, iv, IvLength(c));
  return 1;
}

const unsigned char* symmetric_cipher_get_iv(symmetric_cipher* c, size_t* len) {
  if (len != nullptr)
    *len = c->cipher != nullptr ? IvLength(c) : 0;
  return c->iv;
}

namespace {

// Shared body of the two data setters.
template <typename T>
int SetData(T** buf, int32_t* buf_len, const void* data, size_t len, const char* what) {
  if (len > kMaxDataLen) {
    tavix_log(LOG_WARNING,
              "Attempt to feed into symmetric cipher more %s data (%zu bytes) than it's designed "
              "to handle.",
              what, len);
    errno = EINVAL;
    return 0;
  }
  const size_t used = *buf != nullptr ? static_cast<size_t>(*buf_len) + 1 : 0;
  *buf_len = 0;
  if (!ReplaceBuffer(buf, used, len + 1))
    return 0;
  if (len != 0)
    std::memcpy(*buf, data, len);
  (*buf)[len] = 0;
  *buf_len = static_cast<int32_t>(len);
  return 1;
}

}  // namespace

int symmetric_cipher_set_plain(symmetric_cipher* c, const char* text) {
  if (text == nullptr) {
    errno = EINVAL;
    return 0;
  }
  return SetData(&c->plain, &c->plain_len, text, std::strlen(text), "plain");
}

const char* symmetric_cipher_get_plain(symmetric_cipher* c) {
  return c->plain != nullptr && c->plain_len > 0 ? c->plain : nullptr;
}

int symmetric_cipher_set_encrypted(symmetric_cipher* c, const unsigned char* data, size_t len) {
  if (data == nullptr && len != 0) {
    errno = EINVAL;
    return 0;
  }
  return SetData(&c->encrypted, &c->encrypted_len, data, len, "encrypted");
}

const unsigned char* symmetric_cipher_get_encrypted(symmetric_cipher* c, size_t* len) {
  if (len != nullptr)
    *len = static_cast<size_t>(c->encrypted_len);
  return c->encrypted != nullptr && c->encrypted_len > 0 ? c->encrypted : nullptr;
}

int encrypt_symmetric(symmetric_cipher* c) {
  if (c->cipher == nullptr || c->plain == nullptr) {
    errno = EINVAL;
    return 0;
  }
  const size_t block = BlockSize(c);
  const size_t plain_len = static_cast<size_t>(c->plain_len);
  if (plain_len > kMaxDataLen - 2 * block) {
    errno = EINVAL;
    return 0;
  }
  // Padding adds at most one block; one more byte holds the terminating zero.
  const size_t used = c->encrypted != nullptr ? static_cast<size_t>(c->encrypted_len) + 1 : 0;
  c->encrypted_len = 0;
  if (!ReplaceBuffer(&c->encrypted, used, plain_len + block + 1))
    return 0;
  if (HasFlag(c, SYMMETRIC_CIPHER_PER_MESSAGE_IV) && !RandomBytes(c->iv, IvLength(c)))
    return 0;
  if (!StartContext(c, &c->enc_ctx, &c->enc_ctx_initialised, 1))
    return 0;

  int32_t produced = 0;
  bool ok = Feed(c->enc_ctx, c->encrypted, &produced,
                 reinterpret_cast<const unsigned char*>(c->plain), plain_len);
  if (ok && HasFlag(c, SYMMETRIC_CIPHER_ZERO_PADDING) && (plain_len == 0 || plain_len % block)) {
    // Without OpenSSL's padding the last block is completed with zeros; an
    // empty text becomes one block of them.
    static const unsigned char zeros[EVP_MAX_BLOCK_LENGTH] = {};
    ok = Feed(c->enc_ctx, c->encrypted, &produced, zeros, block - plain_len % block);
  }
  if (!ok || !Finish(c->enc_ctx, c->encrypted, &produced))
    return 0;
  c->encrypted_len = produced;
  c->encrypted[produced] = 0;
  return 1;
}

int decrypt_symmetric(symmetric_cipher* c) {
  if (c->cipher == nullptr || c->encrypted == nullptr) {
    errno = EINVAL;
    return 0;
  }
  const size_t enc_len = static_cast<size_t>(c->encrypted_len);
  // OpenSSL asks for a block of slack beyond the input on every update.
  const size_t size = enc_len + BlockSize(c) + 1;
  const size_t used = c->plain != nullptr ? static_cast<size_t>(c->plain_len) + 1 : 0;
  c->plain_len = 0;
  if (!ReplaceBuffer(&c->plain, used, size))
    return 0;
  unsigned char* plain = reinterpret_cast<unsigned char*>(c->plain);
  int32_t produced = 0;
  if (!StartContext(c, &c->dec_ctx, &c->dec_ctx_initialised, 0) ||
      !Feed(c->dec_ctx, plain, &produced, c->encrypted, enc_len) ||
      !Finish(c->dec_ctx, plain, &produced)) {
    // Whatever was decrypted before the failure is not left behind.
    OPENSSL_cleanse(plain, size);
    return 0;
  }
  // Zero padding stays in the buffer; its first zero ends the text.
  c->plain_len = produced;
  plain[produced] = 0;
  return 1;
}

// ---------------------------------------------------------------------------
// Named contexts and the stored text form

int tavix_cipher_init(const char* spec, const char* key_path) {
  if (spec == nullptr || key_path == nullptr) {
    errno = EINVAL;
    return 0;
  }
  if (CipherNode* node = FindNode(spec)) {
    ++node->refs;
    return 1;
  }
  if (CreateContext(spec, key_path))
    return 1;
  tavix_log(LOG_ERR, "Failed to initialize encryption cipher '%s' with key '%s'", spec,
            key_path);
  return 0;
}

char* tavix_cipher_encrypt(const char* spec, const char* plain) {
  if (spec == nullptr || plain == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  const std::string enc_spec = "$" + std::string(spec).substr(0, kMaxSpecLen);
  return tavix_cipher_crypt(plain, enc_spec.c_str());
}

char* tavix_cipher_crypt(const char* plain, const char* enc_spec) {
  if (plain == nullptr || enc_spec == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  try {
    // "$<name>", "$<name>$", "$<name>$<iv>" or "$<name>$<iv>$".
    const std::string s(enc_spec);
    if (s.empty() || s[0] != '$')
      return nullptr;
    const size_t name_end = s.find('$', 1);
    const std::string name = s.substr(1, name_end == std::string::npos ? name_end : name_end - 1);
    std::string iv_text = name_end == std::string::npos ? "" : s.substr(name_end + 1);
    iv_text = iv_text.substr(0, iv_text.rfind('$'));
    CipherNode* node = FindNode(name.c_str());
    if (node == nullptr)
      return nullptr;
    return EncryptWith(node, plain, iv_text);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

char* tavix_cipher_decrypt(const char* text) {
  if (text == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  try {
    EncryptedText parts;
    if (!SplitEncrypted(text, &parts))
      return nullptr;
    CipherNode* node = FindNode(parts.name.c_str());
    if (node == nullptr)
      return nullptr;
    return DecryptWith(node, parts);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool tavix_cipher_cleanup(const char* spec) {
  CipherNode* node = spec != nullptr ? FindNode(spec) : nullptr;
  if (node == nullptr || node->refs == 0) {
    tavix_log(LOG_INFO, "Failed to correctly destroy encryption cipher '%s'. A programming error?",
              spec != nullptr ? spec : "");
    return true;
  }
  if (node->refs >= 2) {
    --node->refs;
    return false;
  }
  EraseNode(node);
  return true;
}

// ---------------------------------------------------------------------------
// The mail password cipher

bool is_encrypted_with_mail_aes(const char* text) {
  static const char prefix[] = "$AES-256-CBC:PKCS$";
  return text != nullptr && std::strncmp(text, prefix, sizeof(prefix) - 1) == 0;
}

int mail_aes_init(const char* key_path) { return tavix_cipher_init(kMailCipherSpec, key_path); }

char* mail_aes_encrypt(const char* plain) { return tavix_cipher_encrypt(kMailCipherSpec, plain); }

char* mail_aes_decrypt(const char* text) {
  if (!is_encrypted_with_mail_aes(text)) {
    errno = EINVAL;
    return nullptr;
  }
  return tavix_cipher_decrypt(text);
}

void mail_aes_cleanup() { tavix_cipher_cleanup(kMailCipherSpec); }

int mail_aes_gen_key(unsigned char* buf, size_t size) {
  const size_t key_len = static_cast<size_t>(EVP_CIPHER_get_key_length(EVP_aes_256_cbc()));
  if (buf == nullptr || size < key_len) {
    errno = EINVAL;
    return 0;
  }
  return RandomBytes(buf, key_len) ? static_cast<int>(key_len) : 0;
}

int mailPasswdCipherInit() {
  if (mail_aes_init(mailAuthKey))
    return 0;
  tavix_log(LOG_ERR, "Failed to initialize password cipher context");
  return -1;
}

void mailPasswdCipherCleanup() { mail_aes_cleanup(); }

char* mailPasswdCipherOp(const char* text, int op, const char* mailname, const char* domain) {
  const char* name = mailname != nullptr ? mailname : "";
  const char* at = domain != nullptr ? "@" : "";
  const char* dom = domain != nullptr ? domain : "";

  // Held for this call alone, so it works whether or not the caller holds
  // the context already.
  const MailCipherReference cipher(mailAuthKey);
  if (!cipher.held()) {
    tavix_log(LOG_ERR, "Failed to initialize password cipher context (for mail address '%s%s%s')",
              name, at, dom);
    return nullptr;
  }
  if (op != 0 && op != 1) {
    errno = EINVAL;
    return nullptr;
  }
  char* result = op == 1 ? mail_aes_encrypt(text) : mail_aes_decrypt(text);
  if (result == nullptr)
    tavix_log(LOG_ERR, "Failed to %s password for mail address '%s%s%s'",
              op == 1 ? "encrypt" : "decrypt", name, at, dom);
  return result;
}
