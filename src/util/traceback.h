// A mixin for exception classes that records the stack where it was built.
#ifndef DRAVNIK_UTIL_TRACEBACK_H_
#define DRAVNIK_UTIL_TRACEBACK_H_

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

#include "util/unique_free.h"

namespace tavix {

class Traceback {
 public:
  // `skip` innermost frames (this constructor, the thrower's helpers) are
  // left out when printing.
  explicit Traceback(unsigned long skip);
  virtual ~Traceback();
  Traceback(const Traceback&) = delete;
  Traceback& operator=(const Traceback&) = delete;

  friend std::ostream& operator<<(std::ostream& out, const Traceback& tb);

 private:
  static const int kDepth = 11;
  uint64_t size;
  uint64_t skip;
  void* frames[kDepth];
  mutable unique_free<char*> symbols;  // filled on first print
};

std::ostream& operator<<(std::ostream& out, const Traceback& tb);

// Rewrites a backtrace_symbols() line "file(mangled+offset) [address]" with
// the demangled function name; other lines come back unchanged. One output
// buffer serves all the lines given to the same object.
class SymbolLineDemangler {
 public:
  std::string operator()(const std::string& line);

 private:
  unique_free<char> buffer_;
  size_t length_ = 0;
};

}  // namespace tavix

#endif  // DRAVNIK_UTIL_TRACEBACK_H_
