#include "maildata/json_parser.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char* const kMessages[] = {
    "OK, no error.",
    "JSON array or object has ended.",
    "JSON document has ended prematurely. Check that all strings are properly "
    "ended.",
    "Any value is expected, but was not found.",
    "Number is expected.",
    "Number value is out of range for expected type.",
    "Invalid or unsupported number format. Check that there are no floating "
    "point numbers.",
    "String is expected.",
    "Invalid escape sequence found in string.",
    "Invalid character found in string. Check that strings do not contain "
    "control characters.",
    "Invalid or unsupported Unicode character or escape sequence found in "
    "string. UTF8 encoded characters and '\\u' escape sequences are not "
    "supported.",
    "JSON object is expected.",
    "JSON name separator (':') is expected inside an object.",
    "JSON value separator (',') or end of object is expected.",
    "Some required fields are missing from the JSON object. Check that input "
    "JSON document conforms to schema.",
    "JSON array is expected.",
    "JSON value separator (',') or end of array is expected.",
    "Boolean value is expected.",
    "'null' is expected.",
    "'null' is unexpected in this context. Check that input JSON document "
    "conforms to schema.",
    "Failed to allocate memory.",
    "Encountered an object field \"%s\" not present in JSON schema. Remove "
    "excessive data from input JSON document or allow skipping unknown "
    "fields.",
    "Encountered a duplicate field \"%s\" in a JSON object. Remove duplicates "
    "from input JSON document or disable duplicate fields check.",
    "Custom JSON value constraint failed: %s.",
};
const int kMessageCount = sizeof(kMessages) / sizeof(kMessages[0]);

// Nested values are skipped recursively. A document nested deeper than this
// is refused like one that cannot be held in memory, rather than letting a
// hostile input overflow the stack.
const int kMaxSkipDepth = 512;

// The empty document the dummy parser stands on; writable, as the parser's
// buffer always is.
char dummy_document[1] = {'\0'};
sj_parser dummy_parser;

bool is_digit(char c) { return c >= '0' && c <= '9'; }

int fail(sj_parser* p, int code) {
  p->error = code;
  return code;
}

// Consumes `c` when it is the next byte after whitespace.
bool consume(sj_parser* p, char c) {
  sj_skip_whitespace(p);
  if (*p->current != c)
    return false;
  ++p->current;
  return true;
}

bool consume_word(sj_parser* p, const char* word) {
  size_t length = strlen(word);
  if (strncmp(p->current, word, length) != 0)
    return false;
  p->current += length;
  return true;
}

// strtoll()/strtoull() with base 0 read hexadecimal and octal as well as
// decimal; that wider syntax is accepted on purpose. Only the conversion's
// own ERANGE may count, so errno is cleared around it and, when the value is
// in range, given back its previous value.
template <typename Int, typename Convert>
Int parse_integer(sj_parser* p, Convert convert) {
  int saved_errno = errno;
  errno = 0;
  char* end = nullptr;
  Int value = convert(p->current, &end, 0);
  if (errno == ERANGE) {  // left set: the message reports it
    fail(p, SJ_NUMBER_OUT_OF_RANGE);
    return 0;
  }
  errno = saved_errno;
  if (end == p->current) {
    fail(p, SJ_NUMBER_EXPECTED);
    return 0;
  }
  p->current = end;
  if (*end == '.' || *end == 'e' || *end == 'E') {
    fail(p, SJ_BAD_NUMBER_FORMAT);
    return 0;
  }
  return value;
}

// Narrows a 64-bit reading to [low, high]; any failure puts the position
// back where the call began, so the message names the number itself.
template <typename Narrow, typename Wide, typename Read>
Narrow parse_narrow(sj_parser* p, Read read, Wide low, Wide high) {
  if (p->error)
    return 0;
  char* begin = p->current;
  Wide value = read(p);
  if (!p->error && (value < low || value > high))
    fail(p, SJ_NUMBER_OUT_OF_RANGE);
  if (p->error) {
    p->current = begin;
    return 0;
  }
  return static_cast<Narrow>(value);
}

