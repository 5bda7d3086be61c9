#include "util/shell_quote.h"

#include <string.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace {

// The bytes a shell would interpret, listed independently of the code.
const std::string kEscaped = "\t \"#$&'()*;<>?[\\`|~";

TEST(ShellQuoteTest, EveryByteValue) {
  ASSERT_EQ(19u, kEscaped.size());
  for (int b = 1; b < 256; ++b) {
    const char c = static_cast<char>(b);
    const std::string text(1, c);
    std::string expected;
    if (c == '\n')
      expected = "'\n'";
    else if (kEscaped.find(c) != std::string::npos)
      expected = "\\" + text;
    else
      expected = text;  // includes every byte from 128 up
    EXPECT_EQ(expected, tavix::sh_quote(text)) << "byte " << b;
    EXPECT_EQ(expected == text ? 1 : 0, check_shell_arg_nothrow(text.c_str()))
        << "byte " << b;
  }
  EXPECT_EQ(256u, strlen(shell_escape_chars));
}

TEST(ShellQuoteTest, Texts) {
  const struct {
    std::string text;
    std::string quoted;
  } cases[] = {
      {"", ""},
      {"plain-text_1.2/3", "plain-text_1.2/3"},
      {"It's gone; see $HOME", "It\\'s\\ gone\\;\\ see\\ \\$HOME"},
      {"a\nb", "a'\n'b"},
      {"b\xc3\xbc" "cher", "b\xc3\xbc" "cher"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.quoted, tavix::sh_quote(c.text)) << c.text;
}

TEST(ShellQuoteTest, CheckShellArg) {
  EXPECT_EQ(1, check_shell_arg_nothrow(nullptr));
  EXPECT_EQ(1, check_shell_arg_nothrow(""));
  EXPECT_EQ(1, tavix::check_shell_arg("qmail-send"));
  EXPECT_EQ(1, tavix::check_shell_arg(nullptr));
  EXPECT_EQ(0, check_shell_arg_nothrow("ok but spaced"));
  try {
    tavix::check_shell_arg("rm -rf ~");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("Internal error: bad escape_chars value", e.what());
  }
}

}  // namespace
