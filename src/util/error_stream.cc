#include "util/error_stream.h"

#include <iostream>

namespace tavix {

UtilityErrorStream uerr;

// Flushing here as well means text written without a final std::endl still
// reaches standard output when the program ends.
UtilityErrorStreamBuf::~UtilityErrorStreamBuf() {
  sync();
}

int UtilityErrorStreamBuf::sync() {
  std::cerr.flush();
  std::cout << buffer_;
  std::cout.flush();
  buffer_.clear();
  return 0;
}

// There is no put area, so every character comes through here: it goes to
// standard error at once and waits for the next flush to reach standard
// output in one piece.
UtilityErrorStreamBuf::int_type UtilityErrorStreamBuf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof()))
    return c;
  const char ch = traits_type::to_char_type(c);
  std::cerr.put(ch);
  buffer_ += ch;
  return c;
}

// The base is built before buf_, so the buffer is attached once it exists.
UtilityErrorStream::UtilityErrorStream() : std::ostream(nullptr) {
  init(&buf_);
}

}  // namespace tavix
