// Quoting of text for a shell command line.
#ifndef DRAVNIK_UTIL_SHELL_QUOTE_H_
#define DRAVNIK_UTIL_SHELL_QUOTE_H_

#include <string>

// One mark per byte: '*' escape with a backslash, 'n' quote, '-' copy.
extern const char* shell_escape_chars;

// 1 when `text` is null, empty or needs no quoting; 0 otherwise.
int check_shell_arg_nothrow(const char* text);

namespace tavix {

std::string sh_quote(const std::string& text);
// check_shell_arg_nothrow, throwing std::runtime_error where it returns 0.
int check_shell_arg(const char* text);

}  // namespace tavix

#endif  // DRAVNIK_UTIL_SHELL_QUOTE_H_
