#include "handlers/mail_handlers.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>

#include "util/test_support.h"

namespace {

using tavix::test::LogRecorder;

TEST(GlobalRecipientTest, OnlyTheTwoAllFormsOrNothingAreAccepted) {
  LogRecorder log;
  const char all[] = "all";
  const char all_recipients[] = "all-recipients";
  const struct {
    const char* address;
    const char* expected;  // null: rejected
  } cases[] = {{nullptr, "all"}, {"", "all"}, {all, all}, {all_recipients, all_recipients},
               {"ALL", nullptr}, {"all-recipients ", nullptr}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.address ? c.address : "(null)");
    LogRecorder::lines().clear();
    const char* result = validate_global_handler_recipient(c.address);
    if (!c.expected) {
      EXPECT_EQ(nullptr, result);
      EXPECT_TRUE(LogRecorder::Has(LOG_ERR,
                                   "Incorrect recipient address for global handler, expected "
                                   "[NULL|EMPTY_STRING|all|all-recipients]"));
      continue;
    }
    ASSERT_NE(nullptr, result);
    EXPECT_STREQ(c.expected, result);
    // An accepted argument is handed back itself, not a copy.
    if (c.address && *c.address) {
      EXPECT_EQ(c.address, result);
    }
  }
}

}  // namespace
