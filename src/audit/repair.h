// Setting right what can be set right without losing anything. Every
// change goes through the same locked, atomic editing the commands use; no
// mail, no directory and no link is ever removed, and nothing is done
// through a symbolic link.
#ifndef DRAVNIK_AUDIT_REPAIR_H_
#define DRAVNIK_AUDIT_REPAIR_H_

#include <string>
#include <vector>

#include "audit/finding.h"

namespace tavix {
namespace audit {

struct Repaired {
  const Finding* finding;
  bool ok;
  std::string what;  // what was done, or why it failed
};

// Repairs each finding that has a fix, in an order that lets later fixes
// build on earlier ones; users/assign is compiled once at the end when it
// changed or its database was outdated. `lock_wait_ms` bounds the wait for
// the lock of a leftover temporary file's target.
std::vector<Repaired> Repair(const std::vector<Finding>& findings, int lock_wait_ms);

}  // namespace audit
}  // namespace tavix

#endif  // DRAVNIK_AUDIT_REPAIR_H_
