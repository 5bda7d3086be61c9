// The commands of a batch: JSON Lines, one command per line,
//   {"argv": ["--add-mailname", "--domain-name=example.com", "--mailname=john"],
//    "stdin": {...}, "password": "...", "crypted_password": "..."}
// where argv is what dravnik gets after its name, stdin the session mail
// data document it would read from standard input, and the passwords stand
// for ZON_PASSWORD and ZON_CRYPTED_PASSWORD. The words of argv and the
// passwords are UTF-8 text, written as it is or with "\u" escapes, as a
// command line and the environment carry them: anything but a NUL. The
// document is taken as the command's own reader takes it (ASCII).
#ifndef DRAVNIK_BATCH_BATCH_INPUT_H_
#define DRAVNIK_BATCH_BATCH_INPUT_H_

#include <optional>
#include <string>
#include <vector>

namespace tavix {
namespace batch {

struct Command {
  std::vector<std::string> argv;
  std::optional<std::string> stdin_text;  // the document as it was written
  std::optional<std::string> password;
  std::optional<std::string> crypted_password;
};

// Reads one line. False with `*error` saying what is wrong with it; each
// member may be given once.
bool parse_command(const std::string& line, Command* command, std::string* error);

// True for a line that holds no command (only blanks).
bool is_blank(const std::string& line);

}  // namespace batch
}  // namespace tavix

#endif  // DRAVNIK_BATCH_BATCH_INPUT_H_
