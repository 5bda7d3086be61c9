#include "handlers/handler_ops.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "handlers/mh_test_support.h"
#include "mailauth/sqlite_test_support.h"
#include "util/test_support.h"

namespace {

using tavix::handlers::Record;
using tavix::handlers::ScopedList;
using tavix::handlers::set_text;
using tavix::test::HandlersDB;
using tavix::test::LogRecorder;
using tavix::test::QueryRows;
using tavix::test::Rows;
using Lines = std::vector<std::string>;

// A record of type 5, queue 5 for `name` at `address`.
Record Handler(const char* name, const char* address, int32_t type = 5) {
  Record rec(mh_data_init());
  EXPECT_TRUE(rec && set_text(&rec->name, name) && set_text(&rec->address, address) &&
              set_text(&rec->executable, "/usr/bin/handler"));
  rec->type = type;
  return rec;
}

TEST(HandlerOpsTest, AddStoresTheRecordAsTheMailSystemReadsIt) {
  LogRecorder log;
  const struct {
    const char* address;
    int32_t type;
    const char* context;
    bool flags;  // protected and enabled
    Rows rows;   // address, context, protected, enabled
  } cases[] = {
      {"Foo@Example.COM", 5, nullptr, false, {{"foo@example.com", "none", "0", "0"}}},
      {"u@d.com", 5, "ctx", true, {{"u@d.com", "ctx", "1", "1"}}},
      {nullptr, MH_TYPE_GLOBAL, nullptr, false, {{"all", "none", "0", "0"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.address ? c.address : "(null)");
    HandlersDB db;
    Record rec = Handler("h", c.address, c.type);
    ASSERT_TRUE(set_text(&rec->context, c.context));
    rec->protected_ = rec->enabled = c.flags;
    EXPECT_EQ(0, mh_db_add(nullptr, rec.get()));
    EXPECT_EQ(c.rows,
              QueryRows(db.path(), "SELECT address, context, protected, enabled FROM handlers"));
  }

  // Adding the same handler again replaces it.
  HandlersDB db;
  Record rec = Handler("h", "u@d.com");
  ASSERT_EQ(0, mh_db_add(nullptr, rec.get()));
  rec->priority = 7;
  ASSERT_EQ(0, mh_db_add(nullptr, rec.get()));
  EXPECT_EQ((Rows{{"7"}}), QueryRows(db.path(), "SELECT priority FROM handlers"));
}

TEST(HandlerOpsTest, FailingRecordNeitherStopsNorFailsABatch) {
  LogRecorder log;
  HandlersDB db;
  ScopedList list;
  for (const char* address : {"a@d.com", "not-a-global-recipient", "b@d.com"}) {
    Record rec = Handler("h", address, address[0] == 'n' ? MH_TYPE_GLOBAL : 5);
    ASSERT_EQ(0, mh_list_add(list.get(), rec.get()));
  }
  EXPECT_EQ(0, mh_db_do(list.get(), nullptr, mh_db_add));
  EXPECT_EQ((Lines{"a@d.com h 0 0", "b@d.com h 0 0"}), db.Table());
}

}  // namespace
