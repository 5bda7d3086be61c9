#include "util/names.h"

#include <string>

#include <gtest/gtest.h>

namespace {

std::string label(size_t length) { return std::string(length, 'a'); }

// The command-line tests show the common mailname refusals (doubled or edge
// dots, blanks, bytes above 127); here are the limits and the other characters.
TEST(NamesTest, MailnameDomainAndFullAddress) {
  const std::string max_domain = label(63) + "." + label(63) + "." + label(63) + "." + label(63);
  const struct {
    int (*check)(const char*);
    std::string name;
    int valid;
  } cases[] = {
      {is_mailname_valid, "John.Doe_1-2&3+4'5", 1},  // every allowed punctuation mark
      {is_mailname_valid, std::string(246, 'x'), 0},
      {is_mailname_valid, "", 0},
      {is_mailname_valid, "in@fo", 0},
      {is_mailname_valid, "in/fo", 0},
      {is_mailname_valid, "in\"fo", 0},
      {is_domain_name_valid, "Sub-1.EXAMPLE.com", 1},
      {is_domain_name_valid, label(63) + ".com", 1},
      {is_domain_name_valid, label(64) + ".com", 0},
      {is_domain_name_valid, "com." + label(64), 0},  // the last label is limited as well
      {is_domain_name_valid, max_domain, 1},
      {is_domain_name_valid, max_domain + ".a", 0},  // 257 characters
      {is_domain_name_valid, "", 0},
      {is_domain_name_valid, ".example.com", 0},
      {is_domain_name_valid, "example.com.", 0},
      {is_domain_name_valid, "example..com", 0},
      {is_domain_name_valid, "example.-com", 0},
      {is_domain_name_valid, "example-.com", 0},
      {is_domain_name_valid, "example.com-", 1},  // a trailing '-' is tested only before a dot
      {is_domain_name_valid, "exam_ple.com", 0},
      {is_full_mailname_valid, "o'brien+tag@example.com", 1},
      {is_full_mailname_valid, "info", 0},
      {is_full_mailname_valid, "@example.com", 0},
      {is_full_mailname_valid, "info@", 0},
      {is_full_mailname_valid, "in fo@example.com", 0},
      {is_full_mailname_valid, "info@exa..mple.com", 0},
      {is_full_mailname_valid, "a@b@example.com", 0},  // the domain part then holds an '@'
  };
  for (const auto& c : cases) EXPECT_EQ(c.valid, c.check(c.name.c_str())) << c.name;
  for (auto check : {is_mailname_valid, is_domain_name_valid, is_full_mailname_valid})
    EXPECT_EQ(0, check(nullptr));
}

}  // namespace
