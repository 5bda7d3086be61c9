// Ownership of buffers that C libraries hand out with malloc(): the buffer is
// released with free() when the owner goes out of scope, on every path.
#ifndef DRAVNIK_UTIL_UNIQUE_FREE_H_
#define DRAVNIK_UTIL_UNIQUE_FREE_H_

#include <cstdlib>
#include <memory>

namespace tavix {

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

template <class T>
using unique_free = std::unique_ptr<T, FreeDeleter>;

}  // namespace tavix

#endif  // DRAVNIK_UTIL_UNIQUE_FREE_H_
