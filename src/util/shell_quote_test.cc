#include "util/shell_quote.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace {

// The bytes a shell would interpret, listed independently of the code.
const std::string kEscaped = "\t \"#$&'()*;<>?[\\`|~";

TEST(ShellQuoteTest, EveryByteValue) {
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
    EXPECT_EQ(expected == text ? 1 : 0, check_shell_arg_nothrow(text.c_str())) << "byte " << b;
  }
  EXPECT_EQ("", tavix::sh_quote(""));
  EXPECT_EQ("It\\'s\\ gone\\;\\ see\\ \\$HOME", tavix::sh_quote("It's gone; see $HOME"));
  EXPECT_EQ("a'\n'b", tavix::sh_quote("a\nb"));
}

TEST(ShellQuoteTest, CheckShellArg) {
  EXPECT_EQ(1, check_shell_arg_nothrow(nullptr));
  EXPECT_EQ(1, check_shell_arg_nothrow(""));
  EXPECT_EQ(1, tavix::check_shell_arg(nullptr));
  EXPECT_EQ(1, tavix::check_shell_arg("qmail-send"));
  try {
    tavix::check_shell_arg("rm -rf ~");
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ("Internal error: bad escape_chars value", e.what());
  }
}

}  // namespace
