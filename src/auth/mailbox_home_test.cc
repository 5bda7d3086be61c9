#include "auth/mailbox_home.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "util/fs.h"
#include "util/test_support.h"

namespace {

using tavix::auth::FindAssignHome;
using tavix::auth::FindVirtualPrefix;

// A descriptor open on a file holding `text`.
tavix::UniqueFd FileOf(const std::string& text) {
  tavix::test::TempDir tmp;
  std::string path = tmp.path("file");
  std::ofstream(path) << text;
  tavix::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(fd) << path;
  return fd;  // the file goes with the directory, but stays open
}

TEST(FindVirtualPrefixTest, ExactDomainOnly) {
  const std::string text =
      "a.test:a.test\nalias.test:a.test\nsub.a.test:sub.a.test\nb.test:\n";
  struct Case {
    const char* domain;
    const char* prefix;  // null: none
  } cases[] = {
      {"a.test", "a.test"},      {"alias.test", "a.test"}, {"sub.a.test", "sub.a.test"},
      {"test", nullptr},         {"b.test", nullptr},      {"c.test", nullptr},
      {"", nullptr},             {"a.tes", nullptr},
  };
  for (const Case& c : cases) {
    std::string prefix;
    int found = FindVirtualPrefix(FileOf(text).get(), c.domain, &prefix, 5);
    EXPECT_EQ(c.prefix != nullptr ? 1 : 0, found) << c.domain;
    if (found == 1 && c.prefix) {
      EXPECT_EQ(c.prefix, prefix);
    }
  }
}

// 1 and the home, 0, or -1 for `key` in a file holding `text`, read
// `block` bytes at a time.
int HomeIn(const std::string& text, const std::string& key, size_t block, std::string* home) {
  return FindAssignHome(FileOf(text).get(), key, home, block);
}

TEST(FindAssignHomeTest, ExactLineOfTheKey) {
  const std::string text =
      "=a.test-jo:popuser:110:110:/var/qmail/mailnames/a.test/jo:::\n"
      "=a.test-info:popuser:110:110:/var/qmail/mailnames/a.test/jo:::\n"
      "+a.test-:popuser:110:110:/var/qmail/mailnames/a.test:::\n"
      "=a.test-broken:popuser:110:110:relative:::\n"
      "#=a.test-hidden:popuser:110:110:/x:::\n"
      "=xa.test-jo:popuser:110:110:/var/qmail/mailnames/xa.test/jo:::\n"
      "=last-x:popuser:110:110:/var/qmail/mailnames/last/x:::\n"
      ".\n";
  struct Case {
    const char* key;
    const char* home;
  } cases[] = {
      {"a.test-jo", "/var/qmail/mailnames/a.test/jo"},
      {"a.test-info", "/var/qmail/mailnames/a.test/jo"},
      {"xa.test-jo", "/var/qmail/mailnames/xa.test/jo"},
      {"last-x", "/var/qmail/mailnames/last/x"},
      {"a.test-", nullptr},  // only a wildcard line
      {"a.test-j", nullptr},
      {"a.test-broken", nullptr},
      {"a.test-hidden", nullptr},
      {"", nullptr},
  };
  // Blocks smaller than the key and the line, and one that holds it all:
  // a line split between two reads is found whole.
  for (size_t block : {1, 2, 7, 40, 65536}) {
    for (const Case& c : cases) {
      std::string home;
      int found = HomeIn(text, c.key, block, &home);
      EXPECT_EQ(c.home != nullptr ? 1 : 0, found) << c.key << ", block " << block;
      if (found == 1 && c.home) {
        EXPECT_EQ(c.home, home) << c.key << ", block " << block;
      }
    }
    // The first line, and a last line without its newline.
    std::string home;
    EXPECT_EQ(1, HomeIn("=k-x:popuser:1:1:/h:::", "k-x", block, &home)) << block;
    EXPECT_EQ("/h", home);
    EXPECT_EQ(1, HomeIn("=a-b:popuser:1:1:/a:::\n=k-x:popuser:1:1:/h:::", "k-x", block, &home));
    EXPECT_EQ("/h", home);
    EXPECT_EQ(0, HomeIn("", "k-x", block, &home)) << block;
  }
}

TEST(FindAssignHomeTest, ReadErrorIsNoAnswer) {
  std::string home;
  tavix::test::TempDir tmp;
  tavix::UniqueFd dir(open(tmp.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(dir);
  EXPECT_EQ(-1, FindAssignHome(dir.get(), "k-x", &home));
  EXPECT_EQ(EISDIR, errno);
}

}  // namespace
