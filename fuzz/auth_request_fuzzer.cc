// The login that a mail server passes on descriptor 3: any bytes a client
// can make it send. Parsing must never read past what it was given, and
// whatever it accepts must be within the limit and hand over the login and
// password exactly as they stood before their NUL bytes.
#include <cstring>
#include <string>

#include "auth/request.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  quiet_logging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tavix::auth::RequestStatus;
  const char* text = reinterpret_cast<const char*>(data);
  tavix::auth::Request request;
  RequestStatus status = tavix::auth::ParseRequest(text, size, &request);
  if (status == RequestStatus::kOk) {
    require(size <= tavix::auth::kMaxRequest, "an accepted login is within the limit");
    size_t login = request.login.size();
    size_t password = request.password.size();
    require(login + 1 + password + 1 <= size && text[login] == '\0' &&
                text[login + 1 + password] == '\0' &&
                memcmp(text, request.login.data(), login) == 0 &&
                memcmp(text + login + 1, request.password.data(), password) == 0,
            "login and password are the bytes before their NULs");
    std::string mailname, domain;
    if (tavix::auth::NormalizeLogin(request.login, &mailname, &domain))
      require(mailname.find('@') == std::string::npos && !domain.empty(),
              "a usable login splits into a mail name and a domain");
  }
  require(tavix::auth::Printable(std::string(text, size)).find('\n') == std::string::npos,
          "a login as logged is one line");
  return 0;
}
