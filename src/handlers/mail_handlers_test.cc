#include "handlers/mail_handlers.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "handlers/mh_test_support.h"
#include "util/test_support.h"

namespace {

using tavix::test::LogRecorder;
using tavix::test::TempDir;
using tavix::test::Walk;

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

TEST(HandlerListTest, HoldsCopiesNewestFirst) {
  tavix::handlers::ScopedList list;
  tavix::handlers::Record rec(mh_data_init());
  ASSERT_TRUE(rec);
  for (const char* name : {"first", "second", "third"}) {
    ASSERT_TRUE(tavix::handlers::set_text(&rec->name, name));
    rec->priority++;
    ASSERT_EQ(0, mh_list_add(list.get(), rec.get()));
  }
  ASSERT_TRUE(tavix::handlers::set_text(&rec->name, "changed after adding"));

  // The null context stays null in the copies.
  EXPECT_EQ((std::vector<std::string>{"third 3", "second 2", "first 1"}),
            Walk(list.get(), [](const mh_data& d) {
              return std::string(d.name) + (d.context ? " context!" : " ") +
                     std::to_string(d.priority);
            }));
  // Every node knows the pointer that points at it.
  mh_list_node** link = &list.get()->head;
  for (mh_list_node* node = list.get()->head; node; node = node->next) {
    EXPECT_EQ(link, node->prev);
    link = &node->next;
  }
}


}  // namespace
