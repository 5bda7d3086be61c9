// The mailbox password reaches the program through the environment, never on
// the command line, where any user could read it in the process list.
#ifndef DRAVNIK_COMMANDS_PASSWORD_H_
#define DRAVNIK_COMMANDS_PASSWORD_H_

// Moves ZON_PASSWORD and ZON_CRYPTED_PASSWORD, those of them that are set,
// out of the environment into this process's own keeping, so that no child
// process inherits them, whichever command runs and whether or not it asks
// for a password. main() calls it before anything else.
void take_env_passwords();

// Hands out the password of this run: the plain one (*crypted = 0) or, when
// that is unset or empty, the crypt hash (*crypted = 1). Takes what the
// environment still holds first. Returns 0, or -1 with both outputs
// untouched when there is none. Either way both are handed out only once.
// The string stays valid for the life of the process.
int get_env_password(char const** password, int* crypted);

namespace tavix {
namespace mail {
namespace dravnik_commands {

// The password of this run, from get_env_password() when constructed.
// password is null when none was passed. Does not own the string.
struct PasswordAccessor {
  PasswordAccessor();

  char const* password;
  bool crypted;
};

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_COMMANDS_PASSWORD_H_
