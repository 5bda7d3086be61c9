// A small pull parser for JSON held in one NUL-terminated buffer.
//
// It builds no tree: the caller walks the document with typed calls that
// follow the schema it expects, and tests the parser's error code after each
// call. The buffer belongs to the caller and is changed in place: strings are
// unescaped into their own bytes and returned as pointers into the buffer.
//
// Only what the mail data document needs is accepted: integers (decimal,
// and also hexadecimal and octal as strtoll() reads them), strings of
// printable ASCII (UTF-8 text for readers that ask for it), booleans,
// null, objects and arrays.
//
// Errors are sticky: the first failing call sets `error`, and every later
// call returns at once without reading on, so a walk can test once per step.
//
// Walking an object:
//   if (sj_parse_object_start(p) == 0 && !sj_parse_object_end_if_empty(p)) {
//     do {
//       char* key = sj_parse_object_key(p);
//       if (p->error) break;
//       ... read or sj_skip_value(p) ...
//       if (p->error) break;
//     } while (sj_parse_object_next(p) == 0);
//   }
//   if (p->error) ...
// Arrays likewise with the array functions.
#ifndef DRAVNIK_MAILDATA_JSON_PARSER_H_
#define DRAVNIK_MAILDATA_JSON_PARSER_H_

#include <cstddef>
#include <cstdint>

// The memory functions a parser and the readers built on it use; `user` is
// passed to each of them unchanged.
typedef void* (*sj_allocate_fn)(void* user, size_t size);
typedef void* (*sj_reallocate_fn)(void* user, void* block, size_t size);
typedef void (*sj_release_fn)(void* user, void* block);

struct sj_util_funcs {
  void* user;
  sj_allocate_fn allocate;
  sj_reallocate_fn reallocate;
  sj_release_fn release;
};

// Fills `funcs` with malloc(), realloc() and free() and a null user pointer.
void sj_set_default_util_funcs(sj_util_funcs* funcs);
void* sj_default_malloc(void* user, size_t size);
void* sj_default_realloc(void* user, void* block, size_t size);
void sj_default_free(void* user, void* block);

enum sj_error_code {
  SJ_OK = 0,
  SJ_END_OF_CONTAINER = 1,
  SJ_PREMATURE_END = 2,
  SJ_VALUE_EXPECTED = 3,
  SJ_NUMBER_EXPECTED = 4,
  SJ_NUMBER_OUT_OF_RANGE = 5,
  SJ_BAD_NUMBER_FORMAT = 6,
  SJ_STRING_EXPECTED = 7,
  SJ_BAD_ESCAPE = 8,
  SJ_BAD_CHARACTER = 9,
  SJ_UNSUPPORTED_UNICODE = 10,
  SJ_OBJECT_EXPECTED = 11,
  SJ_NAME_SEPARATOR_EXPECTED = 12,
  SJ_OBJECT_SEPARATOR_EXPECTED = 13,
  SJ_REQUIRED_FIELDS_MISSING = 14,
  SJ_ARRAY_EXPECTED = 15,
  SJ_ARRAY_SEPARATOR_EXPECTED = 16,
  SJ_BOOLEAN_EXPECTED = 17,
  SJ_NULL_EXPECTED = 18,
  SJ_NULL_UNEXPECTED = 19,
  SJ_OUT_OF_MEMORY = 20,
  SJ_UNKNOWN_FIELD = 21,
  SJ_DUPLICATE_FIELD = 22,
  SJ_CONSTRAINT_FAILED = 23,
};
// Codes 1, 14 and 19 to 23 are never set by the parser itself: they belong
// to the schema readers built on it. 21 to 23 show `detail` in the message.

struct sj_parser {
  char* start;         // first byte of the document
  char* current;       // next unread byte
  const char* detail;  // text for the messages of codes 21 to 23, or null
  int32_t error;       // 0 while all is well
  sj_util_funcs funcs;
};

// A parser over `buffer`, allocated with `funcs` (the default set when
// null). Null for a null buffer or when allocation fails.
sj_parser* sj_create_parser(char* buffer, const sj_util_funcs* funcs);
// Releases a parser made by sj_create_parser(); null is ignored.
void sj_free_parser(sj_parser* parser);
// The one static parser, reset onto an empty document with error 0, for
// callers that need a parser (for its allocator) without a document.
sj_parser* sj_get_dummy_parser(const sj_util_funcs* funcs);

// The parser's error as text with the offset and the byte it stopped at,
// and the errno text when errno is set. Points into a static buffer.
const char* sj_parser_strerror(const sj_parser* parser);

// Skips blanks, tabs, newlines, vertical tabs, form feeds and returns.
void sj_skip_whitespace(sj_parser* parser);

// Look at the current byte only; whitespace is not skipped.
int sj_peek_is_boolean(const sj_parser* parser);
int sj_peek_is_null(const sj_parser* parser);
int sj_peek_is_number(const sj_parser* parser);
int sj_peek_is_string(const sj_parser* parser);
int sj_peek_is_object(const sj_parser* parser);
int sj_peek_is_array(const sj_parser* parser);

// All functions below skip whitespace first.

// 1 for true, 0 for false (and on error).
int sj_parse_boolean(sj_parser* parser);
// 0, or the error code.
int sj_parse_null(sj_parser* parser);
// Integers; 0 on error. Fractions and exponents are refused. The 32-bit
// readers put the position back where the call began on any error.
int64_t sj_parse_int64(sj_parser* parser);
uint64_t sj_parse_uint64(sj_parser* parser);
int32_t sj_parse_int(sj_parser* parser);
uint32_t sj_parse_uint(sj_parser* parser);
// Skips any JSON number, fractions and exponents included; the error code.
int sj_skip_number(sj_parser* parser);
// The unescaped string inside the buffer, or null on error.
char* sj_parse_string(sj_parser* parser);
// The same for UTF-8 text, for readers whose strings are not limited to
// ASCII: well-formed UTF-8 is taken as it is, and every "\u" escape
// (a surrogate pair as one character) is written as UTF-8. A "\u0000" is
// a NUL byte inside the text, which `*length` counts. Ill-formed UTF-8
// gives error 9; a "\u" escape that is not four hex digits, or a lone
// surrogate, gives error 8.
char* sj_parse_utf8_string(sj_parser* parser, size_t* length);

// 0 or the error code.
int sj_parse_object_start(sj_parser* parser);
// 1 when the object ends here (the "}" is consumed), else 0.
int sj_parse_object_end_if_empty(sj_parser* parser);
// The key, or null on error; a missing ":" sets the error but the key is
// still returned.
char* sj_parse_object_key(sj_parser* parser);
// 0 after ",", 1 after "}", otherwise the error code.
int sj_parse_object_next(sj_parser* parser);

int sj_parse_array_start(sj_parser* parser);
int sj_parse_array_end_if_empty(sj_parser* parser);
int sj_parse_array_next(sj_parser* parser);

// Skip a whole value, nested ones included; 0 or the error code.
int sj_skip_value(sj_parser* parser);
int sj_skip_object(sj_parser* parser);
int sj_skip_array(sj_parser* parser);

#endif  // DRAVNIK_MAILDATA_JSON_PARSER_H_
