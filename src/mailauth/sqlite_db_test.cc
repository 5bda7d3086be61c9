#include "mailauth/sqlite_db.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <chrono>
#include <functional>
#include <string>

#include "mailauth/sqlite_test_support.h"
#include "util/test_support.h"

namespace {

using namespace std::chrono_literals;
using tavix::sqlite::Database;
using tavix::sqlite::Statement;
using tavix::test::LockHolder;
using tavix::test::LogRecorder;
using tavix::test::MillisecondsOf;
using tavix::test::QueryRows;
using tavix::test::Rows;
using tavix::test::TempDir;

void IgnoreSignal(int) {}

TEST(BusySleepTest, InterruptedSleepEndsTheWait) {
  struct sigaction action = {};
  action.sa_handler = IgnoreSignal;  // no SA_RESTART: the sleep is cut short
  struct sigaction saved;
  ASSERT_EQ(0, sigaction(SIGALRM, &action, &saved));
  struct itimerval timer = {};
  timer.it_value.tv_usec = 20000;
  ASSERT_EQ(0, setitimer(ITIMER_REAL, &timer, nullptr));
  // Attempt 100000 would sleep a whole second.
  EXPECT_EQ(-1, tavix::sqlite::busy_sleep(100000));
  sigaction(SIGALRM, &saved, nullptr);
}

TEST(RetryWhileBusyTest, RepeatsOnlyBusyResults) {
  for (int result : {SQLITE_OK, SQLITE_LOCKED}) {
    int calls = 0;
    EXPECT_EQ(result, tavix::sqlite::retry_while_busy([&] {
      return ++calls < 4 && result == SQLITE_OK ? SQLITE_BUSY : result;
    }));
    EXPECT_EQ(result == SQLITE_OK ? 4 : 1, calls);
  }
}

// Under a limit a wait that never ends gives up with SQLITE_BUSY; without
// one the same operation is repeated until it answers.
TEST(RetryWhileBusyTest, LimitEndsAnEndlessWait) {
  tavix::sqlite::limit_busy_wait(20);
  int calls = 0;
  EXPECT_EQ(SQLITE_BUSY, tavix::sqlite::retry_while_busy([&] {
    ++calls;
    return SQLITE_BUSY;
  }));
  EXPECT_GT(calls, 1);
  tavix::sqlite::limit_busy_wait(0);
  calls = 0;
  EXPECT_EQ(SQLITE_OK, tavix::sqlite::retry_while_busy([&] {
    return ++calls < 50 ? SQLITE_BUSY : SQLITE_OK;
  }));
}

class SqliteDbTest : public testing::Test {
 protected:
  void SetUp() override {
    Database db;
    ASSERT_EQ(0, db.open(path_.c_str()));
    std::string message;
    ASSERT_EQ(SQLITE_OK, db.exec("CREATE TABLE t (v TEXT); INSERT INTO t VALUES ('one');",
                                 &message))
        << message;
  }

  TempDir tmp_;
  std::string path_ = tmp_.path("test.db");
  LogRecorder log_;
};

// Every failure is logged with the caller's words and SQLite's message.
TEST_F(SqliteDbTest, FailuresAreReported) {
  const std::string missing = tmp_.path("missing-dir/x.db");
  Database db;
  EXPECT_EQ(-1, db.open(missing.c_str()));
  EXPECT_EQ(-1, db.open_readonly(tmp_.path("missing.db").c_str()));
  EXPECT_EQ(nullptr, db.get());
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Unable to open database " + missing +
                                            ": unable to open database file"));
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Unable to open database(readonly) " +
                                            tmp_.path("missing.db") +
                                            ": unable to open database file"));

  ASSERT_EQ(0, db.open(path_.c_str()));
  Statement stmt;
  EXPECT_EQ(-1, stmt.prepare(db, "SELECT v FROM nowhere"));
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR,
                               "Unable to prepare SQL statement for query 'SELECT v FROM "
                               "nowhere': no such table: nowhere"));
  EXPECT_EQ(-1, stmt.prepare(db, "SELEC", "Custom %s report: %s", "prepare"));
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Custom prepare report: near \"SELEC\": syntax error"));

  ASSERT_EQ(0, stmt.prepare(db, "SELECT v FROM t WHERE v = ?"));
  EXPECT_TRUE(stmt.bind_text(1, "one", "unused %s"));
  EXPECT_FALSE(stmt.bind_text(2, "x", "Unable to bind '%s' #%d: %s", "x", 2));
  EXPECT_FALSE(stmt.bind_int(3, 7, "Unable to bind %d: %s", 7));
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Unable to bind 'x' #2: column index out of range"));
  EXPECT_TRUE(LogRecorder::Has(LOG_ERR, "Unable to bind 7: column index out of range"));
  ASSERT_EQ(SQLITE_ROW, stmt.step());
  EXPECT_STREQ("one", stmt.column_text(0));
}

