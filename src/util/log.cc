#include "util/log.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>

#include <new>
#include <string>

tavix_log_fn tavix_log = _tavix_utility_log;
tavix_logv_fn tavix_logv = _tavix_utility_logv;

int LogFacility = LOG_MAIL;
int LogLevel = LOG_INFO;
int LogEnabled = 1;
const char* LogLocation = nullptr;
char* PROGNAME = nullptr;

namespace {
tavix_fatal_fn fatal_handler = nullptr;
}  // namespace

namespace {

// A user message is formatted into this much room first; longer ones get a
// buffer of their own size, which leaves no room for the errno suffix.
const size_t kMessageCapacity = 4096;

bool location_is(const char* name) {
  return LogLocation != nullptr && strcasecmp(LogLocation, name) == 0;
}

// The console writers print only for these locations; any other name is a
// destination this program cannot write to, so nothing is printed.
bool location_prints() {
  return LogLocation == nullptr || location_is("console") ||
         location_is("stderr");
}

// Priorities 0..level pass. Shifts outside 0..30 would be undefined, so
// levels below -1 give the empty mask (which setlogmask() ignores) and very
// large levels let everything through.
int mask_up_to(int level) {
  if (level < 0)
    return 0;
  if (level > 29)
    level = 29;
  return (1 << (level + 1)) - 1;
}

void apply_level(int level, bool to_syslog) {
  if (level < 1) {
    LogEnabled = 0;
    LogLevel = 0;
  } else {
    LogEnabled = 1;
    LogLevel = level;
  }
  if (to_syslog)
    setlogmask(mask_up_to(level));
}

void write_line(FILE* out, const char* format, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  vfprintf(out, format, copy);
  va_end(copy);
  fputc('\n', out);
  fflush(out);
}

// Formats the message as the fixed-size buffer allows and appends the
// system error when it still fits in that buffer.
std::string format_message(const char* format, va_list ap, int saved_errno) {
  std::string text(kMessageCapacity, '\0');
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(&text[0], kMessageCapacity, format, copy);
  va_end(copy);
  if (n < 0)
    n = 0;  // an unprintable format: show nothing rather than garbage
  size_t length = static_cast<size_t>(n);
  size_t capacity = kMessageCapacity;
  if (length >= kMessageCapacity) {
    try {
      text.resize(length + 1);
      va_copy(copy, ap);
      vsnprintf(&text[0], length + 1, format, copy);
      va_end(copy);
      capacity = length + 1;
    } catch (const std::bad_alloc&) {
      length = kMessageCapacity - 1;  // keep what the first pass produced
    }
  }
  text.resize(length);

  if (saved_errno != 0) {
    std::string suffix = "\nSystem error " + std::to_string(saved_errno) +
                         ": " + strerror(saved_errno);
    if (suffix.size() < capacity - length)  // room for the suffix and a NUL
      text += suffix;
  }
  return text;
}

void print_message(FILE* out, const char* prefix, const char* text) {
  if (prefix != nullptr)
    fprintf(out, "%s: ", prefix);
  fputs(text, out);
  size_t length = strlen(text);
  if (length == 0 || text[length - 1] != '\n')
    fputc('\n', out);
  fflush(out);
}

}  // namespace

void tavix_log_init(const char* location, int level, int facility, int options,
                    const char* ident) {
  LogFacility = facility;
  LogLocation = location;
  if (location != nullptr) {
    tavix_log = _tavix_utility_log;
    tavix_logv = _tavix_utility_logv;
    if (!location_is("console") && !location_is("stderr"))
      LogEnabled = 0;
  } else {
    closelog();
    openlog(ident, options | LOG_PID, facility);
    tavix_log = syslog;
    tavix_logv = vsyslog;
  }
  apply_level(level, location == nullptr);
}

void tavix_log_set_level(int level) {
  apply_level(level, LogLocation == nullptr);
}

void _tavix_utility_log(int priority, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  _tavix_utility_logv(priority, format, ap);
  va_end(ap);
}

void _tavix_utility_logv(int priority, const char* format, va_list ap) {
  if (priority > LogLevel || !location_prints())
    return;
  write_line(stderr, format, ap);
  if (!location_is("stderr"))
    write_line(stdout, format, ap);
}

int ex_messlog(const char* text, int exit_code, int /*flag*/) {
  if (text == nullptr)
    text = "";
  const char* prefix = nullptr;
  if (PROGNAME != nullptr) {
    const char* slash = strrchr(PROGNAME, '/');
    prefix = slash != nullptr ? slash + 1 : PROGNAME;
  }
  // Standard output too: the control panel that runs us reads only that.
  print_message(stderr, prefix, text);
  print_message(stdout, prefix, text);
  if (exit_code != 0)
    tavix_exit(exit_code);
  return 0;
}

void tavix_set_fatal_handler(tavix_fatal_fn handler) { fatal_handler = handler; }

void tavix::throw_command_exit(int status) { throw CommandExit{status}; }

void tavix_exit(int status) {
  if (fatal_handler != nullptr)
    fatal_handler(status);
  exit(status);
}

void vmesslog2(int exit_code, int flag, const char* format, va_list ap) {
  const int saved_errno = errno;  // before anything below can change it
  std::string text;
  try {
    text = format_message(format, ap, saved_errno);
  } catch (const std::bad_alloc&) {
    ex_messlog("Can't allocate memory for error message", exit_code, flag);
    errno = saved_errno;
    return;
  }
  ex_messlog(text.c_str(), exit_code, flag);
  errno = saved_errno;  // callers go on to report the same cause
}

void messlog2(int exit_code, int flag, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  vmesslog2(exit_code, flag, format, ap);
  va_end(ap);
}
