// How the handler operations reach the database.
//
// Every operation takes the caller's open connection, which it uses and
// leaves open, or none, in which case it opens mh_db_path itself and closes
// it again before returning, on every path. A batch hands its one connection
// down to each record, so that all of them run in the batch's transaction.
#ifndef DRAVNIK_HANDLERS_MH_SQLITE_H_
#define DRAVNIK_HANDLERS_MH_SQLITE_H_

#include <sqlite3.h>

#include "mailauth/sqlite_db.h"

namespace tavix {
namespace handlers {

class Connection : public sqlite::Database {
 public:
  // Borrows `given` when it is not null; otherwise opens mh_db_path (for
  // reading only with `read_only`). 0, or -1 after logging.
  int open(sqlite3* given, bool read_only = false);
};

using Statement = sqlite::Statement;

}  // namespace handlers
}  // namespace tavix

#endif  // DRAVNIK_HANDLERS_MH_SQLITE_H_
