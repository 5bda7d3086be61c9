#include "handlers/handler_ops.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "handlers/mh_test_support.h"
#include "mailauth/sqlite_test_support.h"
#include "util/test_support.h"

namespace {

using namespace std::chrono_literals;
using tavix::handlers::Record;
using tavix::handlers::ScopedList;
using tavix::handlers::set_text;
using tavix::test::HandlersDB;
using tavix::test::LockHolder;
using tavix::test::LogRecorder;
using tavix::test::MillisecondsOf;
using tavix::test::QueryRows;
using tavix::test::Rows;
using tavix::test::Walk;
using Lines = std::vector<std::string>;

// A record of type 5, queue 5 for `name` at `address`.
Record Handler(const char* name, const char* address, int32_t type = 5) {
  Record rec(mh_data_init());
  EXPECT_TRUE(rec && set_text(&rec->name, name) && set_text(&rec->address, address) &&
              set_text(&rec->executable, "/usr/bin/handler"));
  rec->type = type;
  return rec;
}

// queue, type, enabled, priority, name, address, executable, context, protected
const char kSeed[] =
    "INSERT INTO handlers VALUES"
    "(5, 5, 1, 3, 'spam', 'u@d.com', '/bin/spam', 'c', 1),"
    "(5, 5, 2, 1, 'av', 'u@d.com', '/bin/av', 'none', 0),"
    "(5, 5, 1, 0, 'spam', 'v@sub.d.com', '/bin/spam', 'none', 0),"
    "(5, 5, 1, 0, 'spam', 'w@xd.com', '/bin/spam', 'none', 0),"
    "(5, 5, 1, 0, 'spam', 'u@other.com', '/bin/spam', 'none', 0),"
    "(5, 5, 1, 0, 'dw', 'd.com', '/bin/dw', 'none', 0),"
    "(5, 5, 1, 0, 'dw', 'sub.d.com', '/bin/dw', 'none', 0),"
    "(5, 4, 1, 0, 'g', 'all', '/bin/g', 'none', 0),"
    "(5, 4, 1, 0, 'g', 'all-recipients', '/bin/g', 'none', 0)";

// What the seed looks like through HandlersDB::Table().
const Lines kSeedTable = {
    "all g 1 0",        "all-recipients g 1 0", "d.com dw 1 0",
    "sub.d.com dw 1 0", "u@d.com av 2 0",       "u@d.com spam 1 1",
    "u@other.com spam 1 0", "v@sub.d.com spam 1 0", "w@xd.com spam 1 0",
};

// The sequences of operations by which the commands keep handlers in step
// with the addresses they serve, each on the seed above.
TEST(HandlerOpsTest, HandlersFollowTheirAddresses) {
  LogRecorder log;
  struct Case {
    const char* name;
    std::function<void()> run;
    Lines removed;
    Lines added;
  };
  auto switch_domain = [](const char* domain, int (*op)(sqlite3*, mh_data*)) {
    ScopedList list;
    EXPECT_EQ(0, mh_db_select_by_name(nullptr, list.get(), domain));
    EXPECT_EQ(0, mh_db_do(list.get(), nullptr, op));
  };
  const Case cases[] = {
      // Copies lose the protected mark; only a stored 1 stays enabled.
      {"rename mail name",
       [] {
         EXPECT_EQ(0, mh_db_clone(nullptr, "u", "d.com", "n", "d.com"));
         EXPECT_EQ(0, mh_db_remove_addr(nullptr, "u@d.com"));
       },
       {"u@d.com av 2 0", "u@d.com spam 1 1"}, {"n@d.com av 0 0", "n@d.com spam 1 0"}},
      {"add mail alias with a domain alias",
       [] {
         EXPECT_EQ(0, mh_db_clone(nullptr, "u", "d.com", "a", "x.com"));
         EXPECT_EQ(0, mh_db_clone(nullptr, "u", "d.com", "a", "d.com"));
       },
       {},
       {"a@d.com av 0 0", "a@d.com spam 1 0", "a@x.com av 0 0", "a@x.com spam 1 0"}},
      // Subdomains, look-alike domains and domain-wide rows are not the
      // domain's mail addresses.
      {"remove domain",
       [] {
         EXPECT_EQ(0, mh_db_remove_all(nullptr, "d.com"));
         EXPECT_EQ(0, mh_db_remove_addr(nullptr, "d.com"));
       },
       {"d.com dw 1 0", "u@d.com av 2 0", "u@d.com spam 1 1"}, {}},
      {"disable domain", [&] { switch_domain("d.com", mh_db_disable); },
       {"u@d.com av 2 0", "u@d.com spam 1 1"}, {"u@d.com av 0 0", "u@d.com spam 0 1"}},
      {"enable domain named by one of its addresses",
       [&] { switch_domain("postmaster@d.com", mh_db_enable); },
       {"u@d.com av 2 0"}, {"u@d.com av 1 0"}},
      {"switch by address: the domain's addresses and its own rows",
       [] { EXPECT_EQ(0, mh_db_switch_by_addr(nullptr, "d.com", false)); },
       {"d.com dw 1 0", "u@d.com av 2 0", "u@d.com spam 1 1"},
       {"d.com dw 0 0", "u@d.com av 0 0", "u@d.com spam 0 1"}},
      // Whatever address contains the old domain is copied, subdomains and
      // look-alikes too; of domain-wide rows only the domain's own.
      {"add domain alias",
       [] { EXPECT_EQ(0, mh_db_clone(nullptr, nullptr, "d.com", nullptr, "e.com")); }, {},
       {"e.com dw 1 0", "u@e.com av 0 0", "u@e.com spam 1 0", "v@e.com spam 1 0",
        "w@e.com spam 1 0"}},
      {"rename domain alias",
       [] {
         EXPECT_EQ(0, mh_db_clone(nullptr, nullptr, "sub.d.com", nullptr, "s.e.com"));
         EXPECT_EQ(0, mh_db_remove_addr(nullptr, "sub.d.com"));
       },
       {"sub.d.com dw 1 0"}, {"s.e.com dw 1 0", "v@s.e.com spam 1 0"}},
      {"remove global handler by one of its recipients",
       [] {
         Record rec = Handler("g", "all-recipients", MH_TYPE_GLOBAL);
         EXPECT_EQ(0, mh_db_remove(nullptr, rec.get()));
         EXPECT_STREQ("all", rec->address);
       },
       {"all g 1 0", "all-recipients g 1 0"}, {}},
      {"switch a record without address",
       [] {
         Record rec = Handler("dw", nullptr);
         EXPECT_EQ(0, mh_db_switch(nullptr, rec.get(), false));
         EXPECT_STREQ("all", rec->address);
       },
       {"d.com dw 1 0", "sub.d.com dw 1 0"}, {"d.com dw 0 0", "sub.d.com dw 0 0"}},
      {"remove one address's handler",
       [] {
         Record rec = Handler("spam", "U@D.com");
         EXPECT_EQ(0, mh_db_remove(nullptr, rec.get()));
       },
       {"u@d.com spam 1 1"}, {}},
      {"move address", [] { EXPECT_EQ(0, mh_db_move_addr(nullptr, "z@d.com", "w@xd.com")); },
       {"w@xd.com spam 1 0"}, {"z@d.com spam 1 0"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    HandlersDB db;
    db.Exec(kSeed);
    c.run();
    Lines expected;
    for (const std::string& row : kSeedTable) {
      if (std::find(c.removed.begin(), c.removed.end(), row) == c.removed.end())
        expected.push_back(row);
    }
    expected.insert(expected.end(), c.added.begin(), c.added.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, db.Table());
  }
}

TEST(HandlerOpsTest, AddStoresTheRecordAsTheMailSystemReadsIt) {
  LogRecorder log;
  struct Case {
    const char* address;
    int32_t type;
    const char* context;
    bool flags;  // protected and enabled
    int result;
    Rows rows;  // address, context, protected, enabled
  } const cases[] = {
      {"Foo@Example.COM", 5, nullptr, false, 0, {{"foo@example.com", "none", "0", "0"}}},
      {"u@d.com", 5, "ctx", true, 0, {{"u@d.com", "ctx", "1", "1"}}},
      {nullptr, MH_TYPE_GLOBAL, nullptr, false, 0, {{"all", "none", "0", "0"}}},
      {"all-recipients", MH_TYPE_GLOBAL, nullptr, false, 0,
       {{"all-recipients", "none", "0", "0"}}},
      {"u@d.com", MH_TYPE_GLOBAL, nullptr, false, -1, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.address ? c.address : "(null)");
    HandlersDB db;
    Record rec = Handler("h", c.address, c.type);
    ASSERT_TRUE(set_text(&rec->context, c.context));
    rec->protected_ = rec->enabled = c.flags;
    EXPECT_EQ(c.result, mh_db_add(nullptr, rec.get()));
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

TEST(HandlerOpsTest, SelectGivesTheEnabledHandlersOfTheKey) {
  LogRecorder log;
  HandlersDB db;
  db.Exec("INSERT INTO handlers VALUES"
          "(5, 5, 1, 1, 'p1', 'u@d.com', '/bin/p1', 'c1', 0),"
          "(5, 5, 1, 3, 'p3', 'u@d.com', '/bin/p3', 'c3', 0),"
          "(5, 5, 1, 2, 'p2', 'u@d.com', '/bin/p2', 'c2', 0),"
          "(5, 5, 0, 9, 'off', 'u@d.com', '/bin/off', 'none', 0),"
          "(6, 5, 1, 9, 'queue6', 'u@d.com', '/bin/q', 'none', 0),"
          "(5, 4, 1, 0, 'g', 'all', '/bin/g', 'none', 0)");
  struct Case {
    const char* address;
    int32_t type;
    int result;
    Lines found;  // name, executable, context, from the list's head
  } const cases[] = {
      // Read highest priority first, so the list holds the lowest first.
      {"u@d.com", 5, 0, {"p1 /bin/p1 c1", "p2 /bin/p2 c2", "p3 /bin/p3 c3"}},
      {nullptr, MH_TYPE_GLOBAL, 0, {"g /bin/g none"}},
      {"all-recipients", MH_TYPE_GLOBAL, 0, {}},
      {"", MH_TYPE_GLOBAL, -1, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.address ? c.address : "(null)");
    LogRecorder::lines().clear();
    Record key = Handler(nullptr, c.address, c.type);
    key->enabled = true;
    ScopedList list;
    EXPECT_EQ(c.result, mh_db_select(nullptr, list.get(), key.get()));
    EXPECT_EQ(c.found, Walk(list.get(), [](const mh_data& d) {
                return std::string(d.name) + " " + d.executable + " " + d.context;
              }));
    if (c.result != 0) {
      EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Incorrect recipient address for global handler `'"));
    }
  }
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

// Another run holding the database makes an operation wait, not fail.
TEST(HandlerOpsTest, OperationWaitsForABusyDatabase) {
  LogRecorder log;
  HandlersDB db;
  Record rec = Handler("h", "u@d.com");
  int result = -1;
  long long ms;
  {
    LockHolder lock(db.path(), 300ms);
    ASSERT_TRUE(lock.locked());
    ms = MillisecondsOf([&] { result = mh_db_add(nullptr, rec.get()); });
  }
  EXPECT_EQ(0, result);
  EXPECT_GE(ms, 200);
  EXPECT_EQ((Lines{"u@d.com h 0 0"}), db.Table());
}

// How many of this process's descriptors refer to `path`.
int DescriptorsOf(const std::string& path) {
  const std::filesystem::path wanted = std::filesystem::canonical(path);
  int count = 0;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;  // the iterator's own descriptor, closed by now
    count += std::filesystem::read_symlink(fd.path(), gone) == wanted;
  }
  return count;
}

// Each operation uses the connection it is given and leaves it open; given
// none, it opens its own and closes it again, also when it fails.
TEST(HandlerOpsTest, OperationsUseTheGivenConnectionOrCloseTheirOwn) {
  LogRecorder log;
  using Op = std::function<int(sqlite3*)>;
  auto with_record = [](int (*op)(sqlite3*, mh_data*)) {
    return [op](sqlite3* db) { return op(db, Handler("spam", "u@d.com").get()); };
  };
  auto select_by_name = [](sqlite3* db) {
    ScopedList list;
    return mh_db_select_by_name(db, list.get(), "d.com");
  };
  auto select = [](sqlite3* db) {
    ScopedList list;
    return mh_db_select(db, list.get(), Handler(nullptr, "u@d.com").get());
  };
  auto batch = [](sqlite3* db) {
    ScopedList list;
    mh_list_add(list.get(), Handler("new", "n@d.com").get());
    return mh_db_do(list.get(), db, mh_db_add);
  };
  const std::pair<const char*, Op> ops[] = {
      {"add", with_record(mh_db_add)},
      {"enable", with_record(mh_db_enable)},
      {"switch by address", [](sqlite3* db) { return mh_db_switch_by_addr(db, "d.com", true); }},
      {"remove all", [](sqlite3* db) { return mh_db_remove_all(db, "d.com"); }},
      {"clone address", [](sqlite3* db) { return mh_db_clone(db, "u", "d.com", "a", "d.com"); }},
      {"clone domain",
       [](sqlite3* db) { return mh_db_clone(db, nullptr, "d.com", nullptr, "e.com"); }},
      {"select by name", select_by_name},
      {"select", select},
      {"batch", batch},
  };
  for (const auto& [name, op] : ops) {
    SCOPED_TRACE(name);
    HandlersDB db;
    db.Exec(kSeed);

    sqlite3* given = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(db.path().c_str(), &given));
    // An operation that opened the database itself would find nothing there.
    const char* saved = mh_db_path;
    mh_db_path_set("/nonexistent/handlers.db");
    EXPECT_EQ(0, op(given));
    mh_db_path_set(saved);
    EXPECT_EQ(1, DescriptorsOf(db.path()));
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(given, "SELECT 1 FROM handlers", nullptr, nullptr, nullptr));
    EXPECT_EQ(SQLITE_OK, sqlite3_close(given));

    EXPECT_EQ(0, op(nullptr));
    EXPECT_EQ(0, DescriptorsOf(db.path()));

    db.Exec("DROP TABLE handlers");
    op(nullptr);
    EXPECT_EQ(0, DescriptorsOf(db.path())) << "after a failure";
  }
}

}  // namespace
