// The mail handlers database: its file and schema, the handler record and
// the record list that the handler operations (handler_ops.h) pass around.
//
// Handlers are programs the mail system runs on messages for an address, a
// whole domain or every recipient. This program never runs them; it only
// keeps their registry in step when addresses change.
#ifndef DRAVNIK_HANDLERS_MAIL_HANDLERS_H_
#define DRAVNIK_HANDLERS_MAIL_HANDLERS_H_

#include <cstdint>
#include <memory>

// The database file; "/var/lib/tavix/mail/handlers/handlers.db" until
// mh_db_path_set() points it elsewhere (the pointer is kept, not copied).
extern const char* mh_db_path;
void mh_db_path_set(const char* path);

// The `type` of a handler that serves every recipient.
constexpr int32_t MH_TYPE_GLOBAL = 4;

// One row of the handlers table. The strings are heap copies owned by the
// record (any may be null).
struct mh_data {
  int32_t priority;
  int32_t type;
  int32_t queue;
  char* name;
  char* address;
  char* executable;
  char* context;
  // The `protected` column: kept when mailboxes are restored.
  bool protected_;
  bool enabled;
};

// A new record with the defaults (priority 0, type 5, queue 5, no strings,
// both flags false); null after logging when memory runs out.
mh_data* mh_data_init();
// Sets the defaults in place, without freeing anything; null is ignored.
void mh_data_init_ex(mh_data* rec);
// A deep copy; null when the record cannot be allocated. A string that
// cannot be copied stays null in the copy.
mh_data* mh_data_clone(const mh_data* rec);
// Frees the strings only; null is ignored.
void mh_data_free_ex(mh_data* rec);
// Frees the strings and the record; null is ignored.
void mh_data_free(mh_data* rec);

struct mh_list_node {
  mh_data* data;
  mh_list_node* next;
  // The pointer that points at this node: the head or the previous next.
  mh_list_node** prev;
};

// New nodes go in at the head, so a walk from the head meets the records in
// the reverse order of insertion.
struct mh_list {
  mh_list_node* head;
};

int mh_list_init(mh_list* list);
// Inserts a copy of `rec` at the head. 0, or -1 after logging.
int mh_list_add(mh_list* list, const mh_data* rec);
// Frees every node and record and empties the list.
void mh_list_free(mh_list* list);

// The recipient of a global handler: "all" for null or "", the argument
// itself for "all" or "all-recipients", else null after logging.
const char* validate_global_handler_recipient(const char* address);

// Creates the directories above mh_db_path and the database with its
// schema. 0 or -1.
int mh_db_create_no_set_permissions();
// Owner root, group popuser, mode 0640: the mail system reads the database
// as popuser. 0 or -1.
int fix_mh_db_permissions(const char* file);
// Both of the above; a database whose permissions cannot be set is deleted
// again. 0 or -1.
int mh_db_create();

namespace tavix {
namespace handlers {

struct RecordDeleter {
  void operator()(mh_data* rec) const { mh_data_free(rec); }
};
using Record = std::unique_ptr<mh_data, RecordDeleter>;

// Replaces `*field` with a heap copy of `value` (null for null). False when
// the copy could not be made; the field is then null.
bool set_text(char** field, const char* value);

// Inserts `rec` itself at the head; the list takes it over, and frees it
// when the node cannot be allocated. 0, or -1 after logging.
int list_take(mh_list* list, Record rec);

// A list that is freed when it goes out of scope.
class ScopedList {
 public:
  ScopedList() { mh_list_init(&list_); }
  ~ScopedList() { mh_list_free(&list_); }
  ScopedList(const ScopedList&) = delete;
  ScopedList& operator=(const ScopedList&) = delete;

  mh_list* get() { return &list_; }

 private:
  mh_list list_;
};

}  // namespace handlers
}  // namespace tavix

#endif  // DRAVNIK_HANDLERS_MAIL_HANDLERS_H_
