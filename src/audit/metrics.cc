#include "audit/metrics.h"

#include <cstdio>
#include <map>

#include "util/atomic_file.h"

namespace tavix {
namespace audit {

namespace {

void Header(const char* name, const char* help, std::string* out) {
  *out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " gauge\n";
}

void Sample(const char* name, double value, std::string* out) {
  char number[64];
  // %.17g keeps a time stamp's milliseconds and prints counts as integers.
  snprintf(number, sizeof number, "%.17g", value);
  *out += std::string(name) + " " + number + "\n";
}

}  // namespace

std::string FormatMetrics(const RunMetrics& metrics) {
  std::string out;
  if (metrics.checked) {
    std::map<std::string, size_t> by_kind;
    for (const char* kind : kFindingKinds) by_kind[kind] = 0;
    for (const Finding& f : metrics.findings) ++by_kind[f.kind];
    Header("dravnik_audit_findings", "Findings of the last audit, by kind.", &out);
    for (const auto& kind : by_kind) {
      // Kinds are lower-case words and hyphens: nothing to escape.
      std::string name = "dravnik_audit_findings{kind=\"" + kind.first + "\"}";
      Sample(name.c_str(), static_cast<double>(kind.second), &out);
    }
    const struct {
      const char* name;
      const char* help;
      size_t value;
    } counts[] = {
        {"dravnik_audit_domains", "Mail domains that qmail's files know.",
         metrics.census.domains},
        {"dravnik_audit_mailnames", "Mail names with a line in users/assign.",
         metrics.census.mailnames},
        {"dravnik_audit_mailboxes", "Mail names whose .qmail delivers to their Maildir.",
         metrics.census.mailboxes},
    };
    for (const auto& count : counts) {
      Header(count.name, count.help, &out);
      Sample(count.name, static_cast<double>(count.value), &out);
    }
  }
  bool complete = metrics.checked && metrics.unreadable == 0;
  Header("dravnik_audit_read_complete",
         "1 when the last audit could read everything it checks, else 0.", &out);
  Sample("dravnik_audit_read_complete", complete ? 1 : 0, &out);
  Header("dravnik_audit_unreadable", "Files, directories and databases the last audit could "
         "not read (named in its output).", &out);
  Sample("dravnik_audit_unreadable", static_cast<double>(metrics.unreadable), &out);
  Header("dravnik_audit_duration_seconds", "How long the last audit took.", &out);
  Sample("dravnik_audit_duration_seconds", metrics.duration_seconds, &out);
  Header("dravnik_audit_last_run_timestamp_seconds", "When the last audit ended.", &out);
  Sample("dravnik_audit_last_run_timestamp_seconds", metrics.finished, &out);
  return out;
}

bool WriteMetrics(const std::string& path, const std::string& text) {
  AtomicFile file;
  // The temporary name does not end in ".prom": the collector skips it.
  if (!file.create(path, name_beside(path, ".XXXXXX"), AtomicFile::Temp::kUnique, 0644))
    return false;
  // Whatever the umask: the collector runs as an account of its own.
  return file.write(text) && file.set_mode(0644) && file.commit();
}

}  // namespace audit
}  // namespace tavix
