#include "util/strings.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "util/log.h"

namespace {

size_t array_count(char* const* array) {
  size_t count = 0;
  if (array) {
    while (array[count])
      ++count;
  }
  return count;
}

}  // namespace

char** string_to_mas(char** array, const char* str) {
  size_t count = array_count(array);
  char* copy = strdup(str);
  // Room for the new string, the terminator and one spare slot.
  char** grown = copy ? static_cast<char**>(
                            realloc(array, (count + 3) * sizeof(char*)))
                      : nullptr;
  if (!grown) {
    int saved = errno;
    free(copy);
    free_array(array);
    tavix_log(3, "System error: %s\n", strerror(saved));
    errno = saved;
    return nullptr;
  }
  grown[count] = copy;
  grown[count + 1] = nullptr;
  return grown;
}

void free_array(char** array) {
  if (!array)
    return;
  for (char** p = array; *p; ++p)
    free(*p);
  free(array);
}

char** string_split(const char* text, const char* delimiters) {
  std::string field;
  char** fields = nullptr;
  const char* p = text;
  for (;;) {
    p += strspn(p, delimiters);
    size_t length = strcspn(p, delimiters);
    bool last = p[length] == '\0';
    try {
      field.assign(p, length);
    } catch (const std::bad_alloc&) {
      free_array(fields);
      tavix_log(3, "System error: %s\n", strerror(ENOMEM));
      return nullptr;
    }
    fields = string_to_mas(fields, field.c_str());
    if (!fields) {
      tavix_log(3, "Unable to add string into array");
      return nullptr;
    }
    if (last)
      return fields;
    p += length + 1;
  }
}

void strtolower(char* str) {
  if (!str)
    return;
  for (; *str; ++str)
    *str = static_cast<char>(tolower(static_cast<unsigned char>(*str)));
}

namespace tavix {

std::string json_quote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (c < 0x20) {
          char escaped[8];
          snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string hex_string(const unsigned char* bytes, size_t length) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (size_t i = 0; i < length; ++i) {
    hex += kDigits[bytes[i] >> 4];
    hex += kDigits[bytes[i] & 0xf];
  }
  return hex;
}

}  // namespace tavix
