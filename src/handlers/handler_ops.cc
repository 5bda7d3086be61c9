#include "handlers/handler_ops.h"

#include <errno.h>
#include <string.h>
#include <syslog.h>

#include <initializer_list>
#include <string>
#include <utility>

#include "handlers/mh_sqlite.h"
#include "util/log.h"

namespace {

using tavix::handlers::Connection;
using tavix::handlers::Record;
using tavix::handlers::ScopedList;
using tavix::handlers::Statement;

// One-address statements compare the address exactly; the domain-wide ones
// find candidates with LIKE and filter them afterwards.
const char kInsert[] =
    "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, executable, context, protected, enabled) VALUES(?, ?, ?, LOWER(?), ?, ?, ?, ?, ?)";
const char kDeleteAddress[] =
    "DELETE FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND queue=?";
const char kDeleteAll[] = "DELETE FROM handlers WHERE name=? AND type=? AND queue=?";
const char kSwitchAddress[] =
    "UPDATE OR REPLACE handlers SET enabled=? WHERE name=? AND type=? AND queue=? AND address=?";
const char kSwitchAll[] =
    "UPDATE OR REPLACE handlers SET enabled=? WHERE name=? AND type=? AND queue=?";
const char kSwitchByName[] = "UPDATE OR REPLACE handlers SET enabled=? WHERE name=?";
const char kSwitchByAddr[] = "UPDATE OR REPLACE handlers SET enabled=? WHERE address=?";
const char kMoveAddr[] = "UPDATE OR REPLACE handlers SET address=? WHERE address=?";
const char kRemoveAddr[] = "DELETE FROM handlers WHERE address=?";
const char kRemoveName[] = "DELETE FROM handlers WHERE name=?";
const char kCloneAddress[] =
    "SELECT priority, type, queue, name, executable, context, enabled FROM handlers WHERE address=?";
const char kCloneDomain[] =
    "SELECT priority, type, queue, name, executable, context, enabled, address FROM handlers WHERE address LIKE '%' || ? || '%'";
const char kSelectByDomain[] =
    "SELECT priority, type, queue, name, address, executable, context, enabled FROM handlers WHERE address LIKE '%' || ? || '%'";
const char kSelect[] =
    "SELECT executable, context, name FROM handlers WHERE queue=? AND type=? AND enabled=? AND address=? ORDER BY priority DESC";
const char kBegin[] = "BEGIN TRANSACTION;";
const char kEnd[] = "END TRANSACTION;";
const char kRollback[] = "ROLLBACK TRANSACTION;";

// Names of the statements in bind failure reports.
const char kInsertQuery[] = "the 'INSERT' query";
const char kDeleteQuery[] = "the 'DELETE' query";
const char kUpdateQuery[] = "the 'UPDATE' query";
const char kSelectQuery[] = "the 'SELECT' query";

const char kInsertFailed[] = "Unable to execute insert record into handlers database: %s";
const char kDeleteFailed[] = "Unable to execute delete record from handlers database: %s";
const char kUpdateFailed[] = "Unable to execute update record into handlers database: %s";
const char kCopyFailed[] = "Unable to add records into handlers database";

const char kAll[] = "all";
const char kAllRecipients[] = "all-recipients";

// Addresses travel through the rest of the program in buffers of this size.
constexpr size_t kAddressBuffer = 502;

// One statement parameter and the name its bind failure report gives it.
struct Param {
  const char* name;
  bool is_text;
  const char* text;
  sqlite3_int64 number;
};

Param Text(const char* name, const char* value) { return {name, true, value, 0}; }
Param Int(const char* name, sqlite3_int64 value) { return {name, false, nullptr, value}; }

// Binds `params` in order; false after the first failure was logged.
bool bind_all(Statement& stmt, const char* query, std::initializer_list<Param> params) {
  const char* const format = "Unable to bind parameter %s to %s: %s";
  int index = 1;
  for (const Param& p : params) {
    bool ok = p.is_text ? stmt.bind_text(index, p.text, format, p.name, query)
                        : stmt.bind_int(index, p.number, format, p.name, query);
    if (!ok)
      return false;
    ++index;
  }
  return true;
}

// Runs one statement that returns no rows, on `given` or on a connection of
// its own. 0, or -1 after logging; a step that does not end with done is
// reported with `failure`.
int execute(sqlite3* given, const char* sql, const char* query,
            std::initializer_list<Param> params, const char* failure) {
  Connection db;
  if (db.open(given) != 0)
    return -1;
  Statement stmt;
  if (stmt.prepare(db, sql) != 0 || !bind_all(stmt, query, params))
    return -1;
  if (stmt.step() != SQLITE_DONE)
    return stmt.fail(failure);
  return 0;
}

// Steps `stmt` through its rows, handing each to `take`, which gives 0 to
// go on. 0 when the rows ran out; -1 when `take` failed, or after logging
// `failure` when the step did.
template <class Take>
int for_each_row(Statement& stmt, const char* failure, Take take) {
  int rc;
  while ((rc = stmt.step()) == SQLITE_ROW) {
    if (take() != 0)
      return -1;
  }
  if (rc != SQLITE_DONE)
    return stmt.fail(failure);
  return 0;
}

// Where the fields of a record are in a row; -1 for those it lacks.
struct Columns {
  int priority, type, queue, name, address, executable, context, enabled;
};
constexpr Columns kCloneColumns = {0, 1, 2, 3, -1, 4, 5, 6};
constexpr Columns kByDomainColumns = {0, 1, 2, 3, 4, 5, 6, 7};
constexpr Columns kSelectColumns = {-1, -1, -1, 2, -1, 0, 1, -1};

// A record of the current row, the defaults where the row has no column;
// null when it cannot be allocated.
Record read_row(const Statement& stmt, const Columns& at) {
  Record rec(mh_data_init());
  if (!rec)
    return rec;
  auto number = [&](int column, int32_t* field) {
    if (column >= 0)
      *field = static_cast<int32_t>(stmt.column_int(column));
  };
  auto text = [&](int column, char** field) {
    if (column >= 0)
      tavix::handlers::set_text(field, stmt.column_text(column));
  };
  number(at.priority, &rec->priority);
  number(at.type, &rec->type);
  number(at.queue, &rec->queue);
  text(at.name, &rec->name);
  text(at.address, &rec->address);
  text(at.executable, &rec->executable);
  text(at.context, &rec->context);
  if (at.enabled >= 0)
    rec->enabled = stmt.column_int(at.enabled) != 0;
  return rec;
}

// Hands `rec` to `list`. 0, or -1 after logging.
int save(mh_list* list, Record rec) {
  if (rec && tavix::handlers::list_take(list, std::move(rec)) == 0)
    return 0;
  tavix_log(LOG_ERR, "Unable to save the data from SELECT query");
  return -1;
}

bool is_all_recipients(const char* address) {
  return strcmp(address, kAll) == 0 || strcmp(address, kAllRecipients) == 0;
}

// Whether `rec` stands for one address. A global record, or one without an
// address, stands for every address of its name, type and queue, and says
// so by the address "all". 1, 0, or -1 after logging.
int names_one_address(mh_data* rec) {
  if (rec->type != MH_TYPE_GLOBAL && rec->address && *rec->address &&
      strcmp(rec->address, kAll) != 0)
    return 1;
  if (!tavix::handlers::set_text(&rec->address, kAll)) {
    tavix_log(LOG_ERR, "System error: %s", strerror(errno));
    return -1;
  }
  return 0;
}

// Stops the program when `text` does not fit an address buffer: a longer
// name is a caller's error that must not go on silently cut.
void check_length(const char* what, const std::string& text) {
  if (text.size() < kAddressBuffer)
    return;
  errno = 0;
  messlog2(1, 0, "%s is too long: %s", what, text.c_str());
}

// A copy at `new_address` of the handler in the current row of a clone
// select. Copies are never protected, and only a stored 1 counts as
// enabled. Null when memory runs out.
Record copy_of_row(const Statement& stmt, const std::string& new_address) {
  Record rec = read_row(stmt, kCloneColumns);
  if (!rec)
    return rec;
  rec->enabled = stmt.column_int(kCloneColumns.enabled) == 1;
  if (!tavix::handlers::set_text(&rec->address, new_address.c_str()))
    rec.reset();
  return rec;
}

// The copies of the handlers of old_address at new_address.
int select_address_copies(const Connection& db, mh_list* out, const std::string& old_address,
                          const std::string& new_address) {
  Statement stmt;
  if (stmt.prepare(db, kCloneAddress) != 0 ||
      !bind_all(stmt, kSelectQuery, {Text("'address'", old_address.c_str())}))
    return -1;
  return for_each_row(stmt, "Unable to select data from handlers database: %s", [&] {
    return save(out, copy_of_row(stmt, new_address));
  });
}

// The copies at `new_domain` of the handlers of every address containing
// `old_domain`, and of the domain-wide ones of `old_domain`. An address of
// another domain that merely contains the text (a subdomain's, say) is
// copied to the new domain as well.
int select_domain_copies(const Connection& db, mh_list* out, const char* old_domain,
                         const char* new_domain) {
  Statement stmt;
  if (stmt.prepare(db, kCloneDomain) != 0 ||
      !bind_all(stmt, kSelectQuery, {Text("'address'", old_domain)}))
    return -1;
  return for_each_row(stmt, "Unable to select data from handlers database: %s", [&] {
    const char* address = stmt.column_text(7);
    const char* at = address ? strchr(address, '@') : nullptr;
    std::string new_address;
    if (at)
      new_address.assign(address, at).append("@").append(new_domain);
    else if (address && strcmp(address, old_domain) == 0)
      new_address = new_domain;
    else
      return 0;
    return save(out, copy_of_row(stmt, new_address));
  });
}

// Undoes what the open transaction of `db` did. A failed write may have
// ended it already: SQLite rolls back by itself after an I/O error or a
// full disk, and a second rollback would only fail.
void roll_back(const Connection& db) {
  if (sqlite3_get_autocommit(db.get()))
    return;
  if (execute(db.get(), kRollback, nullptr, {}, "Unable to roll back sqlite transaction: %s") != 0)
    return;
  // Inside a longer transaction of the process the operation's own is a
  // savepoint, which stays open after being rolled back to.
  if (!sqlite3_get_autocommit(db.get()))
    execute(db.get(), kEnd, nullptr, {}, "Unable to end sqlite transaction: %s");
}

// Like mh_db_do(), but all or nothing: the transaction is committed only
// when `op` succeeded for every record, and rolled back otherwise. A copy
// that is about to replace the originals must not arrive in part.
int apply_to_all(mh_list* list, sqlite3* given, int (*op)(sqlite3*, mh_data*)) {
  Connection db;
  if (db.open(given) != 0)
    return -1;
  if (execute(db.get(), kBegin, nullptr, {}, "Unable to begin sqlite transaction: %s") != 0)
    return -1;
  for (mh_list_node* node = list->head; node; node = node->next) {
    if (op(db.get(), node->data) != 0) {
      roll_back(db);
      return -1;
    }
  }
  if (execute(db.get(), kEnd, nullptr, {}, "Unable to end sqlite transaction: %s") != 0) {
    // A commit that failed before its end leaves the transaction open.
    roll_back(db);
    return -1;
  }
  return 0;
}

}  // namespace

