// Whether a password given at login is the one stored for a mail name.
//
// The stored forms are those the commands write: "$AES-256-CBC:PKCS$..."
// in userPassword, decrypted with the key of the authentication database,
// or a crypt(3) hash in cmusaslsecretPLAIN. Comparisons take the same time
// whatever the bytes compared, and every check does one decryption and one
// crypt(3), each on the record or on a decoy: a crypt(3) run takes
// milliseconds where a decryption takes microseconds, so without the decoys
// an address without a record would answer as fast as one with an encrypted
// password and faster than one with a hash, and its time would tell which
// mailboxes exist.
//
// The decoy hash is SHA-512-crypt with its default 5,000 rounds, what
// "openssl passwd -6" and "mkpasswd -m sha-512" make: hashes of that method
// answer in the same time as every other check. A hash of a costlier method
// (yescrypt, bcrypt) still takes its own, longer time; a decoy of such a
// method would add tens of milliseconds to every login.
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

// What a check did, for the tests that hold every path to the same work.
struct Work {
  int decryptions = 0;
  int crypts = 0;
};

// Compares `given` with the record's password. The mail cipher must have
// been set up (mail_aes_init) by the caller. An empty `given` never
// matches, nor does a stored text that does not decrypt.
Match MatchPassword(const MailAuthRecord& record, const Secret& given, Work* work = nullptr);

// The work of MatchPassword() on decoys that nothing matches: for an
// address without a record.
void DecoyMatch(const Secret& given, Work* work = nullptr);

// The hash the decoy crypt(3) runs on.
extern const char kDecoyHash[];

// Equal in constant time for texts of the same length; `a` and `b` of
// different lengths are unequal, after the same work over `a`'s length.
bool SecretsEqual(const char* a, size_t a_size, const char* b, size_t b_size);

}  // namespace auth
}  // namespace tavix

#endif  // DRAVNIK_AUTH_PASSWORD_CHECK_H_
