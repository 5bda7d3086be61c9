#include "util/names.h"

#include <string>

#include <gtest/gtest.h>

namespace {

struct NameCase {
  std::string name;
  int valid;
};

std::string label(size_t length) {
  return std::string(length, 'a');
}

TEST(NamesTest, Mailname) {
  const NameCase cases[] = {
      {"info", 1},
      {"John.Doe_1-2&3+4'5", 1},  // every allowed punctuation mark
      {std::string(245, 'x'), 1},
      {std::string(246, 'x'), 0},
      {"", 0},
      {".info", 0},
      {"info.", 0},
      {"in..fo", 0},
      {"in fo", 0},
      {"in@fo", 0},
      {"in/fo", 0},
      {"in\"fo", 0},
      {"j\xc3\xb6rg", 0},  // bytes above 127
  };
  for (const NameCase& c : cases)
    EXPECT_EQ(c.valid, is_mailname_valid(c.name.c_str())) << c.name;
  EXPECT_EQ(0, is_mailname_valid(nullptr));
}

TEST(NamesTest, DomainName) {
  const NameCase cases[] = {
      {"example.com", 1},
      {"a", 1},
      {"Sub-1.EXAMPLE.com", 1},
      {"xn--bcher-kva.example", 1},
      {label(63) + ".com", 1},
      {label(64) + ".com", 0},
      {"com." + label(63), 1},
      {"com." + label(64), 0},  // the last label is limited as well
      {label(63) + "." + label(63) + "." + label(63) + "." + label(63), 1},
      {label(63) + "." + label(63) + "." + label(63) + "." + label(63) + ".a",
       0},  // 257 characters
      {"", 0},
      {".example.com", 0},
      {"example.com.", 0},
      {"example..com", 0},
      {"-example.com", 0},
      {"example.-com", 0},
      {"example-.com", 0},
      {"example.com-", 1},  // a trailing '-' is tested only before a dot
      {"exam_ple.com", 0},
      {"exa mple.com", 0},
      {"b\xc3\xbc" "cher.example", 0},
  };
  for (const NameCase& c : cases)
    EXPECT_EQ(c.valid, is_domain_name_valid(c.name.c_str())) << c.name;
  EXPECT_EQ(0, is_domain_name_valid(nullptr));
}

TEST(NamesTest, FullAddressSplitsAtFirstAt) {
  const NameCase cases[] = {
      {"info@example.com", 1},
      {"o'brien+tag@example.com", 1},
      {"info", 0},
      {"@example.com", 0},
      {"info@", 0},
      {"in fo@example.com", 0},
      {"info@exa..mple.com", 0},
      {"a@b@example.com", 0},  // the domain part then holds an '@'
  };
  for (const NameCase& c : cases)
    EXPECT_EQ(c.valid, is_full_mailname_valid(c.name.c_str())) << c.name;
  EXPECT_EQ(0, is_full_mailname_valid(nullptr));
}

}  // namespace
