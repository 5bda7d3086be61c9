#include "handlers/handler_ops.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <string>
#include <vector>

#include "handlers/mh_test_support.h"
#include "mailauth/sqlite_db.h"
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

// Runs `sql` on the database at `path` with a connection of the test's own.
void Execute(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
  char* message = nullptr;
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql, nullptr, nullptr, &message)) << message;
  sqlite3_free(message);
  sqlite3_close(db);
}

void Add(const char* name, const char* address) {
  Record rec = Handler(name, address);
  ASSERT_EQ(0, mh_db_add(nullptr, rec.get()));
}

// The callers remove the originals once a clone succeeded, so a clone with
// one copy refused must keep none of the others: with or without the
// process-wide transaction of a batch run around it.
TEST(HandlerOpsTest, CloneIsAllOrNothing) {
  const struct {
    const char* what;
    const char* old_mailname;
    const char* old_domain;
    const char* new_mailname;
    const char* new_domain;
    const char* refused;  // the address whose copy an insert trigger refuses
    Lines copied;         // what a clone adds when nothing is refused
  } cases[] = {
      {"one address", "john", "d.com", "jack", "d.com", "jack@d.com",
       {"jack@d.com a 0 0", "jack@d.com b 0 0"}},
      {"whole domain", nullptr, "d.com", nullptr, "e.com", "mary@e.com",
       {"after@e.com y 0 0", "before@e.com x 0 0", "e.com a 0 0", "john@e.com a 0 0",
        "john@e.com b 0 0", "mary@e.com a 0 0"}},
  };
  const Lines original = {"d.com a 0 0", "john@d.com a 0 0", "john@d.com b 0 0",
                          "mary@d.com a 0 0"};
  for (const auto& c : cases) {
    for (bool batch : {false, true}) {
      SCOPED_TRACE(std::string(c.what) + (batch ? ", in a batch" : ""));
      LogRecorder log;
      HandlersDB db;
      Add("a", "john@d.com");
      Add("b", "john@d.com");
      Add("a", "mary@d.com");
      Add("a", "d.com");
      ASSERT_EQ(original, db.Table());
      // Refuses one copy (the last one inserted, after the others went in).
      Execute(db.path(), (std::string("CREATE TRIGGER refuse BEFORE INSERT ON handlers WHEN "
                                       "NEW.address = '") +
                          c.refused + "' AND NEW.name = 'a' BEGIN SELECT RAISE(ABORT, "
                                      "'refused'); END;")
                             .c_str());
      if (batch)
        tavix::sqlite::begin_transactions();
      Add("x", "before@d.com");
      EXPECT_EQ(-1, mh_db_clone(nullptr, c.old_mailname, c.old_domain, c.new_mailname,
                                c.new_domain));
      // What the batch did before and after the clone is its own.
      Add("y", "after@d.com");
      if (batch) {
        EXPECT_EQ(0, tavix::sqlite::commit_transactions());
      }
      EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Unable to add records into handlers database"));
      Lines expected = original;
      expected.insert(expected.begin(), {"after@d.com y 0 0", "before@d.com x 0 0"});
      EXPECT_EQ(expected, db.Table());

      // Once nothing refuses the copies, the same clone makes them all.
      Execute(db.path(), "DROP TRIGGER refuse;");
      EXPECT_EQ(0, mh_db_clone(nullptr, c.old_mailname, c.old_domain, c.new_mailname,
                               c.new_domain));
      Lines table = db.Table();
      for (const std::string& row : c.copied)
        EXPECT_NE(table.end(), std::find(table.begin(), table.end(), row)) << row;
      EXPECT_EQ(expected.size() + c.copied.size(), table.size());
    }
  }
}

}  // namespace
