// From the command word to the command function, and the reports of
// exceptions that escape a command.
#ifndef DRAVNIK_MAIN_DISPATCH_H_
#define DRAVNIK_MAIN_DISPATCH_H_

// Runs the command named by argv[1] with the arguments shifted by one and
// returns its result. An unknown or missing command word ends the process
// with the short usage and status 1.
int do_main(int argc, char** argv);

// do_main() with the reports main() gives: an exception that escapes the
// command is reported and gives 1 (2 for one that is no std::exception),
// and a command ended through tavix_exit() under throw_command_exit()
// (util/log.h) gives its status.
int run_command(int argc, char** argv);

// The help commands: each prints one help text on standard output and ends
// the process with status 0. Their arguments are ignored.
int usageShortCmd(int argc, char** argv);
int usageCommandsCmd(int argc, char** argv);
int usageLegacyCmd(int argc, char** argv);
int usageStdinCmd(int argc, char** argv);

namespace tavix {

// "Fatal error: <type>(<what>)" on tavix::uerr, followed by the stack where
// the exception was built when it carries one. Instantiated for
// std::exception.
template <class E>
void reportException(E const& e);

// For a thrown object that is not a std::exception.
void reportUntypedException();

}  // namespace tavix

#endif  // DRAVNIK_MAIN_DISPATCH_H_
