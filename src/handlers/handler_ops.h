// Operations on the handlers table: add, remove, switch, copy, move and
// select handlers, and the batch runner that applies one operation to a
// list of records in one transaction.
//
// Each takes an open connection or null; with null it opens mh_db_path
// itself and closes it before returning. All give 0, or -1 after logging,
// unless said otherwise.
#ifndef DRAVNIK_HANDLERS_HANDLER_OPS_H_
#define DRAVNIK_HANDLERS_HANDLER_OPS_H_

#include <sqlite3.h>

#include "handlers/mail_handlers.h"

// Inserts `rec`, replacing an equal row. The address is stored lower-cased;
// a global handler's recipient must pass validate_global_handler_recipient().
int mh_db_add(sqlite3* db, mh_data* rec);

// Delete, or set `enabled` of, the rows of `rec`'s name, type, queue and
// address. A global record, or one without an address, hits every address
// of that name, type and queue; its address is then set to "all".
int mh_db_remove(sqlite3* db, mh_data* rec);
int mh_db_switch(sqlite3* db, mh_data* rec, bool enabled);
// mh_db_switch() shaped for mh_db_do().
int mh_db_enable(sqlite3* db, mh_data* rec);
int mh_db_disable(sqlite3* db, mh_data* rec);

// Every handler of one name.
int mh_db_switch_by_name(sqlite3* db, const char* name, bool enabled);
// The handlers of every mail address of the domain of `address`, then those
// registered for `address` itself.
int mh_db_switch_by_addr(sqlite3* db, const char* address, bool enabled);
int mh_db_move_addr(sqlite3* db, const char* new_address, const char* old_address);

// Runs `sql` with `param` bound as its one text parameter.
int mh_db_action(sqlite3* db, const char* sql, const char* param);
int mh_db_remove_addr(sqlite3* db, const char* address);
int mh_db_remove_name(sqlite3* db, const char* name);
// Deletes the handlers of every mail address of `domain` (not the
// domain-wide ones). 0 unless the database cannot be opened.
int mh_db_remove_all(sqlite3* db, const char* domain);

// Copies handlers, leaving the originals. With `old_mailname`: those of
// old_mailname@old_domain to new_mailname@new_domain (the old mail name when
// `new_mailname` is null). Without: those of every address that contains
// `old_domain` go to the same local part at `new_domain`, and the
// domain-wide ones of `old_domain` to `new_domain`. Copies are never
// protected. All or nothing: 0 only when every copy was committed; when
// one failed, none is kept.
int mh_db_clone(sqlite3* db, const char* old_mailname, const char* old_domain,
                const char* new_mailname, const char* new_domain);

// Adds to `out` the handlers of every mail address of `domain` (the part
// after "@" when a whole address is given).
int mh_db_select_by_name(sqlite3* db, mh_list* out, const char* domain);
// Adds to `out` the handlers a delivery to `key`'s queue, type, enabled
// state and address would run (executable, context and name only).
int mh_db_select(sqlite3* db, mh_list* out, const mh_data* key);

// Applies `op` to every record of `list`, from its head, in one
// transaction. A failing record neither stops nor fails the batch.
int mh_db_do(mh_list* list, sqlite3* db, int (*op)(sqlite3*, mh_data*));

#endif  // DRAVNIK_HANDLERS_HANDLER_OPS_H_
