// tavix::uerr: the stream the program's failure reports are written to.
// Every character reaches standard error at once; at each flush the text
// written since the last flush is copied to standard output as well, because
// the control panel that runs the program reads standard output.
#ifndef DRAVNIK_UTIL_ERROR_STREAM_H_
#define DRAVNIK_UTIL_ERROR_STREAM_H_

#include <ostream>
#include <streambuf>
#include <string>

namespace tavix {

class UtilityErrorStreamBuf : public std::streambuf {
 public:
  ~UtilityErrorStreamBuf() override;

 protected:
  int sync() override;
  int_type overflow(int_type c) override;

 private:
  std::string buffer_;
};

class UtilityErrorStream : public std::ostream {
 public:
  UtilityErrorStream();

 private:
  UtilityErrorStreamBuf buf_;
};

extern UtilityErrorStream uerr;

}  // namespace tavix

#endif  // DRAVNIK_UTIL_ERROR_STREAM_H_
