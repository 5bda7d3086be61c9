// Helpers for the database tests: reading rows with a connection of the
// test's own, and a second connection that keeps a database locked for a
// while, as a concurrent run of the program would.
#ifndef DRAVNIK_MAILAUTH_SQLITE_TEST_SUPPORT_H_
#define DRAVNIK_MAILAUTH_SQLITE_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace tavix {
namespace test {

using Row = std::vector<std::string>;
using Rows = std::vector<Row>;

// Text shown for SQL NULL.
inline const char* const kNull = "<NULL>";

// Every row of `sql` on the database at `path`, each column as text.
inline Rows QueryRows(const std::string& path, const std::string& sql) {
  Rows rows;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << "cannot open " << path << ": " << sqlite3_errmsg(db);
    sqlite3_close(db);
    return rows;
  }
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
  } else {
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      Row row;
      for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
        const unsigned char* text = sqlite3_column_text(stmt, i);
        row.push_back(text ? reinterpret_cast<const char*>(text) : kNull);
      }
      rows.push_back(row);
    }
    if (rc != SQLITE_DONE)
      ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return rows;
}

// Holds an exclusive lock on a database from construction until `hold`
// has passed (released by a thread of its own, so that the test's thread
// can meanwhile run the operation that must wait for it).
class LockHolder {
 public:
  LockHolder(const std::string& path, std::chrono::milliseconds hold) {
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK ||
        sqlite3_exec(db_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << "cannot lock " << path << ": " << sqlite3_errmsg(db_);
      return;
    }
    locked_ = true;
    releaser_ = std::thread([this, hold] {
      std::this_thread::sleep_for(hold);
      sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    });
  }
  ~LockHolder() {
    if (releaser_.joinable())
      releaser_.join();
    sqlite3_close(db_);
  }
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

  bool locked() const { return locked_; }

 private:
  sqlite3* db_ = nullptr;
  bool locked_ = false;
  std::thread releaser_;
};

// Milliseconds that `body` took.
template <class Body>
long long MillisecondsOf(Body body) {
  auto start = std::chrono::steady_clock::now();
  body();
  auto end = std::chrono::steady_clock::now();
  return std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count();
}

}  // namespace test
}  // namespace tavix

#endif  // DRAVNIK_MAILAUTH_SQLITE_TEST_SUPPORT_H_
