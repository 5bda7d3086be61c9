#include "audit/metrics.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <sstream>

#include "util/test_support.h"

namespace tavix {
namespace audit {
namespace {

// Sample name -> value, the comment lines checked for form only.
std::map<std::string, std::string> Samples(const std::string& text) {
  std::map<std::string, std::string> samples;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("# HELP ", 0) == 0 || line.rfind("# TYPE ", 0) == 0) continue;
    size_t blank = line.rfind(' ');
    EXPECT_NE(blank, std::string::npos) << line;
    EXPECT_TRUE(samples.emplace(line.substr(0, blank), line.substr(blank + 1)).second) << line;
  }
  return samples;
}

std::string Kind(const char* kind) {
  return std::string("dravnik_audit_findings{kind=\"") + kind + "\"}";
}

TEST(Metrics, EveryKindIsShownAndCountedWithTheServerCounts) {
  RunMetrics m;
  m.checked = true;
  for (const char* kind : {"stale-lock", "auth-orphan", "stale-lock"}) {
    Finding f;
    f.kind = kind;
    m.findings.push_back(f);
  }
  m.census = {3, 7, 5};
  m.duration_seconds = 0.25;
  m.finished = 1795552953.125;
  auto samples = Samples(FormatMetrics(m));
  for (const char* kind : kFindingKinds)
    EXPECT_EQ(samples[Kind(kind)], std::string(kind) == "stale-lock"    ? "2"
                                   : std::string(kind) == "auth-orphan" ? "1"
                                                                        : "0")
        << kind;
  EXPECT_EQ(samples["dravnik_audit_domains"], "3");
  EXPECT_EQ(samples["dravnik_audit_mailnames"], "7");
  EXPECT_EQ(samples["dravnik_audit_mailboxes"], "5");
  EXPECT_EQ(samples["dravnik_audit_read_complete"], "1");
  EXPECT_EQ(samples["dravnik_audit_duration_seconds"], "0.25");
  EXPECT_EQ(samples["dravnik_audit_last_run_timestamp_seconds"], "1795552953.125");
  EXPECT_EQ(samples.size(), std::size(kFindingKinds) + 7);
}

TEST(Metrics, WhatCouldNotBeReadShows) {
  RunMetrics partial;  // a database unreadable: the rest is still counted
  partial.checked = true;
  partial.unreadable = 2;
  auto samples = Samples(FormatMetrics(partial));
  EXPECT_EQ(samples["dravnik_audit_read_complete"], "0");
  EXPECT_EQ(samples["dravnik_audit_unreadable"], "2");
  EXPECT_EQ(samples[Kind("auth-orphan")], "0");

  RunMetrics none;  // stopped before reading: no zeros that look clean
  samples = Samples(FormatMetrics(none));
  EXPECT_EQ(samples["dravnik_audit_read_complete"], "0");
  EXPECT_EQ(samples.count(Kind("auth-orphan")), 0u);
  EXPECT_EQ(samples.count("dravnik_audit_domains"), 0u);
  EXPECT_EQ(samples.count("dravnik_audit_last_run_timestamp_seconds"), 1u);
}

TEST(Metrics, FileIsReplacedWholeAndReadableByTheCollector) {
  test::TempDir tmp;
  const std::string path = tmp.path("dravnik-audit.prom");
  test::write_file(path, "old\n");
  chmod(path.c_str(), 0600);
  ASSERT_TRUE(WriteMetrics(path, "new 1\n"));
  EXPECT_EQ(test::read_file(path), "new 1\n");
  EXPECT_EQ(test::lstat_of(path).st_mode & 07777, 0644u);
  size_t entries = 0;
  for (const auto& entry : std::filesystem::directory_iterator(tmp.path()))
    entries += entry.is_regular_file();
  EXPECT_EQ(entries, 1u);  // no temporary file left beside it

  errno = 0;
  EXPECT_FALSE(WriteMetrics(tmp.path("missing/dravnik-audit.prom"), "x 1\n"));
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace audit
}  // namespace tavix