int mh_db_add(sqlite3* db, mh_data* rec) {
  const char* address = rec->address;
  if (rec->type == MH_TYPE_GLOBAL) {
    address = validate_global_handler_recipient(address);
    if (!address)
      return -1;
  }
  const char* context = rec->context ? rec->context : "none";
  // The executable's bind failure has always been reported under the name
  // 'address'; the report keeps its wording.
  return execute(db, kInsert, kInsertQuery,
                 {Int("'priority'", rec->priority), Text("'name'", rec->name),
                  Int("'type'", rec->type), Text("'address'", address), Int("'queue'", rec->queue),
                  Text("'address'", rec->executable), Text("'context'", context),
                  Int("'protect_on_restore'", rec->protected_), Int("'enabled'", rec->enabled)},
                 kInsertFailed);
}

int mh_db_remove(sqlite3* db, mh_data* rec) {
  int one = names_one_address(rec);
  if (one < 0)
    return -1;
  if (one)
    return execute(db, kDeleteAddress, kDeleteQuery,
                   {Text("'name'", rec->name), Int("'type'", rec->type),
                    Text("'address'", rec->address), Int("'queue'", rec->queue)},
                   kDeleteFailed);
  return execute(db, kDeleteAll, kDeleteQuery,
                 {Text("'name'", rec->name), Int("'type'", rec->type), Int("'queue'", rec->queue)},
                 kDeleteFailed);
}

