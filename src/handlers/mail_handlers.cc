#include "handlers/mail_handlers.h"

#include <errno.h>
#include <grp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "mailauth/auth_db.h"
#include "util/log.h"

namespace {

const char kDefaultPath[] = "/var/lib/tavix/mail/handlers/handlers.db";
const char kLabel[] = "mail handlers";

// The mail system reads this schema as it stands, constraint name included.
const char kSchema[] =
    "BEGIN TRANSACTION;"
    "CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address, executable, context));"
    "CREATE INDEX idx1 ON handlers(queue, type, enabled, address);"
    "CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority);"
    "CREATE INDEX idx3 ON handlers(name, queue, type, address);"
    "CREATE INDEX idx4 ON handlers(name, queue, type);"
    "COMMIT;";

const char kAllRecipients[] = "all";
const char kAllRecipientsLong[] = "all-recipients";

void log_system_error() { tavix_log(LOG_ERR, "System error: %s", strerror(errno)); }

}  // namespace

const char* mh_db_path = kDefaultPath;

void mh_db_path_set(const char* path) { mh_db_path = path; }

mh_data* mh_data_init() {
  mh_data* rec = new (std::nothrow) mh_data;
  if (!rec) {
    errno = ENOMEM;
    log_system_error();
    return nullptr;
  }
  mh_data_init_ex(rec);
  return rec;
}

void mh_data_init_ex(mh_data* rec) {
  if (!rec)
    return;
  rec->priority = 0;
  rec->type = 5;
  rec->queue = 5;
  rec->name = nullptr;
  rec->address = nullptr;
  rec->executable = nullptr;
  rec->context = nullptr;
  rec->protected_ = false;
  rec->enabled = false;
}

mh_data* mh_data_clone(const mh_data* rec) {
  if (!rec)
    return nullptr;
  tavix::handlers::Record copy(new (std::nothrow) mh_data);
  if (!copy)
    return nullptr;
  mh_data_init_ex(copy.get());
  copy->priority = rec->priority;
  copy->type = rec->type;
  copy->queue = rec->queue;
  copy->protected_ = rec->protected_;
  copy->enabled = rec->enabled;
  // A string that cannot be copied is left out rather than failing the
  // whole copy.
  tavix::handlers::set_text(&copy->name, rec->name);
  tavix::handlers::set_text(&copy->address, rec->address);
  tavix::handlers::set_text(&copy->executable, rec->executable);
  tavix::handlers::set_text(&copy->context, rec->context);
  return copy.release();
}

void mh_data_free_ex(mh_data* rec) {
  if (!rec)
    return;
  free(rec->address);
  free(rec->executable);
  free(rec->context);
  free(rec->name);
}

void mh_data_free(mh_data* rec) {
  mh_data_free_ex(rec);
  delete rec;
}

int mh_list_init(mh_list* list) {
  list->head = nullptr;
  return 0;
}

int mh_list_add(mh_list* list, const mh_data* rec) {
  tavix::handlers::Record copy(mh_data_clone(rec));
  if (!copy) {
    tavix_log(LOG_ERR, "Unable to clone handlers data record");
    return -1;
  }
  return tavix::handlers::list_take(list, std::move(copy));
}

void mh_list_free(mh_list* list) {
  mh_list_node* node = list->head;
  while (node) {
    mh_list_node* next = node->next;
    mh_data_free(node->data);
    delete node;
    node = next;
  }
  // Emptied rather than left dangling, so that a second free is harmless.
  list->head = nullptr;
}

const char* validate_global_handler_recipient(const char* address) {
  if (!address || !*address)
    return kAllRecipients;
  if (strcmp(address, kAllRecipients) == 0 || strcmp(address, kAllRecipientsLong) == 0)
    return address;
  tavix_log(LOG_ERR, "Incorrect recipient address for global handler, expected [NULL|EMPTY_STRING|%s|%s]",
            kAllRecipients, kAllRecipientsLong);
  return nullptr;
}

int mh_db_create_no_set_permissions() {
  if (sqlite_create_db_path(mh_db_path, kLabel) != 0) {
    tavix_log(LOG_CRIT, "Unable to create directory for mail handlers database for(%s): %s",
              mh_db_path, strerror(errno));
    return -1;
  }
  return sqlite_db_create(mh_db_path, kSchema, kLabel);
}

int fix_mh_db_permissions(const char* file) {
  errno = 0;
  const struct group* popuser = getgrnam("popuser");
  if (!popuser) {
    tavix_log(LOG_CRIT, "Unable to get mail handlers group uid: %s", strerror(errno));
    return -1;
  }
  if (chown(file, 0, popuser->gr_gid) != 0) {
    tavix_log(LOG_CRIT, "Unable to set owner on %s: %s", file, strerror(errno));
    return -1;
  }
  if (chmod(file, 0640) != 0) {
    tavix_log(LOG_CRIT, "Unable to set permissions on %s: %s", file, strerror(errno));
    return -1;
  }
  return 0;
}

int mh_db_create() {
  if (mh_db_create_no_set_permissions() != 0)
    return -1;
  if (fix_mh_db_permissions(mh_db_path) != 0) {
    // A database the mail system cannot read, or that anyone can, is worse
    // than none.
    unlink(mh_db_path);
    return -1;
  }
  return 0;
}

namespace tavix {
namespace handlers {

bool set_text(char** field, const char* value) {
  free(*field);
  *field = value ? strdup(value) : nullptr;
  return !value || *field;
}

int list_take(mh_list* list, Record rec) {
  mh_list_node* node = new (std::nothrow) mh_list_node;
  if (!node) {
    errno = ENOMEM;
    log_system_error();
    return -1;
  }
  node->data = rec.release();
  node->next = list->head;
  node->prev = &list->head;
  if (list->head)
    list->head->prev = &node->next;
  list->head = node;
  return 0;
}

}  // namespace handlers
}  // namespace tavix
