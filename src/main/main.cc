#include <cstddef>

#include "commands/password.h"
#include "main/dispatch.h"
#include "util/fs.h"
#include "util/log.h"

int main(int argc, char** argv) {
  // Before anything can start a child (qmail-newu, sed, a rename plug-in):
  // the passwords must reach none, whatever the command.
  take_env_passwords();
  use_program_umask();

  // Syslog as "dravnik" on the mail facility, informational and above, each
  // line copied to standard error.
  tavix_log_init(NULL, 6, 16, 32, "dravnik");

  return run_command(argc, argv);
}
