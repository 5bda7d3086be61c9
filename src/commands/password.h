// The mailbox password reaches the program through the environment, never on
// the command line, where any user could read it in the process list.
#ifndef DRAVNIK_COMMANDS_PASSWORD_H_
#define DRAVNIK_COMMANDS_PASSWORD_H_

// Takes the password from ZON_PASSWORD (plain text, *crypted = 0) or, when
// that is unset or empty, from ZON_CRYPTED_PASSWORD (a crypt hash,
// *crypted = 1), and removes the variable it used so that no child process
// inherits it. Returns 0, or -1 with both outputs untouched when neither is
// set. The string stays valid for the life of the process.
int get_env_password(char const** password, int* crypted);

namespace tavix {
namespace mail {
namespace dravnik_commands {

// The password of this run, read from the environment when constructed.
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
