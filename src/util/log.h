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

// Prints `text` on standard error and then on standard output, each ended by
// a newline; exits with `exit_code` when it is non-zero.
int ex_messlog(const char* text, int exit_code, int flag = 0);

// Formats a user message, appends "\nSystem error %d: %s" when errno is set,
// prints it through ex_messlog. A non-zero exit_code ends the process.
void vmesslog2(int exit_code, int flag, const char* format, va_list ap)
    __attribute__((format(printf, 3, 0)));
void messlog2(int exit_code, int flag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif  // DRAVNIK_UTIL_LOG_H_
