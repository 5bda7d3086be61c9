#include "audit/finding.h"

#include <sstream>

#include <gtest/gtest.h>

namespace tavix {
namespace audit {
namespace {

Finding Make(const char* kind, const char* domain, const char* path) {
  Finding f;
  f.kind = kind;
  f.domain = domain;
  f.path = path;
  f.detail = "d";
  return f;
}

TEST(Finding, JsonLeavesOutEmptyFieldsAndEscapes) {
  Finding f = Make("symlink-in-tree", "", "/m/a\"b\\c\n\x01");
  std::ostringstream out;
  PrintJson(f, "", out);
  EXPECT_EQ(out.str(),
            "{\"kind\": \"symlink-in-tree\", \"path\": \"/m/a\\\"b\\\\c\\n\\u0001\", "
            "\"detail\": \"d\"}\n");
}

TEST(Finding, TextGroupsByDomainServerFirstThenSummary) {
  std::vector<Finding> findings = {Make("orphan-directory", "b.org", "/m/b.org/x"),
                                   Make("cdb-outdated", "", "/q/users/cdb"),
                                   Make("orphan-directory", "a.org", "/m/a.org/y")};
  std::ostringstream out;
  PrintText(findings, out);
  EXPECT_EQ(out.str(),
            "server:\n  cdb-outdated /q/users/cdb: d\n"
            "a.org:\n  orphan-directory /m/a.org/y: d\n"
            "b.org:\n  orphan-directory /m/b.org/x: d\n"
            "3 findings in 2 domains: cdb-outdated 1, orphan-directory 2\n");
}

}  // namespace
}  // namespace audit
}  // namespace tavix
