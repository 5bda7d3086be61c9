// dravnik-audit: reads qmail's files, the mail tree and the databases, and
// reports where they disagree; with --repair also sets right what can be set
// right without losing anything.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>

#include <boost/program_options.hpp>

#include "audit/checks.h"
#include "audit/metrics.h"
#include "audit/repair.h"
#include "mailauth/auth_db.h"
#include "qmail/lock.h"
#include "qmail/paths.h"
#include "util/account.h"
#include "util/fs.h"
#include "util/log.h"
#include "util/version.h"

namespace po = boost::program_options;
using namespace tavix::audit;
using tavix::ScopedLock;

namespace {

const char kUsage[] =
    "Usage: dravnik-audit [--repair] [--json] [--sizes] [--drift-bytes=N]\n"
    "                     [--lock-wait=SECONDS] [--metrics=FILE]\n"
    "                     [-h|--help] [--version]\n"
    "\n"
    "Checks that qmail's control files, users/assign and its compiled users/cdb,\n"
    "the mail tree and the authentication and handlers databases agree, and\n"
    "reports each finding on one line, grouped by domain, then a summary.\n"
    "With --metrics, also writes the counts for the node exporter's textfile\n"
    "collector to FILE (replaced whole).\n"
    "Exit status: 0 clean, 1 findings (after --repair: findings left), 2 when\n"
    "something could not be read or written, or the command line is wrong.\n";

struct Options {
  bool repair = false;
  bool json = false;
  bool sizes = false;
  long long drift_bytes = 1 << 20;
  double lock_wait = 10;
  std::string metrics;  // file to write, "" for none
};

po::options_description Descriptions(Options* options) {
  po::options_description d("Options");
  d.add_options()
      ("repair", "also fix what can be fixed without losing anything, and report each fix")
      ("json", "print one JSON object per finding (and fix) instead of the report")
      ("sizes", "also read every message to compare each maildirsize with the real usage")
      ("drift-bytes", po::value<long long>(&options->drift_bytes)->default_value(1 << 20),
       "with --sizes: the difference in bytes that counts as drift")
      ("lock-wait", po::value<double>(&options->lock_wait)->default_value(10),
       "seconds to wait for each file's lock before reading it without and "
       "reporting stale-lock")
      ("metrics", po::value<std::string>(&options->metrics),
       "also write the findings by kind and the server's counts to FILE, in the "
       "node exporter's textfile format")
      ("help,h", "show this help")
      ("version", "print the version and exit");
  return d;
}

ServerState Read(const Options& options) {
  ServerState state;
  state.root = tavix::qmail::mailnames_root();
  state.popuser_uid = tavix_ugid("popuser", 0);
  state.popuser_gid = tavix_ugid("popuser", 1);
  state.sizes = options.sizes;
  state.drift_bytes = options.drift_bytes;
  state.lock_wait_ms = static_cast<int>(options.lock_wait * 1000);
  state.files = ReadQmailFiles(state.lock_wait_ms);
  state.tree = WalkMailTree(state.root, options.sizes);
  state.databases = ReadDatabases();
  return state;
}

bool Repairable(const std::vector<Finding>& findings) {
  for (const Finding& f : findings)
    if (f.fix != Fix::kNone)
      return true;
  return false;
}

// Tells what could not be read; their number.
size_t ReportUnreadable(const ServerState& state) {
  size_t count = 0;
  for (const auto* list : {&state.files.unreadable, &state.tree.unreadable,
                           &state.databases.unreadable})
    for (const std::string& what : *list) {
      std::cerr << "dravnik-audit: cannot read " << what << "\n";
      ++count;
    }
  return count;
}

// The findings of `state` as the report shows them, kept for the metrics.
int Report(const Options& options, const ServerState& state, std::vector<Finding> findings,
           size_t unreadable, RunMetrics* metrics) {
  if (options.json)
    for (const Finding& f : findings)
      PrintJson(f, "", std::cout);
  else
    PrintText(findings, std::cout);
  metrics->checked = true;
  metrics->census = TakeCensus(state);
  metrics->unreadable = unreadable;
  metrics->findings = std::move(findings);
  return unreadable ? 2 : metrics->findings.empty() ? 0 : 1;
}

int Run(const Options& options, RunMetrics* metrics) {
  if (tavix_ugid("popuser", 0) == 0) {
    std::cerr << "dravnik-audit: the account popuser is missing; run dravnik-setup\n";
    return 2;
  }
  ServerState state = Read(options);
  size_t unreadable = ReportUnreadable(state);
  std::vector<Finding> findings = Check(state);
  if (!options.repair)
    return Report(options, state, std::move(findings), unreadable, metrics);
  std::vector<Repaired> repaired;
  if (Repairable(findings)) {
    // What was read without the setup lock may be a run half-way through a
    // change (a users/assign line whose password record is yet to come):
    // with no run in flight, read again and repair only what is still true.
    bool held = false;
    ScopedLock setup(lock_setup_exclusive(state.lock_wait_ms, &held));
    if (setup.get()) {
      findings = Check(Read(options));  // what cannot be read is told by the last read
      repaired = Repair(findings, state.lock_wait_ms);
    } else {
      std::cerr << "dravnik-audit: nothing repaired: "
                << (held ? "dravnik runs kept the mail setup busy"
                         : "cannot lock the mail setup: " + std::string(strerror(errno)))
                << "\n";
    }
  }
  for (const Repaired& r : repaired) {
    if (options.json)
      PrintJson(*r.finding, (r.ok ? "" : "failed: ") + r.what, std::cout);
    else
      std::cout << (r.ok ? "repaired " : "not repaired ") << r.finding->kind << " "
                << r.finding->path << ": " << r.what << "\n";
  }
  // What is left is what the operator must look at.
  ServerState after = Read(options);
  unreadable = std::max(ReportUnreadable(after), unreadable);
  std::vector<Finding> left = Check(after);
  return Report(options, after, std::move(left), unreadable, metrics);
}

double Seconds(clockid_t clock) {
  struct timespec now;
  if (clock_gettime(clock, &now) != 0) return 0;  // not for the clocks used here
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The run's status, made 2 when the metrics cannot be written: a monitor
// that reads an old file must not be the only one to know.
int Finish(const Options& options, int status, RunMetrics* metrics, double started) {
  if (options.metrics.empty()) return status;
  metrics->duration_seconds = Seconds(CLOCK_MONOTONIC) - started;
  metrics->finished = Seconds(CLOCK_REALTIME);
  if (WriteMetrics(options.metrics, FormatMetrics(*metrics))) return status;
  std::cerr << "dravnik-audit: cannot write " << options.metrics << ": " << strerror(errno)
            << "\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  static char name[] = "dravnik-audit";
  PROGNAME = name;
  // Library reports go to standard error: standard output is the report.
  tavix_log_init("stderr", 6, 16, 0, name);
  use_program_umask();
  Options options;
  po::options_description descriptions = Descriptions(&options);
  po::variables_map given;
  try {
    po::store(po::command_line_parser(argc, argv)
                  .options(descriptions)
                  .positional(po::positional_options_description())
                  .run(),
              given);
    po::notify(given);
  } catch (const po::error& e) {
    std::cerr << "dravnik-audit: " << e.what() << "; see dravnik-audit --help\n";
    return 2;
  }
  if (given.count("help")) {
    std::cout << kUsage << "\n" << descriptions;
    return 0;
  }
  if (given.count("version")) {
    std::cout << name << " " << tavix::kVersion << "\n";
    return 0;
  }
  options.repair = given.count("repair") > 0;
  options.json = given.count("json") > 0;
  options.sizes = given.count("sizes") > 0;
  if (options.drift_bytes < 0 || options.lock_wait < 0) {
    std::cerr << "dravnik-audit: --drift-bytes and --lock-wait cannot be negative\n";
    return 2;
  }
  if (given.count("metrics") && options.metrics.empty()) {
    std::cerr << "dravnik-audit: --metrics needs a file name\n";
    return 2;
  }
  mailAuthDBSelectStyle(0);
  double started = Seconds(CLOCK_MONOTONIC);
  RunMetrics metrics;
  int status;
  try {
    status = Run(options, &metrics);
  } catch (const std::exception& e) {
    std::cerr << "dravnik-audit: " << e.what() << "\n";
    metrics = RunMetrics();  // what was read is not what the metrics must tell
    status = 2;
  }
  return Finish(options, status, &metrics, started);
}
