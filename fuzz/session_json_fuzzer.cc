// The session mail data reader: each input is the document the panel writes
// on standard input. It goes through the same stdio read, parse and
// post-processing as in the program, then through the debug dump, which
// walks every array the reader filled.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "maildata/session_mail_data.h"
#include "util/names.h"

namespace {

FILE* null_output;

bool is_lower_case(const char* text) {
  for (; *text != '\0'; ++text) {
    if (*text >= 'A' && *text <= 'Z')
      return false;
  }
  return true;
}

bool all_valid(const sj_string_array& array, int (*valid)(const char*)) {
  for (size_t i = 0; i < array.count; ++i) {
    if (array.values[i] == nullptr || !valid(array.values[i]))
      return false;
  }
  return array.count == 0 || array.values != nullptr;
}

// What the commands take for granted once the reader has accepted a
// document: every name present, valid and (mailing lists aside) in lower
// case, since they go into paths and qmail files unchecked.
void check_accepted(const mail_db_data_t& domain) {
  require(domain.name != nullptr && is_domain_name_valid(domain.name) &&
              is_lower_case(domain.name),
          "the domain name is valid and in lower case");
  require(all_valid(domain.dom_aliases, is_domain_name_valid),
          "every domain alias is valid");
  require(all_valid(domain.maillists, is_mailname_valid),
          "every mailing list name is valid");
  require(domain.mails.count == 0 || domain.mails.values != nullptr,
          "the mail array is allocated");
  for (size_t i = 0; i < domain.mails.count; ++i) {
    const mail_db_mail_t& mail = domain.mails.values[i];
    require(mail.name != nullptr && is_mailname_valid(mail.name) &&
                is_lower_case(mail.name),
            "every mail name is valid and in lower case");
    require(all_valid(mail.aliases, is_mailname_valid),
            "every mail alias is valid");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  quiet_logging();
  null_output = fopen("/dev/null", "we");
  if (null_output == nullptr) {
    perror("/dev/null");
    exit(1);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A private copy: fmemopen() wants a writable buffer, and an empty input
  // still needs a valid address.
  std::string document(reinterpret_cast<const char*>(data), size);
  FILE* stream = fmemopen(&document[0], size, "r");
  if (stream == nullptr) {
    perror("fmemopen");
    abort();
  }
  int code = read_session_mail_db_info(stream, 0);
  fclose(stream);
  require((code == 0) == (session_mail_db_info != nullptr),
          "the session object exists exactly when reading succeeded");
  if (code == 0) {
    check_accepted(*session_mail_db_info);
    debug_print_session_mail_db_info(null_output);
  }
  free_session_mail_db_info();
  return 0;
}
