#include "audit/databases.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "handlers/mail_handlers.h"
#include "mailauth/auth_db.h"
#include "mailauth/sqlite_db.h"

namespace tavix {
namespace audit {

namespace {

const char kDomains[] = "SELECT name FROM domains";
const char kUsers[] =
    "SELECT d.name, u.name FROM users u JOIN domains d ON u.dom_id = d.id";
const char kHandlers[] = "SELECT DISTINCT address FROM handlers WHERE type != ?";

// Runs `sql` (with an optional integer parameter) and hands each row to
// `row`. False after recording why in `out`.
template <class Row>
bool Query(const char* path, const char* sql, int parameter, Databases* out, Row row) {
  struct stat st;
  if (stat(path, &st) != 0) {  // opening would create an empty one
    out->unreadable.push_back(std::string(path) + ": " + strerror(errno));
    return false;
  }
  sqlite::Database db;
  sqlite::Statement statement;
  if (db.open_readonly(path) != 0 || statement.prepare(db, sql) != 0 ||
      (parameter >= 0 &&
       !statement.bind_int(1, parameter, "Unable to bind parameter 'type': %s"))) {
    out->unreadable.push_back(std::string(path) + ": " + db.errmsg());
    return false;
  }
  for (;;) {
    int rc = statement.step();
    if (rc == SQLITE_DONE)
      return true;
    if (rc != SQLITE_ROW) {
      out->unreadable.push_back(std::string(path) + ": " + db.errmsg());
      return false;
    }
    row(statement);
  }
}

std::string Text(const sqlite::Statement& statement, int column) {
  const char* text = statement.column_text(column);
  return text ? text : "";
}

}  // namespace

Databases ReadDatabases() {
  Databases out;
  Query(mailAuthDB, kDomains, -1, &out, [&](const sqlite::Statement& s) {
    out.auth_domains.insert(Text(s, 0));
  });
  Query(mailAuthDB, kUsers, -1, &out, [&](const sqlite::Statement& s) {
    out.auth_users.emplace(Text(s, 0), Text(s, 1));
  });
  Query(mh_db_path, kHandlers, MH_TYPE_GLOBAL, &out, [&](const sqlite::Statement& s) {
    out.handler_addresses.insert(Text(s, 0));
  });
  return out;
}

}  // namespace audit
}  // namespace tavix
