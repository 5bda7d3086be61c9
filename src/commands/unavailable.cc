#include "commands/unavailable.h"

#include <iostream>

namespace tavix {
namespace mail {
namespace dravnik_commands {

int commandUnavailable(char const* commandWord) {
  std::cerr << "dravnik: " << commandWord << " is not available in this build" << std::endl;
  return 1;
}

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix
