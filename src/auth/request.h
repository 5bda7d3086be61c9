// The question a checkpassword caller asks on descriptor 3:
// "address\0password\0timestamp\0", at most 512 bytes in all (qmail's POP3
// server sends the timestamp, Dovecot an empty one).
#ifndef DRAVNIK_AUTH_REQUEST_H_
#define DRAVNIK_AUTH_REQUEST_H_

#include <cstddef>
#include <string>

namespace tavix {
namespace auth {

constexpr size_t kMaxRequest = 512;

// A password or the buffer it was read into: a fixed array, so that no
// reallocation leaves a copy behind, wiped when it goes out of scope.
class Secret {
 public:
  Secret() = default;
  ~Secret();
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  // Replaces the text with `size` bytes of `data` (at most kMaxRequest).
  void assign(const char* data, size_t size);
  const char* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  char data_[kMaxRequest + 1] = {};
  size_t size_ = 0;
};

struct Request {
  std::string login;  // as given; not secret, it is logged
  Secret password;
};

enum class RequestStatus {
  kOk,
  kNoDescriptor,  // descriptor 3 is not open
  kReadError,     // it is, but reading failed
  kTooLong,       // more than kMaxRequest bytes
  kMalformed,     // the login or the password has no terminating NUL
};

// Splits `size` bytes of `data` into login and password; what follows the
// password's NUL (the timestamp) is not looked at.
RequestStatus ParseRequest(const char* data, size_t size, Request* request);

// Reads `fd` to its end, never more than kMaxRequest + 1 bytes (the one
// beyond the limit tells a request that is too long), and parses it.
RequestStatus ReadRequest(int fd, Request* request);

// The login as the records are kept: the mail name lower-cased, the domain
// lower-cased in its ASCII (IDNA) form, both passing the commands' name
// checks. False for a login that no record can be kept under.
bool NormalizeLogin(const std::string& login, std::string* mailname, std::string* domain);

// `text` with every byte that is not printable ASCII written as \xHH, for
// a log line that must stay one line whatever a client sent.
std::string Printable(const std::string& text);

}  // namespace auth
}  // namespace tavix

#endif  // DRAVNIK_AUTH_REQUEST_H_
