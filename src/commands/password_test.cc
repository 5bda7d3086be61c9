#include "commands/password.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using tavix::mail::dravnik_commands::PasswordAccessor;

namespace {

char const kPlain[] = "ZON_PASSWORD";
char const kCrypted[] = "ZON_CRYPTED_PASSWORD";

// Each test sets the variables it needs; none is inherited from the caller.
class PasswordTest : public ::testing::Test {
 protected:
  void SetUp() override { set(nullptr, nullptr); }
  void TearDown() override { set(nullptr, nullptr); }

  // nullptr leaves a variable unset.
  static void set(char const* plain, char const* crypted) {
    unsetenv(kPlain);
    unsetenv(kCrypted);
    if (plain != nullptr) setenv(kPlain, plain, 1);
    if (crypted != nullptr) setenv(kCrypted, crypted, 1);
  }
  static bool anyLeft() { return getenv(kPlain) != nullptr || getenv(kCrypted) != nullptr; }
};

// The plain password wins; an empty one counts as none. Both variables are
// gone afterwards, so that no child inherits them.
TEST_F(PasswordTest, TakesOneVariableAndRemovesBoth) {
  struct Case {
    char const* plain;
    char const* crypted;
    int result;
    char const* password;  // expected; nullptr: output left untouched
    int cryptedFlag;
  };
  std::vector<Case> const cases = {
      {"secret", "$1$salt$hash", 0, "secret", 0},
      {nullptr, "$1$salt$hash", 0, "$1$salt$hash", 1},
      {"", "$1$salt$hash", 0, "$1$salt$hash", 1},
      {"", "", -1, nullptr, 7},
      {nullptr, nullptr, -1, nullptr, 7},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(std::string(c.plain ? c.plain : "(unset)") + " / " +
                 (c.crypted ? c.crypted : "(unset)"));
    set(c.plain, c.crypted);
    char const untouched[] = "untouched";
    char const* password = untouched;
    int crypted = 7;
    EXPECT_EQ(c.result, get_env_password(&password, &crypted));
    if (c.password != nullptr)
      EXPECT_STREQ(c.password, password);  // still readable after removal
    else
      EXPECT_EQ(untouched, password);
    EXPECT_EQ(c.cryptedFlag, crypted);
    EXPECT_FALSE(anyLeft());
  }
}

// main() takes the variables before any command runs, so that no child
// started before (or without) a PasswordAccessor inherits them; the
// accessor still finds the password, once.
TEST_F(PasswordTest, TakenAtStartStillReachesTheAccessorOnce) {
  set(nullptr, "$1$salt$hash");
  take_env_passwords();
  EXPECT_FALSE(anyLeft());
  PasswordAccessor const crypted;
  EXPECT_STREQ("$1$salt$hash", crypted.password);
  EXPECT_TRUE(crypted.crypted);

  PasswordAccessor const none;
  EXPECT_EQ(nullptr, none.password);
  EXPECT_FALSE(none.crypted);
}

}  // namespace
