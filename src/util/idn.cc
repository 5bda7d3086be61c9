#include "util/idn.h"

#include <idna.h>
#include <regex.h>
#include <string.h>
#include <syslog.h>

#include "util/log.h"
#include "util/unique_free.h"

namespace {

// IDNA_ALLOW_UNASSIGNED: libidn's tables stop at Unicode 3.2, and without
// this flag every name holding a character assigned since then would be
// refused although registries hand such names out.
// IDNA_USE_STD3_ASCII_RULES is left off on purpose: the host-name syntax is
// checked after conversion by is_domain_name_valid(), whose failure names the
// value; doing it here would turn the same mistake into a terse libidn code.
const int kIdnaFlags = IDNA_ALLOW_UNASSIGNED;

// "[scheme://][user@]host[rest]" where rest starts at ':' or '/'.
const char kUrlPattern[] = "^(ftp://|https?://)?([^@]+@)?([^/:]+)(.*)?$";
enum { kUrlScheme = 1, kUrlUser, kUrlHost, kUrlRest, kUrlGroups };

typedef int (*IdnaFunction)(const char* input, char** output, int flags);
typedef int (*Conversion)(const char* input, std::string* output);

int run_idna(IdnaFunction function, const char* input, std::string* output) {
  if (input == nullptr)
    return IDNA_INVALID_LENGTH;
  char* raw = nullptr;
  int rc = function(input, &raw, kIdnaFlags);
  tavix::unique_free<char> result(raw);
  if (rc == IDNA_SUCCESS)
    *output = result ? result.get() : "";
  return rc;
}

// The last conversion is kept: a batch converts its domain for every
// command of each of its mail names, and libidn's conversion depends on
// nothing but its input.
int to_ascii(const char* domain, std::string* output) {
  static std::string last_input;
  static std::string last_output;
  static int last_rc = IDNA_INVALID_LENGTH;
  static bool known = false;
  if (domain == nullptr)
    return run_idna(idna_to_ascii_8z, domain, output);
  if (!known || last_input != domain) {
    last_rc = run_idna(idna_to_ascii_8z, domain, &last_output);
    last_input = domain;
    known = true;
  }
  if (last_rc == IDNA_SUCCESS)
    *output = last_output;
  return last_rc;
}

int to_utf8(const char* domain, std::string* output) {
  return run_idna(idna_to_unicode_8z8z, domain, output);
}

// The local part is kept byte for byte: IDNA applies to domain names only.
int email_to_ascii(const char* address, std::string* output) {
  if (address == nullptr)
    return IDNA_INVALID_LENGTH;
  const char* at = strchr(address, '@');
  if (at == nullptr) {
    *output = address;
    return IDNA_SUCCESS;
  }
  std::string domain;
  int rc = to_ascii(at + 1, &domain);
  if (rc == IDNA_SUCCESS)
    *output = std::string(address, at) + "@" + domain;
  return rc;
}

char* heap_copy(const std::string& text) {
  char* copy = strdup(text.c_str());
  if (copy == nullptr)
    tavix_log(LOG_ERR, "Allocation failed");
  return copy;
}

char* convert(Conversion conversion, const char* input, int* rc) {
  std::string output;
  int code = conversion(input, &output);
  char* result = nullptr;
  if (code == IDNA_SUCCESS) {
    result = heap_copy(output);
    if (result == nullptr)
      code = IDNA_MALLOC_ERROR;
  }
  if (rc != nullptr)
    *rc = code;
  return result;
}

char* convert_safe(const char* function, Conversion conversion,
                   const char* input) {
  std::string output;
  int code = conversion(input, &output);
  if (code != IDNA_SUCCESS) {
    tavix_log(LOG_ERR, "%s(%s) failed: %s", function,
              input != nullptr ? input : "", idn_strerror(code));
    if (input == nullptr)
      return nullptr;
    output = input;
  }
  return heap_copy(output);
}

class CompiledRegex {
 public:
  CompiledRegex(const char* pattern, int flags)
      : status_(regcomp(&regex_, pattern, flags)) {}
  ~CompiledRegex() {
    if (status_ == 0)
      regfree(&regex_);
  }
  CompiledRegex(const CompiledRegex&) = delete;
  CompiledRegex& operator=(const CompiledRegex&) = delete;