// The byte an escape stands for, or 0 for an unknown escape.
char unescape(char c) {
  switch (c) {
    case '"': return '"';
    case '/': return '/';
    case '\\': return '\\';
    case 'b': return '\b';
    case 'f': return '\f';
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    default: return 0;
  }
}

// The length of the well-formed UTF-8 sequence that starts at `in` (2 to
// 4), or 0: overlong forms, surrogates and code points above U+10FFFF are
// ill-formed, as is a sequence cut short (the buffer's NUL ends it).
int utf8_sequence_length(const unsigned char* in) {
  unsigned char const lead = in[0];
  int length;
  unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0)
      low = 0xA0;
    else if (lead == 0xED)
      high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0)
      low = 0x90;
    else if (lead == 0xF4)
      high = 0x8F;
  } else {
    return 0;
  }
  if (in[1] < low || in[1] > high)
    return 0;
  for (int i = 2; i < length; ++i) {
    if (in[i] < 0x80 || in[i] > 0xBF)
      return 0;
  }
  return length;
}

// The four hex digits at `in` as a number, or -1.
long hex4(const char* in) {
  long value = 0;
  for (int i = 0; i < 4; ++i) {
    char const c = in[i];
    int digit;
    if (c >= '0' && c <= '9')
      digit = c - '0';
    else if (c >= 'a' && c <= 'f')
      digit = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F')
      digit = c - 'A' + 10;
    else
      return -1;
    value = value * 16 + digit;
  }
  return value;
}

// Decodes the "\u" escape at `in` (a surrogate pair takes two) into
// `*code_point`; the bytes it takes, or 0 for a bad or lone surrogate.
int unicode_escape(const char* in, long* code_point) {
  long const first = hex4(in + 2);
  if (first < 0 || (first >= 0xDC00 && first <= 0xDFFF))
    return 0;
  if (first < 0xD800 || first > 0xDBFF) {
    *code_point = first;
    return 6;
  }
  if (in[6] != '\\' || in[7] != 'u')
    return 0;
  long const second = hex4(in + 8);
  if (second < 0xDC00 || second > 0xDFFF)
    return 0;
  *code_point = 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
  return 12;
}

// Writes `code_point` as UTF-8 at `out`; the bytes written (at most 4,
// never more than the escape that gave it took).
int put_utf8(long code_point, char* out) {
  unsigned char* o = reinterpret_cast<unsigned char*>(out);
  if (code_point < 0x80) {
    o[0] = static_cast<unsigned char>(code_point);
    return 1;
  }
  if (code_point < 0x800) {
    o[0] = static_cast<unsigned char>(0xC0 | (code_point >> 6));
    o[1] = static_cast<unsigned char>(0x80 | (code_point & 0x3F));
    return 2;
  }
  if (code_point < 0x10000) {
    o[0] = static_cast<unsigned char>(0xE0 | (code_point >> 12));
    o[1] = static_cast<unsigned char>(0x80 | ((code_point >> 6) & 0x3F));
    o[2] = static_cast<unsigned char>(0x80 | (code_point & 0x3F));
    return 3;
  }
  o[0] = static_cast<unsigned char>(0xF0 | (code_point >> 18));
  o[1] = static_cast<unsigned char>(0x80 | ((code_point >> 12) & 0x3F));
  o[2] = static_cast<unsigned char>(0x80 | ((code_point >> 6) & 0x3F));
  o[3] = static_cast<unsigned char>(0x80 | (code_point & 0x3F));
  return 4;
}

