// Whether a password given at login is the one stored for a mail name.
//
// The stored forms are those the commands write: "$AES-256-CBC:PKCS$..."
// in userPassword, decrypted with the key of the authentication database,
// or a crypt(3) hash in cmusaslsecretPLAIN. Comparisons take the same time
// whatever the bytes compared, and a login for an address without a record
// goes through the same decryption and comparison with a decoy, so that
// the answer's time does not tell a mailbox that exists from one that does
// not.
#ifndef DRAVNIK_AUTH_PASSWORD_CHECK_H_
#define DRAVNIK_AUTH_PASSWORD_CHECK_H_

#include <string>

#include "auth/request.h"
#include "mailauth/auth_records.h"

namespace tavix {
namespace auth {

enum class Match {
  kYes,
  kNo,
  kUnusable,  // the record holds nothing a password can match (logged by the caller)
};

// Compares `given` with the record's password. The mail cipher must have
// been set up (mail_aes_init) by the caller. An empty `given` never
// matches, nor does a stored text that does not decrypt.
Match MatchPassword(const MailAuthRecord& record, const Secret& given);

// The work of MatchPassword() for an encrypted record, on a decoy that
// nothing matches: for an address without a record.
void DecoyMatch(const Secret& given);

// Equal in constant time for texts of the same length; `a` and `b` of
// different lengths are unequal, after the same work over `a`'s length.
bool SecretsEqual(const char* a, size_t a_size, const char* b, size_t b_size);

}  // namespace auth
}  // namespace tavix

#endif  // DRAVNIK_AUTH_PASSWORD_CHECK_H_
