#include "mailauth/sqlite_db.h"

#include <errno.h>
#include <string.h>
#include <time.h>

#include <map>
#include <memory>

namespace tavix {
namespace sqlite {

namespace {

// The connections of transaction mode, by path as given, and the
// statements prepared on them that no Statement holds now.
struct Shared {
  bool active = false;
  std::map<std::string, std::unique_ptr<Database>> connections;
  std::multimap<std::pair<sqlite3*, std::string>, sqlite3_stmt*> idle;
};

Shared& shared() {
  static Shared state;
  return state;
}

// Inside the mode's transaction an operation's own one nests.
const char* nested_sql(sqlite3* db, const char* sql) {
  if (!shared().active || db == nullptr || sqlite3_get_autocommit(db))
    return sql;
  if (strcmp(sql, "BEGIN TRANSACTION;") == 0)
    return "SAVEPOINT operation;";
  if (strcmp(sql, "END TRANSACTION;") == 0)
    return "RELEASE operation;";
  // Undoes the operation alone, not the whole run's work; the savepoint
  // stays open until released.
  if (strcmp(sql, "ROLLBACK TRANSACTION;") == 0)
    return "ROLLBACK TO operation;";
  return sql;
}

bool is_shared(sqlite3* db) {
  if (!shared().active || db == nullptr)
    return false;
  for (const auto& entry : shared().connections) {
    if (entry.second->get() == db)
      return true;
  }
  return false;
}

// A kept statement of `db` for `sql`, taken out of the idle ones; null
// when there is none.
sqlite3_stmt* take_idle(sqlite3* db, const std::string& sql) {
  auto& idle = shared().idle;
  auto found = idle.find(std::make_pair(db, sql));
  if (found == idle.end())
    return nullptr;
  sqlite3_stmt* stmt = found->second;
  idle.erase(found);
  return stmt;
}

}  // namespace

void begin_transactions() { shared().active = true; }

bool holds_file(const struct stat& file) {
  static const char* const kSuffixes[] = {"", "-journal", "-wal", "-shm"};
  for (const auto& entry : shared().connections) {
    const char* name = sqlite3_db_filename(entry.second->get(), "main");
    if (name == nullptr)
      continue;
    for (const char* suffix : kSuffixes) {
      struct stat kept;
      if (stat((std::string(name) + suffix).c_str(), &kept) == 0 &&
          kept.st_dev == file.st_dev && kept.st_ino == file.st_ino)
        return true;
    }
  }
  return false;
}

namespace {

// Ends transaction mode with `sql` ("COMMIT" or "ROLLBACK") on each
// connection. A connection closed with its transaction still open (its
// COMMIT failed) rolls it back.
int end_transactions(const char* sql, const char* failure_format) {
  Shared& state = shared();
  // A connection with statements left unfinalized would not close.
  for (auto& entry : state.idle)
    sqlite3_finalize(entry.second);
  state.idle.clear();
  int result = 0;
  for (auto& entry : state.connections) {
    std::string message;
    if (entry.second->exec(sql, &message) != SQLITE_OK) {
      tavix_log(LOG_ERR, failure_format, entry.first.c_str(), message.c_str());
      result = -1;
    }
    entry.second->close();
  }
  state.connections.clear();
  state.active = false;
  return result;
}

}  // namespace

int commit_transactions() {
  return end_transactions("COMMIT", "Unable to commit the changes of %s: %s");
}

int rollback_transactions() {
  return end_transactions("ROLLBACK", "Unable to roll back the changes of %s: %s");
}

namespace {
long g_busy_limit_ms = 0;
}  // namespace

void limit_busy_wait(long ms) { g_busy_limit_ms = ms > 0 ? ms : 0; }

struct timespec busy_clock() {
  struct timespec now = {0, 0};
  // CLOCK_MONOTONIC cannot fail on Linux; a zero start only shortens a wait.
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

bool busy_wait_exhausted(const struct timespec& start) {
  if (g_busy_limit_ms == 0)
    return false;
  struct timespec now = busy_clock();
  long long elapsed_ms = (static_cast<long long>(now.tv_sec) - start.tv_sec) * 1000LL +
                         (now.tv_nsec - start.tv_nsec) / 1000000L;
  return elapsed_ms >= g_busy_limit_ms;
}

int busy_sleep(unsigned attempt) {
  long long delay = static_cast<long long>(attempt) * kBusyDelayStepNs;
  struct timespec pause;
  pause.tv_sec = static_cast<time_t>(delay / 1000000000LL);
  pause.tv_nsec = static_cast<long>(delay % 1000000000LL);
  return nanosleep(&pause, nullptr) == 0 ? 0 : -1;
}

const char* errmsg(sqlite3* db) {
  return db ? sqlite3_errmsg(db) : "general DB errror";
}

int Database::open(const char* path) {
  if (shared().active)
    return open_shared(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                       "Unable to open database %s: %s");
  return open_with(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                   "Unable to open database %s: %s");
}

int Database::open_readonly(const char* path) {
  // The mode's connection writes for later commands: it is not held to
  // queries, and this run's queries see what it wrote.
  if (shared().active)
    return open_shared(path, SQLITE_OPEN_READWRITE, "Unable to open database(readonly) %s: %s");
  // Opened for writing but held to queries: a writer killed mid-commit
  // leaves a hot journal that only a writable connection can roll back, and
  // a read-only one would fail until some other run wrote to the database.
  if (open_with(path, SQLITE_OPEN_READWRITE, "Unable to open database(readonly) %s: %s") != 0)
    return -1;
  std::string message;
  if (exec("PRAGMA query_only = ON", &message) != SQLITE_OK) {
    tavix_log(LOG_ERR, "Unable to open database(readonly) %s: %s", path, message.c_str());
    close();
    return -1;
  }
  return 0;
}

int Database::open_never_writing(const char* path) {
  return open_with(path, SQLITE_OPEN_READONLY, "Unable to open database(readonly) %s: %s");
}

int Database::open_shared(const char* path, int flags, const char* failure_format) {
  close();
  auto& connections = shared().connections;
  auto found = connections.find(path);
  if (found == connections.end()) {
    auto db = std::make_unique<Database>();
    if (db->open_with(path, flags, failure_format) != 0)
      return -1;
    // Inside the long transaction each statement keeps a journal of its own
    // changes, to undo them alone should it fail; SQLite moves a large one
    // into a temporary file, and a server need not offer it a directory for
    // that (nor may the working directory a command left matter).
    std::string message;
    if (db->exec("PRAGMA temp_store = MEMORY", &message) != SQLITE_OK ||
        db->exec("BEGIN IMMEDIATE", &message) != SQLITE_OK) {
      tavix_log(LOG_ERR, failure_format, path, message.c_str());
      return -1;
    }
    found = connections.emplace(path, std::move(db)).first;
  }
  borrow(found->second->get());
  return 0;
}

int Database::open_with(const char* path, int flags, const char* failure_format) {
  close();
  if (sqlite3_open_v2(path, &db_, flags, nullptr) != SQLITE_OK) {
    tavix_log(LOG_ERR, failure_format, path, errmsg());
    close();
    return -1;
  }
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
  return 0;
}

int Database::exec(const char* sql, std::string* message) {
  message->clear();
  int rc = retry_while_busy([&] {
    char* text = nullptr;
    int result = sqlite3_exec(db_, sql, nullptr, nullptr, &text);
    // Only the last attempt's message is of interest.
    message->assign(text ? text : "");
    sqlite3_free(text);
    return result;
  });
  return rc;
}

int Database::close() {
  if (borrowed_) {
    db_ = nullptr;
    borrowed_ = false;
  }
  if (!db_)
    return SQLITE_OK;
  int rc = retry_while_busy([&] { return sqlite3_close(db_); });
  // A close that failed for good leaves the handle to the process's end;
  // using it again would be worse than leaking it.
  db_ = nullptr;
  return rc;
}

int Statement::prepare(const Database& db, const char* sql) {
  if (prepare_quietly(db, sql) == SQLITE_OK)
    return 0;
  return fail("Unable to prepare SQL statement for query '%s': %s", sql);
}

int Statement::prepare_quietly(const Database& db, const char* sql) {
  release();
  db_ = db.get();
  sql = nested_sql(db_, sql);
  reusable_ = is_shared(db_);
  if (reusable_) {
    sql_ = sql;
    if ((stmt_ = take_idle(db_, sql_)) != nullptr)
      return SQLITE_OK;
  }
  return retry_while_busy([&] { return sqlite3_prepare_v2(db_, sql, -1, &stmt_, nullptr); });
}

void Statement::release() {
  if (stmt_ && reusable_ && is_shared(db_)) {
    // What the last step reported is the caller's business, not the reset's.
    (void)sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    shared().idle.emplace(std::make_pair(db_, sql_), stmt_);
  } else {
    sqlite3_finalize(stmt_);
  }
  stmt_ = nullptr;
  reusable_ = false;
}

int Statement::step() {
  return retry_while_busy([&] {
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_BUSY)
      sqlite3_reset(stmt_);
    return rc;
  });
}

}  // namespace sqlite
}  // namespace tavix
