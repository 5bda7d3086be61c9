#include "auth/request.h"

#include <errno.h>
#include <openssl/crypto.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "util/idn.h"
#include "util/names.h"

namespace tavix {
namespace auth {

Secret::~Secret() { OPENSSL_cleanse(data_, sizeof(data_)); }

void Secret::assign(const char* data, size_t size) {
  OPENSSL_cleanse(data_, sizeof(data_));
  size_ = std::min(size, kMaxRequest);
  memcpy(data_, data, size_);
}

RequestStatus ParseRequest(const char* data, size_t size, Request* request) {
  if (size > kMaxRequest)
    return RequestStatus::kTooLong;
  const char* end = data + size;
  const char* login_end = static_cast<const char*>(memchr(data, '\0', size));
  if (login_end == nullptr)
    return RequestStatus::kMalformed;
  const char* password = login_end + 1;
  const char* password_end =
      static_cast<const char*>(memchr(password, '\0', static_cast<size_t>(end - password)));
  if (password_end == nullptr)
    return RequestStatus::kMalformed;
  request->login.assign(data, login_end);
  request->password.assign(password, static_cast<size_t>(password_end - password));
  return RequestStatus::kOk;
}

RequestStatus ReadRequest(int fd, Request* request) {
  // The whole request lives in this buffer until it is parsed; it holds
  // the password, so it is a Secret too.
  Secret buffer;
  char* data = const_cast<char*>(buffer.data());
  size_t size = 0;
  for (;;) {
    ssize_t got = read(fd, data + size, kMaxRequest + 1 - size);
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      return errno == EBADF ? RequestStatus::kNoDescriptor : RequestStatus::kReadError;
    if (got == 0)
      break;
    size += static_cast<size_t>(got);
    if (size > kMaxRequest)
      return RequestStatus::kTooLong;
  }
  return ParseRequest(data, size, request);
}

bool NormalizeLogin(const std::string& login, std::string* mailname, std::string* domain) {
  size_t at = login.find('@');
  if (at == std::string::npos || at == 0 || at + 1 == login.size())
    return false;
  std::string name = login.substr(0, at);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  std::string ascii;
  try {
    ascii = idn::toAscii(login.substr(at + 1));
  } catch (const idn::IdnaError&) {
    return false;
  }
  std::transform(ascii.begin(), ascii.end(), ascii.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  if (!is_mailname_valid(name.c_str()) || !is_domain_name_valid(ascii.c_str()))
    return false;
  *mailname = name;
  *domain = ascii;
  return true;
}

std::string Printable(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char hex[5];
      snprintf(hex, sizeof(hex), "\\x%02x", c);
      out += hex;
    }
  }
  return out;
}

}  // namespace auth
}  // namespace tavix
