// The session mail data: one mail domain described on standard input (its
// name, default mailbox quota, domain aliases, mail names with their quotas
// and aliases, and mailing lists), read once per run into the process-wide
// `session_mail_db_info`.
//
// The document looks like
//   {"domain": {"name": "example.com", "mbox_quota": 5,
//               "mbox_quota_unit": "MB", "dom_aliases": ["example.net"],
//               "maillists": ["news"],
//               "mails": [{"name": "info", "mbox_quota": -1,
//                          "aliases": ["office"]}]}}
// "mbox_quota" (default -1, unlimited) and "mbox_quota_unit" (default "B")
// are optional; the other members shown are required; unknown members are
// skipped. After reading, names are in lower case (mailing lists excepted)
// and quotas in bytes.
#ifndef DRAVNIK_MAILDATA_SESSION_MAIL_DATA_H_
#define DRAVNIK_MAILDATA_SESSION_MAIL_DATA_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "maildata/json_parser.h"

// Arrays grow one element at a time through the parser's reallocate
// function, so `capacity` equals `count` for everything read from a
// document; the arrays are released with the parser's release function.
struct sj_string_array {
  size_t count;
  size_t capacity;
  char** values;
};

struct mail_db_mail_t {
  const char* mbox_quota_unit;
  int64_t mbox_quota;  // bytes after reading; -1 unlimited
  char* name;
  sj_string_array aliases;
};

struct mail_db_mail_array {
  size_t count;
  size_t capacity;
  mail_db_mail_t* values;
};

// Every string points into the document text, which lives as long as the
// object does.
struct mail_db_data_t {
  mail_db_mail_array mails;
  char* name;  // the domain
  sj_string_array dom_aliases;
  int64_t mbox_quota;  // the domain default; bytes after reading
  sj_string_array maillists;
  const char* mbox_quota_unit;
};

struct size_unit_t {
  const char* name;
  int64_t multiplier;
};
extern const size_unit_t SizeUnitsTextConversionTable[5];

// The multiplier of "B", "KB", "MB", "GB" or "TB" (exact spelling); 0 for
// anything else.
int64_t get_size_unit(const char* unit);
int is_valid_size_unit(const char* unit);
// value times the unit's multiplier, wrapping around as two's complement
// arithmetic does; an overflow shows as a value that is no valid quota.
int64_t get_value_in_bytes(int64_t value, const char* unit);
// -1 (unlimited) and every size from 0 up.
int is_mbox_quota_valid(int64_t quota);

// The session object, or null while none has been read or made.
extern mail_db_data_t* session_mail_db_info;

// Reads the whole `stream` as the session mail data. With `check_ready` set,
// reads only when data is ready on standard input (the only stream probed).
// 0 on success; -2 when the session object already exists; -1 when nothing
// was ready; -3 on a read or allocation failure; otherwise the parser's
// error code. Failures are logged.
int read_session_mail_db_info(FILE* stream, int check_ready);

// The session object, made empty (no names, unlimited default quota) when
// none exists; null only when it cannot be allocated.
mail_db_data_t* get_session_mail_db_info();
// Releases the session object and its text; both can then be made again.
void free_session_mail_db_info();

// A zeroed object allocated with the parser's allocator; null on failure.
mail_db_data_t* create_mail_db_data_object(sj_parser* parser);
// Release the object's arrays (and the object) with the parser's allocator;
// the strings they point to belong to the document. Null is accepted.
void free_mail_db_data_object_fields(sj_parser* parser,
                                     mail_db_data_t* object);
void free_mail_db_data_object(sj_parser* parser, mail_db_data_t* object);
// Reads the document at the parser's position into `object`; the parser's
// error code. What was read before an error stays counted in the object so
// that the free functions release it.
int parse_mail_db_data_object(sj_parser* parser, mail_db_data_t* object);

// A readable dump of the session object to `out`.
void debug_print_session_mail_db_info(FILE* out);
void debug_print_sj_string_array(FILE* out, const sj_string_array* array);

#endif  // DRAVNIK_MAILDATA_SESSION_MAIL_DATA_H_