// The string reader of both sj_parse_string() and sj_parse_utf8_string():
// with `unicode` clear only printable ASCII and "\u0000", which ends the
// text; with it set UTF-8 text and every "\u" escape as well.
char* parse_string(sj_parser* parser, bool unicode, size_t* length) {
  if (parser->error)
    return nullptr;
  sj_skip_whitespace(parser);
  if (*parser->current != '"') {
    fail(parser, *parser->current == '\0' ? SJ_PREMATURE_END
                                          : SJ_STRING_EXPECTED);
    return nullptr;
  }
  char* text = parser->current + 1;
  char* in = text;   // next byte to read
  char* out = text;  // next byte to write; never ahead of `in`
  for (;;) {
    // Errors leave the position on the offending byte so the message names it.
    parser->current = in;
    unsigned char const c = static_cast<unsigned char>(*in);
    if (c == '\0') {
      fail(parser, SJ_PREMATURE_END);
      return nullptr;
    }
    if (c == '"') {
      *length = static_cast<size_t>(out - text);
      *out = '\0';
      parser->current = in + 1;
      return text;
    }
    if (c < 32) {
      fail(parser, SJ_BAD_CHARACTER);
      return nullptr;
    }
    if (c >= 128) {
      int const taken = unicode ? utf8_sequence_length(reinterpret_cast<unsigned char*>(in)) : 0;
      if (taken == 0) {
        fail(parser, SJ_BAD_CHARACTER);
        return nullptr;
      }
      out = std::copy(in, in + taken, out);
      in += taken;
      continue;
    }
    if (c != '\\') {
      *out++ = *in++;
      continue;
    }
    char escaped = in[1];
    if (escaped == '\0') {
      fail(parser, SJ_PREMATURE_END);
      return nullptr;
    }
    if (escaped == 'u' && unicode) {
      long code_point = 0;
      int const taken = unicode_escape(in, &code_point);
      if (taken == 0) {
        fail(parser, SJ_BAD_ESCAPE);
        return nullptr;
      }
      out += put_utf8(code_point, out);
      in += taken;
      continue;
    }
    if (escaped == 'u') {
      // Only "\u0000" is understood; it ends the text where it stands.
      if (strncmp(in + 2, "0000", 4) != 0) {
        fail(parser, SJ_UNSUPPORTED_UNICODE);
        return nullptr;
      }
      *out++ = '\0';
      in += 6;
      continue;
    }
    char byte = unescape(escaped);
    if (byte == 0) {
      fail(parser, SJ_BAD_ESCAPE);
      return nullptr;
    }
    *out++ = byte;
    in += 2;
  }
}


// The three steps that differ between walking an object and an array.
struct Container {
  int (*start)(sj_parser*);
  int (*end_if_empty)(sj_parser*);
  int (*next)(sj_parser*);
  bool keyed;
};
const Container kObject = {sj_parse_object_start, sj_parse_object_end_if_empty,
                           sj_parse_object_next, true};
const Container kArray = {sj_parse_array_start, sj_parse_array_end_if_empty,
                          sj_parse_array_next, false};

int skip_value(sj_parser* p, int depth);

int skip_container(sj_parser* p, const Container& container, int depth) {
  if (p->error)
    return p->error;
  if (depth >= kMaxSkipDepth)
    return fail(p, SJ_OUT_OF_MEMORY);
  if (container.start(p) != 0 || container.end_if_empty(p))
    return p->error;
  do {
    if (container.keyed)
      sj_parse_object_key(p);
    if (p->error || skip_value(p, depth + 1) != 0)
      break;
  } while (container.next(p) == 0);
  return p->error;
}

int skip_value(sj_parser* p, int depth) {
  if (p->error)
    return p->error;
  sj_skip_whitespace(p);
  char c = *p->current;
  if (c == '"')
    sj_parse_string(p);
  else if (c == '-' || is_digit(c))
    sj_skip_number(p);
  else if (c == '[')
    skip_container(p, kArray, depth);
  else if (c == '{')
    skip_container(p, kObject, depth);
  else if (c == 't' || c == 'f')
    sj_parse_boolean(p);
  else if (c == 'n')
    sj_parse_null(p);
  else
    fail(p, SJ_VALUE_EXPECTED);
  return p->error;
}

// The message text, cut to a fixed buffer piece by piece: a piece that does
// not fit is cut, and the next one goes on at the end of what fits.
class MessageBuffer {
 public:
  MessageBuffer() { text_[0] = '\0'; }

  [[gnu::format(printf, 2, 3)]] void append(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(text_ + used_, sizeof(text_) - used_, format, ap);
    va_end(ap);
    if (n > 0)
      used_ = std::min(used_ + static_cast<size_t>(n), sizeof(text_) - 1);
  }
  const char* text() const { return text_; }

 private:
  char text_[1024];
  size_t used_ = 0;
};

