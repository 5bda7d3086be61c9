#include "util/shell_quote.h"

#include <array>
#include <stdexcept>

namespace {

const char kEscape = '*';  // put a backslash before the byte
const char kQuote = 'n';   // wrap the byte in single quotes
const char kCopy = '-';    // the shell takes the byte as it is

// A newline cannot be escaped with a backslash (the shell would drop both),
// so it is the one byte that gets quoted.
constexpr std::array<char, 257> make_marks() {
  std::array<char, 257> marks{};
  for (int i = 0; i < 256; ++i)
    marks[i] = kCopy;
  for (const char* p = "\t \"#$&'()*;<>?[\\`|~"; *p != '\0'; ++p)
    marks[static_cast<unsigned char>(*p)] = kEscape;
  marks['\n'] = kQuote;
  marks[256] = '\0';
  return marks;
}

constexpr std::array<char, 257> kMarks = make_marks();

const char kBadMark[] = "Internal error: bad escape_chars value";

char mark_of(char c) {
  return shell_escape_chars[static_cast<unsigned char>(c)];
}

}  // namespace

const char* shell_escape_chars = kMarks.data();

int check_shell_arg_nothrow(const char* text) {
  if (text == nullptr)
    return 1;
  for (const char* p = text; *p != '\0'; ++p) {
    if (mark_of(*p) != kCopy)
      return 0;
  }
  return 1;
}

namespace tavix {

std::string sh_quote(const std::string& text) {
  std::string quoted;
  quoted.reserve(text.size());
  for (char c : text) {
    switch (mark_of(c)) {
      case kEscape:
        quoted += '\\';
        quoted += c;
        break;
      case kQuote:
        quoted += '\'';
        quoted += c;
        quoted += '\'';
        break;
      case kCopy:
        quoted += c;
        break;
      default:
        throw std::runtime_error(kBadMark);
    }
  }
  return quoted;
}

// The message is the program's established wording for an argument that
// would need quoting.
int check_shell_arg(const char* text) {
  int ok = check_shell_arg_nothrow(text);
  if (ok == 0)
    throw std::runtime_error(kBadMark);
  return ok;
}

}  // namespace tavix
