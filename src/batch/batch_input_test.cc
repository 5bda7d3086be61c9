// A batch line must give each command exactly the arguments and passwords
// written in it: every UTF-8 text a command line carries, byte for byte,
// and nothing cut short or added.
#include "batch/batch_input.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace {

using tavix::batch::Command;
using tavix::batch::parse_command;

struct Line {
  const char* name;
  std::string text;
  // Accepted: what argv's second word and the password come out as.
  std::vector<std::string> argv;
  std::string password;
  // Refused: a piece of the message.
  std::string error;
};

void PrintTo(const Line& line, std::ostream* out) { *out << line.name; }

class ParseCommandTest : public testing::TestWithParam<Line> {};

TEST_P(ParseCommandTest, GivesWhatTheLineSays) {
  const Line& line = GetParam();
  Command command;
  std::string error;
  bool const ok = parse_command(line.text, &command, &error);
  if (!line.error.empty()) {
    EXPECT_FALSE(ok);
    EXPECT_NE(error.find(line.error), std::string::npos) << error;
    return;
  }
  ASSERT_TRUE(ok) << error;
  EXPECT_EQ(command.argv, line.argv);
  EXPECT_EQ(command.password.value_or(""), line.password);
}

// A line with `word` as the domain name's value and `password`, both as
// written in JSON.
std::string with(const std::string& word, const std::string& password = "\"pw\"") {
  return R"({"argv": ["--add-domain", "--domain-name=)" + word + R"("], "password": )" +
         password + "}";
}

std::vector<std::string> argv(const std::string& domain) {
  return {"--add-domain", "--domain-name=" + domain};
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ParseCommandTest,
    testing::Values(
        Line{"ascii", with("example.com"), argv("example.com"), "pw", ""},
        Line{"utf8_kept_byte_exact", with("b\xC3\xBC" "cher.example", "\"gr\xC3\xBC\xC3\x9F\""),
             argv("b\xC3\xBC" "cher.example"), "gr\xC3\xBC\xC3\x9F", ""},
        Line{"three_and_four_byte_utf8", with("\xE2\x82\xAC\xF0\x9F\x98\x80"),
             argv("\xE2\x82\xAC\xF0\x9F\x98\x80"), "pw", ""},
        Line{"escapes_decoded_to_utf8", with(R"(b\u00fccher.example)", R"("\u00DF\u20ac")"),
             argv("b\xC3\xBC" "cher.example"), "\xC3\x9F\xE2\x82\xAC", ""},
        Line{"surrogate_pair", with(R"(\ud83d\ude00)"), argv("\xF0\x9F\x98\x80"), "pw", ""},
        Line{"simple_escapes_as_before", with(R"(a\"b\\c\/d\te)"), argv("a\"b\\c/d\te"), "pw",
             ""},
        Line{"nul_escape_in_argv", with(R"(john\u0000x)"), {}, "",
             "\"argv\" word 2 holds a NUL character"},
        Line{"nul_escape_in_password", with("x", R"("se\u0000cret")"), {}, "",
             "\"password\" holds a NUL character"},
        Line{"nul_byte_after_the_object", with("x") + std::string("\0 {}", 4), {}, "",
             "text after the command's object"},
        Line{"lone_high_surrogate", with(R"(\ud83dx)"), {}, "", "Invalid escape sequence"},
        Line{"high_surrogate_then_other_escape", with(R"(\ud83d\u0041)"), {}, "",
             "Invalid escape sequence"},
        Line{"lone_low_surrogate", with(R"(\ude00)"), {}, "", "Invalid escape sequence"},
        Line{"short_escape", with(R"(\u12)"), {}, "", "Invalid escape sequence"},
        Line{"stray_continuation_byte", with("a\x80z"), {}, "", "Invalid character"},
        Line{"cut_sequence", with("a\xC3z"), {}, "", "Invalid character"},
        Line{"overlong_slash", with("a\xC0\xAFz"), {}, "", "Invalid character"},
        Line{"encoded_surrogate", with("a\xED\xA0\x80z"), {}, "", "Invalid character"},
        Line{"above_u10ffff", with("a\xF4\x90\x80\x80z"), {}, "", "Invalid character"},
        Line{"invalid_byte_in_password", with("x", "\"\xFF\""), {}, "",
             "\"password\" is not a JSON string of UTF-8 text"},
        Line{"raw_control_byte", with("a\tb"), {}, "", "Invalid character"},
        Line{"argv_given_twice",
             R"({"argv": ["--add-domain"], "argv": ["--domain-name=x"]})", {}, "",
             "member \"argv\" given twice"}),
    [](const testing::TestParamInfo<Line>& info) { return std::string(info.param.name); });

// The document goes to the command's own reader as written, and stays as
// narrow as that reader: what it refuses, the batch refuses too.
TEST(ParseCommand, DocumentStaysAsTheCommandsReaderTakesIt) {
  Command command;
  std::string error;
  std::string const document = R"({"domain": {"name": "a\u0000b"}})";
  ASSERT_TRUE(parse_command(R"({"argv": ["--add-domain"], "stdin": )" + document + "}",
                            &command, &error))
      << error;
  EXPECT_EQ(command.stdin_text.value_or(""), document);

  Command unicode;
  EXPECT_FALSE(parse_command(
      R"({"argv": ["--add-domain"], "stdin": {"domain": {"name": "b\u00fccher"}}})", &unicode,
      &error));
  EXPECT_NE(error.find("UTF8 encoded characters"), std::string::npos) << error;
}

}  // namespace
