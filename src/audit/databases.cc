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

const char kDomains[] = "SELECT name, status FROM domains";
const char kUsers[] =
    "SELECT d.name, u.name, u.userPassword, u.cmusaslsecretPLAIN, u.status"
    " FROM users u JOIN domains d ON u.dom_id = d.id ORDER BY d.name, u.name";
const char kHandlers[] = "SELECT DISTINCT address, type = ? FROM handlers";

// One database, opened read-only, with a read transaction around all of
// its queries. A failure is recorded in `out` once; the later queries then
// do nothing.
class Reader {
 public:
  Reader(const char* path, Databases* out) : path_(path), out_(out) {
    struct stat st;
    if (stat(path, &st) != 0) {  // opening would create an empty one
      Fail(strerror(errno));
      return;
    }
    // Sorting the users of a large server spills out of SQLite's cache;
    // kept in memory, since a server need not offer a writable temporary
    // directory to a reader (and the sort is a few megabytes).
    std::string message;
    if (db_.open_readonly(path) != 0 ||
        db_.exec("PRAGMA temp_store = MEMORY", &message) != SQLITE_OK ||
        db_.exec("BEGIN", &message) != SQLITE_OK)
      Fail(db_.errmsg());
  }
  ~Reader() {
    std::string message;
    if (ok_)
      db_.exec("COMMIT", &message);  // nothing was written: only ends the read
  }

  // Runs `sql` (with an optional integer parameter) and hands each row to
  // `row`.
  template <class Row>
  void Query(const char* sql, int parameter, Row row) {
    if (!ok_)
      return;
    sqlite::Statement statement;
    if (statement.prepare(db_, sql) != 0 ||
        (parameter >= 0 &&
         !statement.bind_int(1, parameter, "Unable to bind parameter 'type': %s"))) {
      Fail(db_.errmsg());
      return;
    }
    for (;;) {
      int rc = statement.step();
      if (rc == SQLITE_DONE)
        return;
      if (rc != SQLITE_ROW) {
        Fail(db_.errmsg());
        return;
      }
      row(statement);
    }
  }

 private:
  void Fail(const std::string& why) {
    out_->unreadable.push_back(std::string(path_) + ": " + why);
    ok_ = false;
  }

  const char* path_;
  Databases* out_;
  bool ok_ = true;
  sqlite::Database db_;  // before nothing: statements are local to Query()
};

std::string Text(const sqlite::Statement& statement, int column) {
  const char* text = statement.column_text(column);
  return text ? text : "";
}

}  // namespace

Databases ReadDatabases() {
  Databases out;
  {
    Reader auth(mailAuthDB, &out);
    auth.Query(kDomains, -1, [&](const sqlite::Statement& s) {
      out.auth_domains.insert(Text(s, 0));
      out.auth_domain_status[Text(s, 0)] = s.column_int(1);
    });
    auth.Query(kUsers, -1, [&](const sqlite::Statement& s) {
      AuthUser user;
      user.domain = Text(s, 0);
      user.name = Text(s, 1);
      user.has_encrypted = s.column_text(2) != nullptr;
      user.encrypted = Text(s, 2);
      user.has_raw = s.column_text(3) != nullptr;
      user.raw = Text(s, 3);
      user.status = s.column_int(4);
      out.auth_users.emplace(user.domain, user.name);
      out.auth_rows.push_back(std::move(user));
    });
  }
  Reader handlers(mh_db_path, &out);
  handlers.Query(kHandlers, MH_TYPE_GLOBAL, [&](const sqlite::Statement& s) {
    if (s.column_int(1))
      out.global_handlers = true;
    else
      out.handler_addresses.insert(Text(s, 0));
  });
  return out;
}

}  // namespace audit
}  // namespace tavix
