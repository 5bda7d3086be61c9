#include "commands/password.h"

#include <cstdlib>

namespace {

// Hands out the variable's value and removes the variable. glibc frees neither
// the initial environment strings nor those given to setenv(), so the value
// outlives its removal.
bool takeEnv(char const* name, char const** value) {
  char const* text = getenv(name);
  if (text == nullptr || *text == '\0')
    return false;
  *value = text;
  unsetenv(name);  // fails only for a malformed name
  return true;
}

}  // namespace

int get_env_password(char const** password, int* crypted) {
  if (takeEnv("ZON_PASSWORD", password)) {
    // The plain password wins; the unused hash must not reach a child either.
    unsetenv("ZON_CRYPTED_PASSWORD");
    *crypted = 0;
    return 0;
  }
  if (takeEnv("ZON_CRYPTED_PASSWORD", password)) {
    *crypted = 1;
    return 0;
  }
  return -1;
}

namespace tavix {
namespace mail {
namespace dravnik_commands {

PasswordAccessor::PasswordAccessor() : password(nullptr), crypted(false) {
  // Without a password in the environment the password stays null; what that
  // means is for the operation that receives it to decide.
  int isCrypted = 0;
  get_env_password(&password, &isCrypted);
  crypted = isCrypted != 0;
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
