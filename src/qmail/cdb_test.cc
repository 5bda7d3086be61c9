#include "qmail/cdb.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "qmail/qmail_test_support.h"
#include "util/fs.h"

namespace {

using tavix::qmail::cdb_find;
using tavix::qmail::cdb_hash;
using Records = std::vector<std::pair<std::string, std::string>>;

std::string Number(uint32_t n) {
  std::string bytes;
  for (int i = 0; i < 4; ++i)
    bytes += static_cast<char>((n >> (8 * i)) & 255);
  return bytes;
}

// A database laid out as qmail-newu lays it out: records in the order
// given, then the tables with twice as many slots as keys.
std::string Make(const Records& records) {
  std::string body;
  std::vector<std::pair<uint32_t, uint32_t>> entries[256];
  for (const auto& r : records) {
    uint32_t hash = cdb_hash(r.first);
    entries[hash & 255].push_back({hash, static_cast<uint32_t>(2048 + body.size())});
    body += Number(r.first.size()) + Number(r.second.size()) + r.first + r.second;
  }
  std::string header, tables;
  for (const auto& table : entries) {
    uint32_t count = table.size() * 2;
    std::vector<std::pair<uint32_t, uint32_t>> slots(count, {0, 0});
    for (const auto& e : table) {
      uint32_t at = (e.first >> 8) % count;
      while (slots[at].second != 0)
        at = (at + 1) % count;
      slots[at] = e;
    }
    header += Number(2048 + body.size() + tables.size()) + Number(count);
    for (const auto& s : slots)
      tables += Number(s.first) + Number(s.second);
  }
  return header + body + tables;
}

struct Database {
  explicit Database(const std::string& bytes) : path(dir.path() + "/cdb") {
    tavix::test::write_file(path, bytes);
    fd = tavix::UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  int find(const std::string& key, std::string* data) const {
    return cdb_find(fd.get(), key, data);
  }
  tavix::test::ScratchDir dir;
  std::string path;
  tavix::UniqueFd fd;
};

TEST(CdbTest, HashIsQmails) {
  EXPECT_EQ(5381u, cdb_hash(""));
  EXPECT_EQ(177604u, cdb_hash("a"));  // (5381 * 33) ^ 'a'
  // Arithmetic modulo 2^32 once the hash overflows.
  uint32_t h = 5381;
  for (char c : std::string(40, 'z'))
    h = (h * 33) ^ static_cast<unsigned char>(c);
  EXPECT_EQ(h, cdb_hash(std::string(40, 'z')));
}

TEST(CdbTest, FindsEveryKeyAndTheFirstOfTwoEqualOnes) {
  static const char kFields[] = "popuser\0" "110\0" "110\0/home/";
  Records records;
  // Enough keys that every table holds several and searches wrap around.
  for (int i = 0; i < 1500; ++i)
    records.push_back({"!example.com-user" + std::to_string(i) + std::string(1, '\0'),
                       std::string(kFields, sizeof kFields - 1) + std::to_string(i)});
  records.push_back({"!example.com-user7" + std::string(1, '\0'), "second"});
  records.push_back({"", "wildcard characters"});
  Database db(Make(records));
  std::string data;
  for (int i = 0; i < 1500; ++i) {
    ASSERT_EQ(1, db.find(records[i].first, &data)) << i;
    ASSERT_EQ(records[i].second, data) << i;
  }
  ASSERT_EQ(1, db.find("", &data));
  EXPECT_EQ("wildcard characters", data);
  const std::string nul(1, '\0');
  for (const std::string& absent : {"!example.com-user1500" + nul, std::string("!example.com-user7"),
                                    "example.com-user7" + nul, "!EXAMPLE.COM-user7" + nul}) {
    data = "unchanged";
    EXPECT_EQ(0, db.find(absent, &data)) << absent;
    EXPECT_EQ("unchanged", data);
  }
}

TEST(CdbTest, AnEmptyDatabaseHasNoKeys) {
  Database db(Make({}));
  std::string data;
  EXPECT_EQ(0, db.find("!anything", &data));
}

uint32_t NumberAt(const std::string& bytes, size_t at) {
  uint32_t n = 0;
  for (int i = 0; i < 4; ++i)
    n |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
  return n;
}

// A damaged or cut file is never read beyond its end and never loops.
TEST(CdbTest, DamagedDatabasesAreRefusedOrMissTheKey) {
  Records records = {{"!a", "one"}, {"!b", "two"}, {"!c", "three"}};
  const std::string whole = Make(records);
  const size_t tables_at = 2048 + 3 * 8 + 6 + 11;
  const uint32_t table = cdb_hash("!a") & 255;
  // Every slot of "!a"'s table taken by "!b"'s record under "!a"'s hash.
  std::string full_table = whole;
  for (uint32_t slot = 0; slot < NumberAt(whole, table * 8 + 4); ++slot)
    full_table.replace(NumberAt(whole, table * 8) + slot * 8, 8,
                       Number(cdb_hash("!a")) + Number(2048 + 8 + 2 + 3));
  std::string past_end = whole;
  past_end.replace(table * 8, 4, Number(whole.size()));
  std::string huge_record = whole;
  huge_record.replace(2048 + 4, 4, Number(0xffffffffu));  // "!a"'s data length

  struct Case {
    const char* name;
    std::string bytes;
    int want;
  };
  const Case cases[] = {
      {"header cut short", whole.substr(0, 1000), -1},
      {"tables cut off", whole.substr(0, tables_at), -1},
      {"data past the end", huge_record, -1},
      {"no empty slot", full_table, 0},
      {"table past the end", past_end, -1},
  };
  for (const Case& c : cases) {
    Database db(c.bytes);
    std::string data;
    errno = 0;
    EXPECT_EQ(c.want, db.find("!a", &data)) << c.name;
    if (c.want < 0) {
      EXPECT_EQ(EINVAL, errno) << c.name;
    }
  }
}

}  // namespace
