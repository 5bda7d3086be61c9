// The leveled log and the user-facing message printers.
//
// Every module logs through the two process-wide function pointers below.
// main() points them at syslog (identity "dravnik", facility mail, with a copy
// on standard error); until then the console writers are used.
#ifndef DRAVNIK_UTIL_LOG_H_
#define DRAVNIK_UTIL_LOG_H_

#include <cstdarg>

typedef void (*tavix_log_fn)(int priority, const char* format, ...);
typedef void (*tavix_logv_fn)(int priority, const char* format, va_list ap);

extern tavix_log_fn tavix_log;
extern tavix_logv_fn tavix_logv;

extern int LogFacility;
extern int LogLevel;
extern int LogEnabled;
extern const char* LogLocation;
extern char* PROGNAME;

// location NULL: syslog with `ident`; "console": stderr and stdout;
// "stderr": stderr only; anything else: nothing.
void tavix_log_init(const char* location, int level, int facility, int options,
                    const char* ident);
void tavix_log_set_level(int level);

void _tavix_utility_log(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void _tavix_utility_logv(int priority, const char* format, va_list ap)
    __attribute__((format(printf, 2, 0)));

// What ends the process on a fatal failure. Null (the default) calls
// exit(); a program that runs several commands in one process sets a
// handler that throws, so that a command's fatal failure ends that command
// alone and its owners clean up on the way out. The handler must not
// return.
typedef void (*tavix_fatal_fn)(int status);
void tavix_set_fatal_handler(tavix_fatal_fn handler);
// Ends the command with `status` through the handler, or the process.
[[noreturn]] void tavix_exit(int status);

namespace tavix {
// What the handler of a program that runs many commands throws; the
// command runner (main/dispatch.h) turns it into the command's status. Not
// a std::exception, so that nothing on the way mistakes it for an error.
struct CommandExit {
  int status;
};
// A fatal handler that throws CommandExit.
[[noreturn]] void throw_command_exit(int status);
}  // namespace tavix

// Prints `text` on standard error and then on standard output, each ended by
// a newline; ends with tavix_exit(`exit_code`) when it is non-zero.
int ex_messlog(const char* text, int exit_code, int flag = 0);

// Formats a user message, appends "\nSystem error %d: %s" when errno is set,
// prints it through ex_messlog. A non-zero exit_code ends the process.
void vmesslog2(int exit_code, int flag, const char* format, va_list ap)
    __attribute__((format(printf, 3, 0)));
void messlog2(int exit_code, int flag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif  // DRAVNIK_UTIL_LOG_H_
