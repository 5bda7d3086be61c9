#include "fuzz_support.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/log.h"

namespace {

void discard_logv(int, const char* format, va_list ap) {
  char text[1024];
  vsnprintf(text, sizeof text, format, ap);
}

void discard_log(int priority, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  discard_logv(priority, format, ap);
  va_end(ap);
}

}  // namespace

void quiet_logging() {
  tavix_log = discard_log;
  tavix_logv = discard_logv;
}

std::string input_text(const uint8_t* data, size_t size) {
  if (size == 0)
    return std::string();
  const char* text = reinterpret_cast<const char*>(data);
  return std::string(text, strnlen(text, size));
}

void require(bool holds, const char* property) {
  if (holds)
    return;
  fprintf(stderr, "property violated: %s\n", property);
  abort();
}
