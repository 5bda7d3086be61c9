// What one run of the audit tells a monitoring system, as a file for the
// textfile collector of the Prometheus node exporter: the findings by kind,
// the size of the server, how long the run took, when it ended and whether
// it could read everything.
//
// The collector reads every *.prom file of its directory whenever it is
// scraped, so the file is replaced whole (a temporary file renamed over it):
// a scrape never sees half a run, and a run that dies leaves the last one.
#ifndef DRAVNIK_AUDIT_METRICS_H_
#define DRAVNIK_AUDIT_METRICS_H_

#include <cstddef>
#include <string>
#include <vector>

#include "audit/checks.h"
#include "audit/finding.h"

namespace tavix {
namespace audit {

struct RunMetrics {
  // False when the audit stopped before it read the server (no popuser, an
  // unexpected error): the findings and the counts are then left out rather
  // than shown as zeros, which would read as a clean server.
  bool checked = false;
  std::vector<Finding> findings;
  Census census;
  size_t unreadable = 0;  // things named on standard error as unreadable
  double duration_seconds = 0;
  double finished = 0;  // seconds since the epoch
};

// The file's text: one sample per kind of kFindingKinds (0 when none), then
// the counts, the read state, the duration and the end time.
std::string FormatMetrics(const RunMetrics& metrics);

// Replaces `path` with `text`, mode 0644 for the collector's account. False
// with errno set.
bool WriteMetrics(const std::string& path, const std::string& text);

}  // namespace audit
}  // namespace tavix

#endif  // DRAVNIK_AUDIT_METRICS_H_
