// Prepares a sandbox the way installation prepares a mail server: the
// authentication database with its key (style 0) and the handlers database.
#include <cstdio>

#include "handlers/mail_handlers.h"
#include "mailauth/auth_db.h"

int main() {
  if (mailAuthDBInitStyle(0) != 0) {
    std::fprintf(stderr, "init_databases: cannot create the authentication database\n");
    return 1;
  }
  if (mh_db_create() != 0) {
    std::fprintf(stderr, "init_databases: cannot create the handlers database\n");
    return 1;
  }
  return 0;
}