int mh_db_switch(sqlite3* db, mh_data* rec, bool enabled) {
  int one = names_one_address(rec);
  if (one < 0)
    return -1;
  if (one)
    return execute(db, kSwitchAddress, kUpdateQuery,
                   {Int("'enabled'", enabled), Text("'name'", rec->name), Int("'type'", rec->type),
                    Int("'queue'", rec->queue), Text("'address'", rec->address)},
                   kUpdateFailed);
  return execute(db, kSwitchAll, kUpdateQuery,
                 {Int("'enabled'", enabled), Text("'name'", rec->name), Int("'type'", rec->type),
                  Int("'queue'", rec->queue)},
                 kUpdateFailed);
}

int mh_db_enable(sqlite3* db, mh_data* rec) { return mh_db_switch(db, rec, true); }

int mh_db_disable(sqlite3* db, mh_data* rec) { return mh_db_switch(db, rec, false); }

int mh_db_switch_by_name(sqlite3* db, const char* name, bool enabled) {
  return execute(db, kSwitchByName, kUpdateQuery,
                 {Int("'enabled'", enabled), Text("'name'", name)}, kUpdateFailed);
}

int mh_db_switch_by_addr(sqlite3* given, const char* address, bool enabled) {
  Connection db;
  if (db.open(given) != 0)
    return -1;
  int result = 0;
  {
    ScopedList handlers;
    if (mh_db_select_by_name(db.get(), handlers.get(), address) != 0) {
      tavix_log(LOG_ERR, "Unable to select mail handlers");
      return -1;
    }
    if (mh_db_do(handlers.get(), db.get(), enabled ? mh_db_enable : mh_db_disable) != 0)
      result = -1;
  }
  if (execute(db.get(), kSwitchByAddr, kUpdateQuery,
              {Int("'enabled'", enabled), Text("'address'", address)}, kUpdateFailed) != 0)
    result = -1;
  return result;
}

