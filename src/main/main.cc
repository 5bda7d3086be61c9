#include <cstddef>
#include <exception>
#include <iostream>

#include "commands/password.h"
#include "main/dispatch.h"
#include "util/exception.h"
#include "util/log.h"

int main(int argc, char** argv) {
  // Before anything can start a child (qmail-newu, sed, a rename plug-in):
  // the passwords must reach none, whatever the command.
  take_env_passwords();

  // Syslog as "dravnik" on the mail facility, informational and above, each
  // line copied to standard error.
  tavix_log_init(NULL, 6, 16, 32, "dravnik");

  try {
    return do_main(argc, argv);
  } catch (tavix::TavixUtilException const& e) {
    // Meant for the user: the control panel reads standard output, a person
    // at a terminal reads standard error.
    std::cout << e.what() << std::endl;
    std::cerr << e.what() << std::endl;
    return 1;
  } catch (std::exception const& e) {
    tavix::reportException<std::exception>(e);
    return 1;
  } catch (...) {
    tavix::reportUntypedException();
    return 2;
  }
}