// A message with "%s" and no other "%" after it gets the detail text (or
// "N/A") there; others are used as they are.
void append_message(MessageBuffer& out, const char* message,
                    const char* detail) {
  const char* slot = strstr(message, "%s");
  if (slot == nullptr || strchr(slot + 2, '%') != nullptr) {
    out.append("%s", message);
    return;
  }
  out.append("%.*s%s%s", static_cast<int>(slot - message), message,
             detail ? detail : "N/A", slot + 2);
}

}  // namespace

void* sj_default_malloc(void*, size_t size) { return malloc(size); }
void* sj_default_realloc(void*, void* block, size_t size) {
  return realloc(block, size);
}
void sj_default_free(void*, void* block) { free(block); }

void sj_set_default_util_funcs(sj_util_funcs* funcs) {
  funcs->user = nullptr;
  funcs->allocate = sj_default_malloc;
  funcs->reallocate = sj_default_realloc;
  funcs->release = sj_default_free;
}

sj_parser* sj_create_parser(char* buffer, const sj_util_funcs* funcs) {
  if (buffer == nullptr)
    return nullptr;
  sj_util_funcs chosen;
  if (funcs)
    chosen = *funcs;
  else
    sj_set_default_util_funcs(&chosen);
  void* memory = chosen.allocate(chosen.user, sizeof(sj_parser));
  if (memory == nullptr)
    return nullptr;
  sj_parser* parser = static_cast<sj_parser*>(memory);
  *parser = sj_parser{};
  parser->start = parser->current = buffer;
  parser->funcs = chosen;
  return parser;
}

void sj_free_parser(sj_parser* parser) {
  if (parser == nullptr || parser == &dummy_parser)
    return;
  sj_util_funcs funcs = parser->funcs;
  funcs.release(funcs.user, parser);
}

sj_parser* sj_get_dummy_parser(const sj_util_funcs* funcs) {
  dummy_parser = sj_parser{};
  dummy_parser.start = dummy_parser.current = dummy_document;
  if (funcs)
    dummy_parser.funcs = *funcs;
  else
    sj_set_default_util_funcs(&dummy_parser.funcs);
  return &dummy_parser;
}

const char* sj_parser_strerror(const sj_parser* parser) {
  int saved_errno = errno;
  static MessageBuffer out;
  out = MessageBuffer();
  int code = parser->error;
  if (code == SJ_OK) {
    out.append("%s", kMessages[SJ_OK]);
    return out.text();
  }
  if (code > 0 && code < kMessageCount)
    append_message(out, kMessages[code], parser->detail);
  else
    out.append("unknown error code");
  out.append(" Error occured at offset %zu",
             static_cast<size_t>(parser->current - parser->start));
  unsigned char c = static_cast<unsigned char>(*parser->current);
  if (c >= 32 && c <= 126)
    out.append(", character '%c'. ", c);
  else
    out.append(", character '\\x%.02x'. ", c);
  if (saved_errno != 0)
    out.append("Also system error occured: %s (%d).", strerror(saved_errno),
               saved_errno);
  errno = saved_errno;
  return out.text();
}

void sj_skip_whitespace(sj_parser* parser) {
  char* p = parser->current;
  while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\v' || *p == '\f' ||
         *p == '\r')
    ++p;
  parser->current = p;
}

int sj_peek_is_boolean(const sj_parser* parser) {
  return *parser->current == 't' || *parser->current == 'f';
}
int sj_peek_is_null(const sj_parser* parser) {
  return *parser->current == 'n';
}
int sj_peek_is_number(const sj_parser* parser) {
  return *parser->current == '-' || is_digit(*parser->current);
}
int sj_peek_is_string(const sj_parser* parser) {
  return *parser->current == '"';
}
int sj_peek_is_object(const sj_parser* parser) {
  return *parser->current == '{';
}
int sj_peek_is_array(const sj_parser* parser) {
  return *parser->current == '[';
}

int sj_parse_boolean(sj_parser* parser) {
  if (parser->error)
    return 0;
  sj_skip_whitespace(parser);
  if (consume_word(parser, "true"))
    return 1;
  if (!consume_word(parser, "false"))
    fail(parser, SJ_BOOLEAN_EXPECTED);
  return 0;
}

