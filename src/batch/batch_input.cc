#include "batch/batch_input.h"

#include <errno.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "maildata/json_parser.h"

namespace tavix {
namespace batch {

namespace {

struct ParserFree {
  void operator()(sj_parser* parser) const { sj_free_parser(parser); }
};
using Parser = std::unique_ptr<sj_parser, ParserFree>;

bool read_string(sj_parser* parser, std::optional<std::string>* value) {
  const char* text = sj_parse_string(parser);
  if (parser->error)
    return false;
  *value = text;
  return true;
}

bool read_argv(sj_parser* parser, std::vector<std::string>* argv) {
  if (sj_parse_array_start(parser) != 0)
    return false;
  if (sj_parse_array_end_if_empty(parser))
    return true;
  do {
    const char* word = sj_parse_string(parser);
    if (parser->error)
      return false;
    argv->push_back(word);
  } while (sj_parse_array_next(parser) == 0);
  return parser->error == 0 || parser->error == SJ_END_OF_CONTAINER;
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
                 Command* command, std::string* error) {
  if (strcmp(key, "argv") == 0)
    return read_argv(parser, &command->argv);
  if (strcmp(key, "stdin") == 0)
    return read_document(parser, original, &command->stdin_text);
  if (strcmp(key, "password") == 0)
    return read_string(parser, &command->password);
  if (strcmp(key, "crypted_password") == 0)
    return read_string(parser, &command->crypted_password);
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
  bool ok = sj_parse_object_start(p) == 0;
  if (ok && !sj_parse_object_end_if_empty(p)) {
    do {
      const char* key = sj_parse_object_key(p);
      if (p->error || !read_member(p, key, line, command, error)) {
        ok = false;
        break;
      }
    } while (sj_parse_object_next(p) == 0);
    if (p->error == SJ_END_OF_CONTAINER)
      p->error = 0;
  }
  if (ok && p->error == 0) {
    sj_skip_whitespace(p);
    if (*p->current != '\0')
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
