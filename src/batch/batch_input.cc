#include "batch/batch_input.h"

#include <errno.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <utility>

#include "maildata/json_parser.h"

namespace tavix {
namespace batch {

namespace {

struct ParserFree {
  void operator()(sj_parser* parser) const { sj_free_parser(parser); }
};
using Parser = std::unique_ptr<sj_parser, ParserFree>;

// One string of argv or a password: UTF-8 text, as a command line or the
// environment carries it. Neither can carry a NUL, and cutting the text
// there would act on another value than the one given.
bool read_text(sj_parser* parser, const std::string& what, std::string* value,
               std::string* error) {
  size_t length = 0;
  const char* text = sj_parse_utf8_string(parser, &length);
  if (parser->error) {
    *error = what + " is not a JSON string of UTF-8 text: " + sj_parser_strerror(parser);
    return false;
  }
  if (memchr(text, '\0', length) != nullptr) {
    *error = what + " holds a NUL character (\\u0000), which no argument can carry";
    return false;
  }
  value->assign(text, length);
  return true;
}

bool read_argv(sj_parser* parser, std::vector<std::string>* argv, std::string* error) {
  if (sj_parse_array_start(parser) != 0)
    return false;
  if (sj_parse_array_end_if_empty(parser))
    return true;
  do {
    std::string word;
    if (!read_text(parser, "\"argv\" word " + std::to_string(argv->size() + 1), &word, error))
      return false;
    argv->push_back(std::move(word));
  } while (sj_parse_array_next(parser) == 0);
  return parser->error == 0 || parser->error == SJ_END_OF_CONTAINER;
}

bool read_password(sj_parser* parser, const char* key, std::optional<std::string>* value,
                   std::string* error) {
  std::string text;
  if (!read_text(parser, std::string("\"") + key + "\"", &text, error))
    return false;
  *value = std::move(text);
  return true;
}

// The document is passed on as written: its bytes in `original` from where
// the value starts to where it ends. The parser unescapes strings in its
// own copy only.
bool read_document(sj_parser* parser, const std::string& original,
                   std::optional<std::string>* document) {
  sj_skip_whitespace(parser);
  if (!sj_peek_is_object(parser)) {
    parser->error = SJ_OBJECT_EXPECTED;
    return false;
  }
  size_t const start = parser->current - parser->start;
  if (sj_skip_value(parser) != 0)
    return false;
  *document = original.substr(start, parser->current - parser->start - start);
  return true;
}

bool read_member(sj_parser* parser, const char* key, const std::string& original,
                 std::set<std::string>* seen, Command* command, std::string* error) {
  // A member given twice would add words to argv or replace a value.
  if (!seen->insert(key).second) {
    *error = std::string("member \"") + key + "\" given twice";
    return false;
  }
  if (strcmp(key, "argv") == 0)
    return read_argv(parser, &command->argv, error);
  if (strcmp(key, "stdin") == 0)
    return read_document(parser, original, &command->stdin_text);
  if (strcmp(key, "password") == 0)
    return read_password(parser, key, &command->password, error);
  if (strcmp(key, "crypted_password") == 0)
    return read_password(parser, key, &command->crypted_password, error);
  *error = std::string("unknown member \"") + key + "\"";
  return false;
}

}  // namespace

bool is_blank(const std::string& line) {
  return line.find_first_not_of(" \t\r\n") == std::string::npos;
}

bool parse_command(const std::string& line, Command* command, std::string* error) {
  errno = 0;  // the parser's message shows errno when it is set
  std::string buffer = line;
  Parser parser(sj_create_parser(&buffer[0], nullptr));
  if (!parser) {
    *error = "out of memory";
    return false;
  }
  sj_parser* p = parser.get();
  std::set<std::string> seen;
  bool ok = sj_parse_object_start(p) == 0;
  if (ok && !sj_parse_object_end_if_empty(p)) {
    do {
      const char* key = sj_parse_object_key(p);
      if (p->error || !read_member(p, key, line, &seen, command, error)) {
        ok = false;
        break;
      }
    } while (sj_parse_object_next(p) == 0);
    if (p->error == SJ_END_OF_CONTAINER)
      p->error = 0;
  }
  if (ok && p->error == 0) {
    sj_skip_whitespace(p);
    // A NUL byte in the line ends the parser's buffer early.
    if (static_cast<size_t>(p->current - p->start) != line.size())
      *error = "text after the command's object";
  }
  if (error->empty() && (p->error != 0 || !ok))
    *error = std::string("not a JSON object: ") + sj_parser_strerror(p);
  if (error->empty() && command->argv.empty())
    *error = "no \"argv\" with the command word";
  return error->empty();
}

}  // namespace batch
}  // namespace tavix
