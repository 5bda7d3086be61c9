#include "audit/finding.h"

#include <cstdio>
#include <map>

#include "util/strings.h"

namespace tavix {
namespace audit {

bool IsFindingKind(const std::string& kind) {
  for (const char* known : kFindingKinds)
    if (kind == known) return true;
  return false;
}

void PrintJson(const Finding& finding, const std::string& repair, std::ostream& out) {
  const std::pair<const char*, const std::string*> fields[] = {
      {"kind", &finding.kind},     {"domain", &finding.domain}, {"mailname", &finding.mailname},
      {"path", &finding.path},     {"detail", &finding.detail}, {"repair", &repair}};
  const char* separator = "{";
  for (const auto& field : fields) {
    if (field.second->empty())
      continue;
    out << separator << json_quote(field.first) << ": " << json_quote(*field.second);
    separator = ", ";
  }
  out << "}\n";
}

void PrintText(const std::vector<Finding>& findings, std::ostream& out) {
  // Server-wide findings sort first: their group name is empty.
  std::map<std::string, std::vector<const Finding*>> by_domain;
  std::map<std::string, int> by_kind;
  for (const Finding& finding : findings) {
    by_domain[finding.domain].push_back(&finding);
    ++by_kind[finding.kind];
  }
  for (const auto& group : by_domain) {
    out << (group.first.empty() ? "server" : group.first) << ":\n";
    for (const Finding* f : group.second) {
      out << "  " << f->kind;
      if (!f->mailname.empty())
        out << " " << f->mailname;
      if (!f->path.empty())
        out << " " << f->path;
      out << ": " << f->detail << "\n";
    }
  }
  if (findings.empty()) {
    out << "no findings\n";
    return;
  }
  out << findings.size() << (findings.size() == 1 ? " finding" : " findings");
  size_t domains = by_domain.size() - by_domain.count("");
  out << " in " << domains << (domains == 1 ? " domain" : " domains") << ":";
  const char* separator = " ";
  for (const auto& kind : by_kind) {
    out << separator << kind.first << " " << kind.second;
    separator = ", ";
  }
  out << "\n";
}

}  // namespace audit
}  // namespace tavix
