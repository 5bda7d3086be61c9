#include "util/traceback.h"

#include <cxxabi.h>
#include <execinfo.h>

namespace tavix {

Traceback::Traceback(unsigned long skip_frames)
    : size(0), skip(skip_frames), frames() {
  int captured = backtrace(frames, kDepth);
  size = captured > 0 ? static_cast<uint64_t>(captured) : 0;
  if (skip > size)
    skip = size;
}

Traceback::~Traceback() = default;

std::string SymbolLineDemangler::operator()(const std::string& line) {
  size_t open = line.find('(');
  if (open == std::string::npos)
    return line;
  size_t plus = line.find('+', open + 1);
  if (plus == std::string::npos)
    return line;
  std::string mangled = line.substr(open + 1, plus - open - 1);
  int status = 0;
  // On success the demangler may have replaced (and freed) our buffer; on
  // failure it leaves the buffer alone.
  char* name =
      abi::__cxa_demangle(mangled.c_str(), buffer_.get(), &length_, &status);
  if (name == nullptr || status != 0)
    return line;
  buffer_.release();
  buffer_.reset(name);
  return line.substr(0, open + 1) + name + line.substr(plus);
}

std::ostream& operator<<(std::ostream& out, const Traceback& tb) {
  if (!tb.symbols)
    tb.symbols.reset(backtrace_symbols(tb.frames, static_cast<int>(tb.size)));

  if (tb.symbols) {
    out << "Traceback:" << std::endl;
    SymbolLineDemangler demangle;
    for (uint64_t i = tb.skip; i < tb.size; ++i)
      out << '\t' << demangle(tb.symbols.get()[i]) << std::endl;
  } else {
    out << "Traceback addresses:" << std::endl;
    for (uint64_t i = tb.skip; i < tb.size; ++i)
      out << '\t' << tb.frames[i] << std::endl;
  }
  return out;
}

}  // namespace tavix
