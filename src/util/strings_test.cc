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

struct SplitCase {
  const char* text;
  const char* delimiters;
  std::vector<std::string> fields;
};

void PrintTo(const SplitCase& c, std::ostream* os) {
  *os << '"' << c.text << "\" at \"" << c.delimiters << '"';
}

class StringSplitTest : public testing::TestWithParam<SplitCase> {};

TEST_P(StringSplitTest, Fields) {
  const SplitCase& c = GetParam();
  char** fields = string_split(c.text, c.delimiters);
  ASSERT_NE(nullptr, fields);
  EXPECT_EQ(c.fields, TakeArray(fields)) << "text: \"" << c.text << "\"";
}

INSTANTIATE_TEST_SUITE_P(
    Texts, StringSplitTest,
    testing::Values(SplitCase{"a,,b,", ",", {"a", "b", ""}},
                    SplitCase{"", ",", {""}},
                    SplitCase{",,,", ",", {""}},
                    SplitCase{"abc", ",", {"abc"}},
                    SplitCase{",a", ",", {"a"}},
                    SplitCase{"a b::c", " :", {"a", "b", "c"}},
                    SplitCase{"x.com,y.com", ",", {"x.com", "y.com"}}));

TEST(StringArray, AppendsCopiesInOrder) {
  char** array = nullptr;
  std::vector<std::string> expected;
  for (int i = 0; i < 20; ++i) {
    std::string item = "item" + std::to_string(i);
    array = string_to_mas(array, item.c_str());
    ASSERT_NE(nullptr, array);
    expected.push_back(item);
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
