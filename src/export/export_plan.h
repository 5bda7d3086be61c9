// What dravnik-export writes: from a server as the audit reads it, the
// dravnik commands that make the same mail setup on an empty server, as
// lines dravnik-batch applies, and the list of what no command can make.
//
// Nothing is guessed: what the files and databases say is turned into the
// commands that leave exactly that, and whatever those commands would leave
// differently (a custom .qmail-default, handler rows, a password record that
// does not follow its mail name, anything the audit finds) is named instead.
#ifndef DRAVNIK_EXPORT_EXPORT_PLAN_H_
#define DRAVNIK_EXPORT_EXPORT_PLAN_H_

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "audit/checks.h"
#include "audit/finding.h"

namespace tavix {
namespace exporter {

// One command of the batch: what dravnik gets after its name, the session
// mail data it reads with --wait-stdin (a JSON object, "" for none) and
// the passwords that stand for ZON_PASSWORD and ZON_CRYPTED_PASSWORD.
struct BatchLine {
  std::vector<std::string> argv;
  std::string stdin_json;
  std::optional<std::string> password;
  std::optional<std::string> crypted_password;
};

// The line as dravnik-batch reads it, without its newline.
std::string ToJson(const BatchLine& line);

// What the plan asks of the server beyond the state read.
struct Lookups {
  // The clear text of a password stored encrypted for `address`; false
  // when it cannot be decrypted.
  std::function<bool(const std::string& address, const std::string& stored,
                     std::string* clear)>
      decrypt;
  // Whether `domain` has DomainKeys.
  std::function<bool(const std::string& domain)> has_domainkeys;
};

struct Plan {
  std::vector<BatchLine> lines;
  // Each a sentence naming what the batch does not carry; any makes the
  // export incomplete.
  std::vector<std::string> omissions;
  // Exported domains with mail names, whose mail content goes separately.
  std::vector<std::string> mail_domains;
};

// The commands for the domains of `state` (all, or those of `selected`,
// given in lower-case ASCII, with their aliases), in an order dravnik-batch
// can apply, and what they leave out; `findings` are the audit's for the
// same state.
Plan MakePlan(const audit::ServerState& state, const std::vector<audit::Finding>& findings,
              const std::vector<std::string>& selected, const Lookups& lookups);

// The disk quota to give a mailbox for the limit a maildirsize header
// states: -1 for none (0), 0 for the blocking limit 1, and otherwise the
// limit plus what @attachments holds, which a quota is set net of.
long long QuotaForLimit(long long size_limit, long long attachments_bytes);

}  // namespace exporter
}  // namespace tavix

#endif  // DRAVNIK_EXPORT_EXPORT_PLAN_H_
