// Conversion of internationalised domain names with GNU libidn.
#ifndef DRAVNIK_UTIL_IDN_H_
#define DRAVNIK_UTIL_IDN_H_

#include <stdexcept>
#include <string>

// Text of a libidn result code.
const char* idn_strerror(int code);

// The C-level conversions return a new heap string (free() it).
//
// idn_toascii, idn_toutf8 and idn_email_toascii return NULL on failure and
// log nothing but an allocation failure; when `rc` is given it receives the
// libidn result code, for the caller's own message through idn_strerror().
char* idn_toascii(const char* domain, int* rc = nullptr);
char* idn_toutf8(const char* domain, int* rc = nullptr);
// Converts the domain part (after the first '@') only; an address without
// '@' comes back unchanged.
char* idn_email_toascii(const char* address, int* rc = nullptr);

// The _safe variants never fail on a name libidn rejects: they log
// "<function>(<input>) failed: <reason>" and return a copy of the input, so
// the caller can go on with the name as given. NULL means out of memory.
char* idn_toascii_safe(const char* domain);
char* idn_email_toascii_safe(const char* address);

// Converts the host of "[scheme://][user@]host[:port][/path]"; logs why and
// returns NULL when the URL has no host or the host cannot be converted.
char* idn_url_toascii(const char* url);

namespace tavix {
namespace idn {

class IdnaError : public std::runtime_error {
 public:
  explicit IdnaError(const std::string& what) : std::runtime_error(what) {}
};

std::string toAscii(const std::string& domain);
std::string toUtf8(const std::string& domain);
// Converts the domain part only; "" stays "".
std::string emailToAscii(const std::string& address);

}  // namespace idn
}  // namespace tavix

#endif  // DRAVNIK_UTIL_IDN_H_
