// Stand-in for the operations that this build does not contain yet: each
// command parses and checks its options fully, then ends here.
#ifndef DRAVNIK_COMMANDS_UNAVAILABLE_H_
#define DRAVNIK_COMMANDS_UNAVAILABLE_H_

namespace tavix {
namespace mail {
namespace dravnik_commands {

// Says on standard error that `commandWord` is not available; returns 1.
int commandUnavailable(char const* commandWord);

}  // namespace dravnik_commands
}  // namespace mail
}  // namespace tavix

#endif  // DRAVNIK_COMMANDS_UNAVAILABLE_H_
