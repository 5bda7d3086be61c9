// The program's own exception for a failure told to the caller in plain words.
#ifndef DRAVNIK_UTIL_EXCEPTION_H_
#define DRAVNIK_UTIL_EXCEPTION_H_

#include <stdexcept>
#include <string>

namespace tavix {

class TavixUtilException : public std::runtime_error {
 public:
  explicit TavixUtilException(const std::string& what) : std::runtime_error(what) {}
};

}  // namespace tavix

#endif  // DRAVNIK_UTIL_EXCEPTION_H_
