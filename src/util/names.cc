#include "util/names.h"

#include <string.h>

#include <string>

namespace {

const size_t kMaxMailnameLength = 245;
const size_t kMaxDomainLength = 255;
const size_t kMaxLabelLength = 63;

// ASCII only: the C library's classes depend on the locale, and a byte above
// 127 must never pass whatever the locale says.
bool is_ascii_alnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         (c >= '0' && c <= '9');
}

bool is_mailname_char(char c) {
  return is_ascii_alnum(c) || c == '.' || c == '-' || c == '_' || c == '&' ||
         c == '+' || c == '\'';
}

}  // namespace

int is_mailname_valid(const char* name) {
  if (name == nullptr)
    return 0;
  size_t length = strlen(name);
  if (length < 1 || length > kMaxMailnameLength)
    return 0;
  if (name[0] == '.' || name[length - 1] == '.')
    return 0;
  if (strstr(name, "..") != nullptr)
    return 0;
  for (const char* p = name; *p != '\0'; ++p) {
    if (!is_mailname_char(*p))
      return 0;
  }
  return 1;
}

// A trailing '-' is tested only where a dot ends the label, so the last
// label may end with '-'. That leniency is deliberate and must be kept:
// callers rely on the same names being accepted as before.
int is_domain_name_valid(const char* domain) {
  if (domain == nullptr)
    return 0;
  size_t length = strlen(domain);
  if (length < 1 || length > kMaxDomainLength)
    return 0;
  if (domain[0] == '.' || domain[length - 1] == '.')
    return 0;

  size_t label_length = 0;
  char previous = '\0';
  for (const char* p = domain; *p != '\0'; previous = *p++) {
    if (*p == '.') {
      if (label_length == 0 || previous == '-')
        return 0;
      label_length = 0;
    } else if (is_ascii_alnum(*p) || (*p == '-' && label_length > 0)) {
      if (++label_length > kMaxLabelLength)
        return 0;
    } else {
      return 0;
    }
  }
  return 1;
}

int is_full_mailname_valid(const char* address) {
  if (address == nullptr)
    return 0;
  const char* at = strchr(address, '@');
  if (at == nullptr)
    return 0;
  std::string local(address, at);
  return is_mailname_valid(local.c_str()) && is_domain_name_valid(at + 1);
}
