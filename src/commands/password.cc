#include "commands/password.h"

#include <cstdlib>

namespace {

char const kPlain[] = "ZON_PASSWORD";
char const kCrypted[] = "ZON_CRYPTED_PASSWORD";

// The variables' values once taken out of the environment; null when unset.
char const* takenPlain = nullptr;
char const* takenCrypted = nullptr;

// Moves the variable into `*value` when it is set. glibc frees neither the
// initial environment strings nor those given to setenv(), so the value
// outlives its removal.
void takeEnv(char const* name, char const** value) {
  char const* text = getenv(name);
  if (text == nullptr)
    return;
  *value = text;
  unsetenv(name);  // fails only for a malformed name
}

bool isEmpty(char const* text) { return text == nullptr || *text == '\0'; }

}  // namespace

void take_env_passwords() {
  takeEnv(kPlain, &takenPlain);
  takeEnv(kCrypted, &takenCrypted);
}

int get_env_password(char const** password, int* crypted) {
  take_env_passwords();
  char const* const plain = takenPlain;
  char const* const hash = takenCrypted;
  takenPlain = takenCrypted = nullptr;
  // The plain password wins over the hash.
  if (!isEmpty(plain)) {
    *password = plain;
    *crypted = 0;
    return 0;
  }
  if (!isEmpty(hash)) {
    *password = hash;
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
