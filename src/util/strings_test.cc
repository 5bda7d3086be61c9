#include "util/strings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Copies a string array out and frees it.
std::vector<std::string> TakeArray(char** array) {
  std::vector<std::string> strings;
  for (char** p = array; p && *p; ++p)
    strings.push_back(*p);
  free_array(array);
  return strings;
}

// Leading delimiters are skipped and runs count as one; a trailing one leaves
// an empty last field.
TEST(StringSplit, Fields) {
  const struct {
    const char* text;
    const char* delimiters;
    std::vector<std::string> fields;
  } cases[] = {
      {"a,,b,", ",", {"a", "b", ""}}, {"", ",", {""}},   {",,,", ",", {""}},
      {",a", ",", {"a"}},             {"a b::c", " :", {"a", "b", "c"}},
  };
  for (const auto& c : cases) {
    char** fields = string_split(c.text, c.delimiters);
    ASSERT_NE(nullptr, fields) << c.text;
    EXPECT_EQ(c.fields, TakeArray(fields)) << "text: \"" << c.text << "\"";
  }
}

TEST(StringArray, AppendsCopiesInOrder) {
  char** array = nullptr;
  std::vector<std::string> expected;
  for (int i = 0; i < 20; ++i) {
    expected.push_back("item" + std::to_string(i));
    array = string_to_mas(array, expected.back().c_str());
    ASSERT_NE(nullptr, array);
  }
  EXPECT_EQ(nullptr, array[20]);
  EXPECT_EQ(expected, TakeArray(array));
}

TEST(StrToLower, LowerCasesInPlace) {
  char text[] = "MiXeD.Example.COM";
  strtolower(text);
  EXPECT_STREQ("mixed.example.com", text);
  strtolower(nullptr);
}

}  // namespace
