#include "handlers/mh_sqlite.h"

#include "handlers/mail_handlers.h"

namespace tavix {
namespace handlers {

int Connection::open(sqlite3* given, bool read_only) {
  if (given) {
    borrow(given);
    return 0;
  }
  return read_only ? open_readonly(mh_db_path) : sqlite::Database::open(mh_db_path);
}

}  // namespace handlers
}  // namespace tavix