// In transaction mode a statement is kept for the next prepare of its SQL,
// without the last one's bindings, and the commit still closes the
// connection and keeps every change.
TEST_F(SqliteDbTest, TransactionModeReusesStatements) {
  tavix::sqlite::begin_transactions();
  int runs = 0;
  for (const char* value : std::initializer_list<const char*>{"two", "three", nullptr}) {
    Database db;
    ASSERT_EQ(0, db.open(path_.c_str()));
    Statement insert;
    ASSERT_EQ(0, insert.prepare(db, "INSERT INTO t VALUES (?)"));
    EXPECT_EQ(runs++, sqlite3_stmt_status(insert.get(), SQLITE_STMTSTATUS_RUN, 0));
    if (value) {
      ASSERT_TRUE(insert.bind_text(1, value, "unused %s"));
    }
    ASSERT_EQ(SQLITE_DONE, insert.step());
  }
  EXPECT_EQ(0, tavix::sqlite::commit_transactions());
  EXPECT_EQ((Rows{{"one"}, {"two"}, {"three"}, {tavix::test::kNull}}),
            QueryRows(path_, "SELECT v FROM t ORDER BY rowid"));
}

// A rollback undoes everything since begin_transactions(), an operation's
// own committed transaction inside the mode included, and ends the mode: the
// next open writes at once again.
TEST_F(SqliteDbTest, RollbackUndoesTheWholeMode) {
  tavix::sqlite::begin_transactions();
  {
    Database db;
    ASSERT_EQ(0, db.open(path_.c_str()));
    for (const char* sql : {"BEGIN TRANSACTION;", "INSERT INTO t VALUES ('two')",
                            "END TRANSACTION;"}) {
      Statement stmt;
      ASSERT_EQ(0, stmt.prepare(db, sql));
      ASSERT_EQ(SQLITE_DONE, stmt.step()) << sql;
    }
  }
  EXPECT_EQ(0, tavix::sqlite::rollback_transactions());
  EXPECT_EQ(Rows{{"one"}}, QueryRows(path_, "SELECT v FROM t ORDER BY rowid"));
  Database db;
  ASSERT_EQ(0, db.open(path_.c_str()));
  std::string message;
  ASSERT_EQ(SQLITE_OK, db.exec("INSERT INTO t VALUES ('three')", &message)) << message;
  EXPECT_EQ((Rows{{"one"}, {"three"}}), QueryRows(path_, "SELECT v FROM t ORDER BY rowid"));
}

// Each primitive waits for another connection's lock, well beyond SQLite's
// own busy timeout, and then succeeds.
TEST_F(SqliteDbTest, BusyOperationsWaitForTheLock) {
  auto step = [](const char* sql) {
    return [sql](Database& db) {
      Statement stmt;
      return stmt.prepare(db, sql) != 0 ? -2 : stmt.step();
    };
  };
  const struct {
    const char* name;
    std::function<int(Database&)> run;
    int expected;
  } cases[] = {
      {"exec", [](Database& db) {
         std::string message;
         return db.exec("INSERT INTO t VALUES ('exec')", &message);
       }, SQLITE_OK},
      {"write step", step("INSERT INTO t VALUES ('step')"), SQLITE_DONE},
      {"read step", step("SELECT count(*) FROM t"), SQLITE_ROW},
  };
  for (const auto& c : cases) {
    Database db;
    ASSERT_EQ(0, db.open(path_.c_str()));
    LockHolder lock(path_, 200ms);
    ASSERT_TRUE(lock.locked());
    int rc = 0;
    long long ms = MillisecondsOf([&] { rc = c.run(db); });
    EXPECT_EQ(c.expected, rc) << c.name;
    EXPECT_GE(ms, 150) << c.name;
  }
  EXPECT_EQ((Rows{{"3"}}), QueryRows(path_, "SELECT count(*) FROM t"));
}

}  // namespace