int mh_db_move_addr(sqlite3* db, const char* new_address, const char* old_address) {
  // The bind failure reports have always named the two parameters the
  // other way round; they keep their wording.
  return execute(db, kMoveAddr, kUpdateQuery,
                 {Text("old 'address'", new_address), Text("new 'address'", old_address)},
                 kUpdateFailed);
}

int mh_db_action(sqlite3* db, const char* sql, const char* param) {
  return execute(db, sql, "query", {Text("param", param)},
                 "Unable to execute do action on handlers database: %s");
}

int mh_db_remove_addr(sqlite3* db, const char* address) {
  return mh_db_action(db, kRemoveAddr, address);
}

int mh_db_remove_name(sqlite3* db, const char* name) {
  return mh_db_action(db, kRemoveName, name);
}

int mh_db_remove_all(sqlite3* given, const char* domain) {
  Connection db;
  if (db.open(given) != 0)
    return -1;
  ScopedList handlers;
  // Whatever could be selected is removed; the domain's removal goes on
  // regardless, so nothing here fails it.
  if (mh_db_select_by_name(db.get(), handlers.get(), domain) != 0)
    tavix_log(LOG_ERR, "Get handlers list");
  if (mh_db_do(handlers.get(), db.get(), mh_db_remove) != 0)
    tavix_log(LOG_ERR, "%s", kCopyFailed);
  return 0;
}

