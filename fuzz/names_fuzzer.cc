// Name checks and IDN conversion: each input is a mail name, domain, address
// or URL as a user or the panel may pass it. Names that pass the checks end
// up as directory names and as fields of qmail's colon-separated files, so
// the properties checked here are the ones those uses depend on.
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "util/idn.h"
#include "util/names.h"

namespace {

// Free of every byte that could break out of a path component or a line
// of users/assign, and not a path of its own.
bool safe_in_files(const std::string& name) {
  if (name.empty() || name == "." || name == "..")
    return false;
  for (unsigned char c : name) {
    if (c <= ' ' || c >= 127 || c == '/' || c == ':' || c == '\\')
      return false;
  }
  return true;
}

void check_validators(const std::string& text) {
  const char* input = text.c_str();
  bool mailname = is_mailname_valid(input);
  bool domain = is_domain_name_valid(input);
  bool full = is_full_mailname_valid(input);

  if (mailname)
    require(safe_in_files(text) && text.size() <= 245 &&
                text.find('@') == std::string::npos,
            "a valid mail name is a safe file name of at most 245 bytes");
  if (domain)
    require(safe_in_files(text) && text.size() <= 255 &&
                text.find('@') == std::string::npos &&
                text.find("..") == std::string::npos,
            "a valid domain name is a safe file name of at most 255 bytes");
  if (full) {
    size_t at = text.find('@');
    require(at != std::string::npos &&
                is_mailname_valid(text.substr(0, at).c_str()) &&
                is_domain_name_valid(text.substr(at + 1).c_str()),
            "a valid address is a valid mail name @ a valid domain");
  }
}

// The C and C++ interfaces must agree, and a domain that already passes the
// host-name check must come out of the ASCII conversion unchanged (it is
// converted again wherever it is used).
void check_conversions(const std::string& text) {
  const char* input = text.c_str();
  int rc = -1;
  char* ascii = idn_toascii(input, &rc);
  std::string thrown_ascii;
  bool converted = true;
  try {
    thrown_ascii = tavix::idn::toAscii(text);
  } catch (const tavix::idn::IdnaError&) {
    converted = false;
  }
  require((ascii != nullptr) == converted &&
              (ascii == nullptr || thrown_ascii == ascii),
          "idn_toascii and toAscii agree");
  if (is_domain_name_valid(input))
    require(ascii != nullptr && text == ascii,
            "a valid ASCII domain converts to itself");
  free(ascii);

  free(idn_toutf8(input, &rc));
  free(idn_email_toascii(input, &rc));
  char* safe = idn_toascii_safe(input);
  require(safe != nullptr, "idn_toascii_safe always gives a name");
  free(safe);
  safe = idn_email_toascii_safe(input);
  require(safe != nullptr, "idn_email_toascii_safe always gives an address");
  free(safe);
  free(idn_url_toascii(input));

  try {
    std::string email = tavix::idn::emailToAscii(text);
    size_t at = text.find('@');
    require(at == std::string::npos
                ? email == text
                : email.compare(0, at + 1, text, 0, at + 1) == 0,
            "emailToAscii keeps the local part byte for byte");
  } catch (const tavix::idn::IdnaError&) {
  }
  try {
    tavix::idn::toUtf8(text);
  } catch (const tavix::idn::IdnaError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  quiet_logging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text = input_text(data, size);
  check_validators(text);
  check_conversions(text);
  return 0;
}
