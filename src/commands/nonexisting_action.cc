#include "commands/nonexisting_action.h"

#include <syslog.h>

#include "qmail/nonexisting_mail.h"
#include "util/exception.h"
#include "util/idn.h"
#include "util/log.h"

namespace tavix {
namespace mail {
namespace dravnik_commands {

NonexistingMailnamesAction buildNotexistingMailnamesAction(ProgramOptionsHelper const& helper) {
  boost::program_options::variables_map const& vars = helper.variables();
  NonexistingMailnamesAction action;

  // Callers may pass several switches; the bounce is the safest of them and
  // wins, then the catch-all, and the reject only when it is alone.
  if (vars.count("set-bounce")) {
    action.type = NonexistingMailnamesAction::kBounce;
    if (vars.count("phrase"))
      action.phrase = vars["phrase"].as<std::string>();
    if (!is_bounce_text_safe(action.phrase.c_str()))
      throw TavixUtilException(
          "The bounce text must not contain a control character other than a newline.");
    return action;
  }
  if (vars.count("set-catchall")) {
    // Without "--email" the value cannot be read at all; that bad cast is a
    // caller's mistake and reaches main() as such.
    std::string const given = vars["email"].as<std::string>();
    // Refused before anything else looks at it: the address ends up in a
    // delivery line, which a newline in it would split in two.
    if (!is_catchall_address_safe(given.c_str()))
      throw TavixUtilException(
          "The catch-all address must not contain a newline or another control character.");
    std::string email = tavix::idn::emailToAscii(given);
    if (email.empty())
      throw MissingMandatoryOption("email");
    action.type = NonexistingMailnamesAction::kCatchAll;
    action.email = email;
    return action;
  }
  if (vars.count("set-reject")) {
    action.type = NonexistingMailnamesAction::kReject;
    return action;
  }
  tavix_log(LOG_ERR,
            "Action for notexisting mail names is not specified "
            "(--set-bounce/--set-catchall/--set-reject)");
  // The option's text wraps the name in `"--` and `"`, so the three names
  // read as one list of alternatives.
  throw MissingMandatoryOption("set-bounce\" or \"--set-catchall\" or \"--set-reject");
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