  int status() const { return status_; }
  const regex_t* get() const { return &regex_; }
  std::string error_text(int code) const {
    char text[256];
    regerror(code, &regex_, text, sizeof text);
    return text;
  }

 private:
  regex_t regex_;
  int status_;
};

std::string matched(const char* text, const regmatch_t& match) {
  if (match.rm_so < 0)
    return std::string();
  return std::string(text + match.rm_so, text + match.rm_eo);
}

tavix::idn::IdnaError conversion_error(const std::string& name,
                                       const char* target, int rc) {
  return tavix::idn::IdnaError("Unable to convert '" + name + "' to " +
                               target + ": " + idn_strerror(rc));
}

}  // namespace

const char* idn_strerror(int code) {
  switch (code) {
    case IDNA_SUCCESS:
      return "Success";
    case IDNA_STRINGPREP_ERROR:
      return "Stringprep error";
    case IDNA_PUNYCODE_ERROR:
      return "Punycode error";
    case IDNA_CONTAINS_NON_LDH:
      return "Contains non-LDH characters";
    case IDNA_CONTAINS_MINUS:
      return "Contains minus";
    case IDNA_INVALID_LENGTH:
      return "Invalid length";
    case IDNA_NO_ACE_PREFIX:
      return "ACE prefix not found";
    case IDNA_ROUNDTRIP_VERIFY_ERROR:
      return "Verify error";
    case IDNA_CONTAINS_ACE_PREFIX:
      return "ACE prefix found";
    case IDNA_ICONV_ERROR:
      return "Iconv error";
    case IDNA_MALLOC_ERROR:
      return "Cannot allocate buffer";
    default:
      return "Unknown error";
  }
}

char* idn_toascii(const char* domain, int* rc) {
  return convert(to_ascii, domain, rc);
}

char* idn_toutf8(const char* domain, int* rc) {
  return convert(to_utf8, domain, rc);
}

char* idn_email_toascii(const char* address, int* rc) {
  return convert(email_to_ascii, address, rc);
}

char* idn_toascii_safe(const char* domain) {
  return convert_safe("idn_toascii_safe", to_ascii, domain);
}

char* idn_email_toascii_safe(const char* address) {
  return convert_safe("idn_email_toascii_safe", email_to_ascii, address);
}

char* idn_url_toascii(const char* url) {
  const char* text = url != nullptr ? url : "";
  CompiledRegex regex(kUrlPattern, REG_EXTENDED);
  if (regex.status() != 0) {
    tavix_log(LOG_ERR, "regcomp() failed: %s",
              regex.error_text(regex.status()).c_str());
    return nullptr;
  }
  regmatch_t groups[kUrlGroups];
  int rc = regexec(regex.get(), text, kUrlGroups, groups, 0);
  if (rc != 0) {
    tavix_log(LOG_ERR, "regexec() failed: %s", regex.error_text(rc).c_str());
    return nullptr;
  }
  std::string host = matched(text, groups[kUrlHost]);
  if (host.empty()) {
    tavix_log(LOG_ERR, "no hostname found in URL");
    return nullptr;
  }
  std::string ascii_host;
  rc = to_ascii(host.c_str(), &ascii_host);
  if (rc != IDNA_SUCCESS) {
    tavix_log(LOG_ERR, "idn_toascii() failed: %s", idn_strerror(rc));
    return nullptr;
  }
  return heap_copy(matched(text, groups[kUrlScheme]) +
                   matched(text, groups[kUrlUser]) + ascii_host +
                   matched(text, groups[kUrlRest]));
}

namespace tavix {
namespace idn {

std::string toAscii(const std::string& domain) {
  std::string output;
  int rc = to_ascii(domain.c_str(), &output);
  if (rc != IDNA_SUCCESS)
    throw conversion_error(domain, "ASCII", rc);
  return output;
}

std::string toUtf8(const std::string& domain) {
  std::string output;
  int rc = to_utf8(domain.c_str(), &output);
  if (rc != IDNA_SUCCESS)
    throw conversion_error(domain, "Unicode", rc);
  return output;
}

std::string emailToAscii(const std::string& address) {
  if (address.empty())
    return address;
  std::string output;
  int rc = email_to_ascii(address.c_str(), &output);
  if (rc != IDNA_SUCCESS)
    throw conversion_error(address, "ASCII", rc);
  return output;
}

}  // namespace idn
}  // namespace tavix