int mh_db_clone(sqlite3* given, const char* old_mailname, const char* old_domain,
                const char* new_mailname, const char* new_domain) {
  if (!old_domain || !new_domain) {
    tavix_log(LOG_ERR, "Unable to copy mail handlers: no domain given");
    return -1;
  }
  Connection db;
  if (db.open(given) != 0)
    return -1;
  ScopedList copies;
  int selected;
  if (old_mailname) {
    std::string old_address = std::string(old_mailname) + "@" + old_domain;
    std::string new_address =
        std::string(new_mailname ? new_mailname : old_mailname) + "@" + new_domain;
    check_length("Mail address", old_address);
    check_length("Mail address", new_address);
    selected = select_address_copies(db, copies.get(), old_address, new_address);
  } else {
    check_length("Mail domain name", old_domain);
    selected = select_domain_copies(db, copies.get(), old_domain, new_domain);
  }
  if (selected != 0)
    return -1;
  // Callers remove the originals once the copy is made: a copy that failed
  // for one record is no copy at all.
  if (apply_to_all(copies.get(), db.get(), mh_db_add) != 0) {
    tavix_log(LOG_ERR, "%s", kCopyFailed);
    return -1;
  }
  return 0;
}

int mh_db_select_by_name(sqlite3* given, mh_list* out, const char* name) {
  const char* at = strchr(name, '@');
  const char* domain = at ? at + 1 : name;
  Connection db;
  if (db.open(given, true) != 0)
    return -1;
  Statement stmt;
  if (stmt.prepare(db, kSelectByDomain) != 0 ||
      !bind_all(stmt, kSelectQuery, {Text("'address'", domain)}))
    return -1;
  return for_each_row(stmt, "Unable to select data from handlers database: %s", [&] {
    // LIKE finds every address containing the domain; only the domain's
    // own mail addresses are wanted, not its domain-wide handlers.
    const char* address = stmt.column_text(kByDomainColumns.address);
    const char* row_at = address ? strchr(address, '@') : nullptr;
    if (!row_at || strcmp(row_at + 1, domain) != 0)
      return 0;
    return save(out, read_row(stmt, kByDomainColumns));
  });
}

int mh_db_select(sqlite3* given, mh_list* out, const mh_data* key) {
  const char* address = key->address;
  if (key->type == MH_TYPE_GLOBAL) {
    if (!address) {
      address = kAll;
    } else if (!is_all_recipients(address)) {
      tavix_log(LOG_ERR, "Incorrect recipient address for global handler `%s', expected [NULL|%s|%s]",
                address, kAll, kAllRecipients);
      return -1;
    }
  }
  Connection db;
  if (db.open(given, true) != 0)
    return -1;
  Statement stmt;
  if (stmt.prepare(db, kSelect) != 0 ||
      !bind_all(stmt, kSelectQuery,
                {Int("'queue'", key->queue), Int("'type'", key->type),
                 Int("'enabled'", key->enabled), Text("'address'", address)}))
    return -1;
  return for_each_row(stmt, "Unable to get data from mail handlers database: %s",
                      [&] { return save(out, read_row(stmt, kSelectColumns)); });
}

int mh_db_do(mh_list* list, sqlite3* given, int (*op)(sqlite3*, mh_data*)) {
  Connection db;
  if (db.open(given) != 0)
    return -1;
  if (execute(db.get(), kBegin, nullptr, {}, "Unable to begin sqlite transaction: %s") != 0)
    return -1;
  // One record's failure is its own; the others still belong to the batch.
  for (mh_list_node* node = list->head; node; node = node->next)
    op(db.get(), node->data);
  if (execute(db.get(), kEnd, nullptr, {}, "Unable to end sqlite transaction: %s") != 0)
    return -1;
  return 0;
}
