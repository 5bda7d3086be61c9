// What a domain does with mail to names it does not have, as the operator
// chose it with "--set-bounce", "--set-catchall" or "--set-reject".
#ifndef DRAVNIK_COMMANDS_NONEXISTING_ACTION_H_
#define DRAVNIK_COMMANDS_NONEXISTING_ACTION_H_

#include <string>

#include "commands/program_options_helper.h"

namespace tavix {
namespace mail {
namespace dravnik_commands {

struct NonexistingMailnamesAction {
  enum { kBounce = 0, kCatchAll = 1, kReject = 2 };

  int type = kReject;
  std::string phrase;  // bounce text
  std::string email;   // catch-all address, domain part in ASCII form
};

// From the parsed options; the first of bounce, catch-all and reject given
// wins. Throws MissingMandatoryOption when none is given or the catch-all
// address is empty, and TavixUtilException when the chosen bounce text or
// address holds a character that could split the domain's delivery line.
NonexistingMailnamesAction buildNotexistingMailnamesAction(ProgramOptionsHelper const& helper);

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_COMMANDS_NONEXISTING_ACTION_H_
