// The whole judgement of one login: may this address log in with this
// password, and where is its mailbox.
#ifndef DRAVNIK_AUTH_LOGIN_CHECK_H_
#define DRAVNIK_AUTH_LOGIN_CHECK_H_

#include <string>

#include "auth/request.h"

namespace tavix {
namespace auth {

enum class Verdict {
  kAccepted,
  kRefused,    // wrong, unknown, disabled or without a mailbox
  kTemporary,  // the key, the database or qmail's files could not be read
};

struct Answer {
  Verdict verdict = Verdict::kRefused;
  std::string address;  // mailname@domain as the records keep it
  std::string home;     // the mailbox's directory, when accepted
};

// Judges `login` with `password`; a null `password` means that the caller
// has already authenticated the user and asks only whether the address is
// usable and where its mailbox is (Dovecot's user look-ups). Every refusal
// and failure is logged with the login and the reason, never the password.
Answer CheckLogin(const std::string& login, const Secret* password);

}  // namespace auth
}  // namespace tavix

#endif  // DRAVNIK_AUTH_LOGIN_CHECK_H_
