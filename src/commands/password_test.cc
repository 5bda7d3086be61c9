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
  void SetUp() override { clear(); }
  void TearDown() override { clear(); }

  static void clear() {
    unsetenv(kPlain);
    unsetenv(kCrypted);
  }
  // nullptr leaves the variable unset.
  static void set(char const* name, char const* value) {
    if (value != nullptr) {
      ASSERT_EQ(0, setenv(name, value, 1));
    }
  }
  static bool isSet(char const* name) { return getenv(name) != nullptr; }
};

TEST_F(PasswordTest, TakesOneVariableAndRemovesIt) {
  struct Case {
    char const* plain;
    char const* crypted;
    int result;
    char const* password;  // expected; nullptr: output left untouched
    int cryptedFlag;
    bool plainLeft;
    bool cryptedLeft;
  };
  std::vector<Case> const cases = {
      {"secret", "$1$salt$hash", 0, "secret", 0, false, false},
      {"secret", nullptr, 0, "secret", 0, false, false},
      {nullptr, "$1$salt$hash", 0, "$1$salt$hash", 1, false, false},
      {"", "$1$salt$hash", 0, "$1$salt$hash", 1, false, false},
      {"", "", -1, nullptr, 7, false, false},
      {nullptr, nullptr, -1, nullptr, 7, false, false},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(std::string(c.plain ? c.plain : "(unset)") + " / " +
                 (c.crypted ? c.crypted : "(unset)"));
    clear();
    set(kPlain, c.plain);
    set(kCrypted, c.crypted);

    char const untouched[] = "untouched";
    char const* password = untouched;
    int crypted = 7;
    EXPECT_EQ(c.result, get_env_password(&password, &crypted));
    if (c.password != nullptr)
      EXPECT_STREQ(c.password, password);  // still readable after removal
    else
      EXPECT_EQ(untouched, password);
    EXPECT_EQ(c.cryptedFlag, crypted);
    EXPECT_EQ(c.plainLeft, isSet(kPlain));
    EXPECT_EQ(c.cryptedLeft, isSet(kCrypted));
  }
}

TEST_F(PasswordTest, AccessorMarksCryptedPasswords) {
  set(kCrypted, "$1$salt$hash");
  PasswordAccessor const crypted;
  EXPECT_STREQ("$1$salt$hash", crypted.password);
  EXPECT_TRUE(crypted.crypted);

  set(kPlain, "secret");
  PasswordAccessor const plain;
  EXPECT_STREQ("secret", plain.password);
  EXPECT_FALSE(plain.crypted);

  PasswordAccessor const none;
  EXPECT_EQ(nullptr, none.password);
  EXPECT_FALSE(none.crypted);
}

// main() takes the variables before any command runs, so that no child
// started before (or without) a PasswordAccessor inherits them; the
// accessor still finds the password.
TEST_F(PasswordTest, TakenAtStartStillReachesTheAccessorOnce) {
  set(kPlain, "secret");
  set(kCrypted, "$1$salt$hash");
  take_env_passwords();
  EXPECT_FALSE(isSet(kPlain));
  EXPECT_FALSE(isSet(kCrypted));

  PasswordAccessor const first;
  EXPECT_STREQ("secret", first.password);
  EXPECT_FALSE(first.crypted);
  PasswordAccessor const second;
  EXPECT_EQ(nullptr, second.password);
}

}  // namespace