int sj_parse_null(sj_parser* parser) {
  if (parser->error)
    return parser->error;
  sj_skip_whitespace(parser);
  if (!consume_word(parser, "null"))
    return fail(parser, SJ_NULL_EXPECTED);
  return 0;
}

int64_t sj_parse_int64(sj_parser* parser) {
  if (parser->error)
    return 0;
  sj_skip_whitespace(parser);
  return parse_integer<int64_t>(parser, strtoll);
}

uint64_t sj_parse_uint64(sj_parser* parser) {
  if (parser->error)
    return 0;
  sj_skip_whitespace(parser);
  // strtoull() would quietly negate a "-"
  if (*parser->current == '-') {
    fail(parser, SJ_BAD_NUMBER_FORMAT);
    return 0;
  }
  return parse_integer<uint64_t>(parser, strtoull);
}

int32_t sj_parse_int(sj_parser* parser) {
  return parse_narrow<int32_t, int64_t>(parser, sj_parse_int64,
                                        INT64_C(-2147483648),
                                        INT64_C(2147483647));
}

uint32_t sj_parse_uint(sj_parser* parser) {
  return parse_narrow<uint32_t, uint64_t>(parser, sj_parse_uint64,
                                          UINT64_C(0), UINT64_C(4294967295));
}

int sj_skip_number(sj_parser* parser) {
  if (parser->error)
    return parser->error;
  sj_skip_whitespace(parser);
  char*& p = parser->current;
  if (*p == '-')
    ++p;
  while (is_digit(*p))
    ++p;
  if (*p == '.') {
    ++p;
    if (!is_digit(*p))
      return fail(parser, SJ_BAD_NUMBER_FORMAT);
    while (is_digit(*p))
      ++p;
  }
  if (*p == 'e' || *p == 'E') {
    ++p;
    if (*p == '+' || *p == '-')
      ++p;
    if (!is_digit(*p))
      return fail(parser, SJ_BAD_NUMBER_FORMAT);
    while (is_digit(*p))
      ++p;
  }
  return 0;
}

char* sj_parse_string(sj_parser* parser) {
  size_t length = 0;
  return parse_string(parser, false, &length);
}

char* sj_parse_utf8_string(sj_parser* parser, size_t* length) {
  *length = 0;
  return parse_string(parser, true, length);
}

int sj_parse_object_start(sj_parser* parser) {
  if (parser->error)
    return parser->error;
  return consume(parser, '{') ? 0 : fail(parser, SJ_OBJECT_EXPECTED);
}

int sj_parse_object_end_if_empty(sj_parser* parser) {
  if (parser->error)
    return 0;
  return consume(parser, '}');
}

char* sj_parse_object_key(sj_parser* parser) {
  char* key = sj_parse_string(parser);
  if (key && !consume(parser, ':'))
    fail(parser, SJ_NAME_SEPARATOR_EXPECTED);
  return key;
}

int sj_parse_object_next(sj_parser* parser) {
  if (parser->error)
    return parser->error;
  if (consume(parser, ','))
    return 0;
  if (consume(parser, '}'))
    return 1;
  return fail(parser, SJ_OBJECT_SEPARATOR_EXPECTED);
}

int sj_parse_array_start(sj_parser* parser) {
  if (parser->error)
    return parser->error;
  return consume(parser, '[') ? 0 : fail(parser, SJ_ARRAY_EXPECTED);
}

int sj_parse_array_end_if_empty(sj_parser* parser) {
  if (parser->error)
    return 0;
  return consume(parser, ']');
}

int sj_parse_array_next(sj_parser* parser) {
  if (parser->error)
    return parser->error;
  if (consume(parser, ','))
    return 0;
  if (consume(parser, ']'))
    return 1;
  return fail(parser, SJ_ARRAY_SEPARATOR_EXPECTED);
}

int sj_skip_value(sj_parser* parser) { return skip_value(parser, 0); }

int sj_skip_object(sj_parser* parser) {
  return skip_container(parser, kObject, 0);
}

int sj_skip_array(sj_parser* parser) {
  return skip_container(parser, kArray, 0);
}
