// SQLite access shared by the program's databases: owners of a connection
// and of a prepared statement, and the busy rule.
//
// Several runs of the utility (and the mail server's authentication side)
// use a database at the same time, so every exec, prepare, step and close
// that SQLite answers with SQLITE_BUSY is tried again, without limit, after
// a short sleep that grows with each attempt. The only way out of a busy
// wait is a signal interrupting the sleep; the operation then gives -1,
// which no SQLite result code equals.
#ifndef DRAVNIK_MAILAUTH_SQLITE_DB_H_
#define DRAVNIK_MAILAUTH_SQLITE_DB_H_

#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>

#include <string>

#include "util/log.h"

namespace tavix {
namespace sqlite {

// Set on every connection: SQLite itself waits this long for a lock before
// answering SQLITE_BUSY.
constexpr int kBusyTimeoutMs = 50;
// Each retry sleeps this much longer than the one before; the first none.
constexpr long kBusyDelayStepNs = 10000;

// Sleeps before busy retry number `attempt` (0 for the first):
// attempt * kBusyDelayStepNs. 0, or -1 when a signal cut the sleep short.
int busy_sleep(unsigned attempt);

// A program that must answer within a bounded time (the mailbox login
// check, which a mail server waits on) gives up a busy wait once it has
// lasted `ms` milliseconds: the operation then gives SQLITE_BUSY. 0, the
// default, waits without limit, as the commands do.
void limit_busy_wait(long ms);

// Whether a busy wait that began at `start` (CLOCK_MONOTONIC) has used up
// the limit of limit_busy_wait(); never true without one.
bool busy_wait_exhausted(const struct timespec& start);
// CLOCK_MONOTONIC now.
struct timespec busy_clock();

// Calls `op` until it gives something other than SQLITE_BUSY, sleeping
// before each retry; its last result, or -1 when a sleep was interrupted.
// Under a limit of limit_busy_wait() it gives SQLITE_BUSY once the limit
// is used up.
template <class Op>
int retry_while_busy(Op op) {
  struct timespec start = {0, 0};
  for (unsigned attempt = 0;; ++attempt) {
    int rc = op();
    if (rc != SQLITE_BUSY)
      return rc;
    if (attempt == 0)
      start = busy_clock();
    else if (busy_wait_exhausted(start))
      return SQLITE_BUSY;
    if (busy_sleep(attempt) != 0)
      return -1;
  }
}

// SQLite's message for `db`, or "general DB errror" when there is no
// connection to ask.
const char* errmsg(sqlite3* db);

// Transaction mode, for a run that applies many commands in a row: from
// begin_transactions() on, every open() and open_readonly() of a path gets
// the one connection this process keeps for it, opened on first use with a
// transaction (BEGIN IMMEDIATE: it writes, so it takes the write lock at
// once instead of meeting another writer half-way), and close() only lets
// go of it. An operation's own BEGIN TRANSACTION and END TRANSACTION
// become a savepoint inside it, and its ROLLBACK TRANSACTION a rollback to
// that savepoint (which it then still has to end). commit_transactions() commits and closes
// each connection and ends the mode. A process killed before that leaves
// the databases as they were at begin_transactions().
void begin_transactions();
// 0, or -1 after logging a connection whose commit failed (the others are
// committed).
int commit_transactions();
// Ends the mode undoing every change made in it, for a run whose other
// writes failed: the databases stay as they were at begin_transactions().
// 0, or -1 after logging (closing the connection undoes it then).
int rollback_transactions();
// Whether `file` (as fstat() gives it) is the database or a journal of a
// connection that transaction mode keeps: SQLite keeps those descriptors
// open across operations on purpose.
bool holds_file(const struct stat& file);

// Owns a database connection; the destructor closes it under the busy rule.
class Database {
 public:
  Database() = default;
  ~Database() { close(); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Opens `path` for reading and writing, creating the file when missing.
  // 0, or -1 after logging "Unable to open database ...".
  int open(const char* path);
  // Opens an existing `path` for reading only. 0, or -1 after logging
  // "Unable to open database(readonly) ...".
  int open_readonly(const char* path);
  // Opens an existing `path` with SQLite's read-only flag, for a program
  // that must never write it, not even to roll back a killed writer's
  // journal (its reads then fail until the next writer has done that).
  // 0, or -1 after logging "Unable to open database(readonly) ...".
  int open_never_writing(const char* path);

  // sqlite3_exec() under the busy rule. On failure `*message` receives
  // SQLite's text for it, empty when SQLite gave none.
  int exec(const char* sql, std::string* message);

  // Works on a connection that someone else opened and will close:
  // close() then only lets go of it.
  void borrow(sqlite3* db) {
    close();
    db_ = db;
    borrowed_ = true;
  }

  // Closes the connection under the busy rule: SQLITE_OK (also when none
  // was open, or it was borrowed), or what the close gave.
  int close();

  sqlite3* get() const { return db_; }
  const char* errmsg() const { return sqlite::errmsg(db_); }

 private:
  int open_with(const char* path, int flags, const char* failure_format);
  int open_shared(const char* path, int flags, const char* failure_format);

  sqlite3* db_ = nullptr;
  bool borrowed_ = false;
};

// Owns a prepared statement; the destructor finalizes it. A Statement must
// end before the Database it was prepared on, so that the close does not
// find the connection busy with it: declare it after the Database.
// On a connection of transaction mode the statement is kept instead, reset,
// for the next prepare of the same SQL (a batch runs the same few queries
// thousands of times); commit_transactions() finalizes the kept ones.
class Statement {
 public:
  Statement() = default;
  ~Statement() { release(); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  // Prepares `sql` under the busy rule. 0, or -1 after logging "Unable to
  // prepare SQL statement for query '<sql>': <SQLite's message>".
  int prepare(const Database& db, const char* sql);
  // The same with the caller's report of a failure, see bind_text().
  template <class... Args>
  int prepare(const Database& db, const char* sql, const char* format, Args... args) {
    if (prepare_quietly(db, sql) == SQLITE_OK)
      return 0;
    return fail(format, args...);
  }

  // The binds give true, or false after logging `format` with `args`
  // followed by SQLite's message: the format's last conversion is that
  // message, so that each caller keeps its own wording.

  // Binds text, SQL NULL for a null `value`.
  template <class... Args>
  bool bind_text(int index, const char* value, const char* format, Args... args) {
    return bound(sqlite3_bind_text(stmt_, index, value, -1, SQLITE_TRANSIENT), format,
                 args...);
  }
  // Binds the first `length` bytes of `value`.
  template <class... Args>
  bool bind_prefix(int index, const char* value, int length, const char* format,
                   Args... args) {
    return bound(sqlite3_bind_text(stmt_, index, value, length, SQLITE_TRANSIENT), format,
                 args...);
  }
  template <class... Args>
  bool bind_int(int index, sqlite3_int64 value, const char* format, Args... args) {
    return bound(sqlite3_bind_int64(stmt_, index, value), format, args...);
  }

  // sqlite3_step() under the busy rule; a busy step is reset before it is
  // tried again. SQLITE_ROW, SQLITE_DONE, an error code, or -1.
  int step();

  // Column access of the current row; text is null for SQL NULL and stays
  // valid until the next step.
  const char* column_text(int column) const {
    return reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
  }
  sqlite3_int64 column_int(int column) const { return sqlite3_column_int64(stmt_, column); }

  // Logs at error level `format` with `args` followed by SQLite's message
  // for this statement's connection; gives -1.
  template <class... Args>
  int fail(const char* format, Args... args) const {
    tavix_log(LOG_ERR, format, args..., errmsg());
    return -1;
  }

  const char* errmsg() const { return sqlite::errmsg(db_); }
  sqlite3_stmt* get() const { return stmt_; }

 private:
  int prepare_quietly(const Database& db, const char* sql);
  void release();
  template <class... Args>
  bool bound(int rc, const char* format, Args... args) {
    if (rc == SQLITE_OK)
      return true;
    fail(format, args...);
    return false;
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt* stmt_ = nullptr;
  // Prepared on a connection of transaction mode, from this SQL.
  bool reusable_ = false;
  std::string sql_;
};

}  // namespace sqlite
}  // namespace tavix

#endif  // DRAVNIK_MAILAUTH_SQLITE_DB_H_
