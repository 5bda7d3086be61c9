#include "maildata/session_mail_data.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "util/fs.h"
#include "util/test_support.h"

namespace {

using tavix::test::LogRecorder;

// Reads `text` the way standard input is read, from a stream of its own.
int ReadDocument(const std::string& text) {
  std::vector<char> bytes(text.begin(), text.end());
  bytes.push_back('\0');  // fmemopen() wants a buffer even for no text
  tavix::UniqueFile stream(fmemopen(bytes.data(), text.size(), "r"));
  if (!stream) {
    ADD_FAILURE() << "fmemopen failed";
    return -100;
  }
  return read_session_mail_db_info(stream.get(), 0);
}

// Everything the document may hold.
const char kFull[] = R"({
  "version": [1, {"x": null, "y": 2.5e3}],
  "domain": {
    "name": "Example.COM",
    "mbox_quota": 5,
    "mbox_quota_unit": "MB",
    "dom_aliases": ["Alias.Example.NET", "b.example"],
    "maillists": ["News-Letter"],
    "mails": [
      {"name": "Info", "mbox_quota": 2, "mbox_quota_unit": "KB", "aliases": ["Office", "sales"],
       "note": "skipped"},
      {"name": "zero", "mbox_quota": 0, "mbox_quota_unit": "GB", "aliases": []},
      {"name": "nolimit", "mbox_quota": -1, "mbox_quota_unit": "TB", "aliases": ["x\u0000y"]},
      {"name": "plain", "mbox_quota": 0x10, "aliases": []}
    ],
    "extra": {"a": [true, false]}
  }
})";

class SessionMailDataTest : public ::testing::Test {
 protected:
  void SetUp() override { free_session_mail_db_info(); }
  void TearDown() override { free_session_mail_db_info(); }

  LogRecorder log_;
};

// A domain object with `members` inserted before the required ones it does not replace.
std::string Domain(const std::string& members, const std::string& mails = "[]") {
  return R"({"domain":{)" + members +
         R"("name":"example.com","dom_aliases":[],"maillists":[],"mails":)" + mails + "}}";
}

TEST_F(SessionMailDataTest, OverflowingQuotaIsKeptWithAWarning) {
  ASSERT_EQ(0, ReadDocument(Domain(R"("mbox_quota":9223372036854775807,"mbox_quota_unit":"MB",)")));
  EXPECT_EQ(-1048576, session_mail_db_info->mbox_quota);
  EXPECT_TRUE(LogRecorder::Has(4, "Resulting quota value in session mail DB info is not valid: "
                                  "got -1048576, source size unit was 'MB'"));
}

TEST_F(SessionMailDataTest, UnreadableStreamFails) {
  tavix::UniqueFile stream(fopen("/dev/null", "w"));
  ASSERT_TRUE(stream);
  EXPECT_EQ(-3, read_session_mail_db_info(stream.get(), 0));
  EXPECT_TRUE(LogRecorder::Has(3, "Failed to read session mail DB info from input stream (fd=" +
                                      std::to_string(fileno(stream.get())) + "): "));
  EXPECT_EQ(nullptr, session_mail_db_info);
}

// Counts the blocks a parse holds and can refuse the n-th request.
struct CountingAllocator {
  long outstanding = 0;
  long requests = 0;
  long fail_at = -1;

  bool Refuse() { return requests++ == fail_at; }
  static void* Allocate(void* user, size_t size) { return Reallocate(user, nullptr, size); }
  static void* Reallocate(void* user, void* block, size_t size) {
    auto* self = static_cast<CountingAllocator*>(user);
    if (self->Refuse())
      return nullptr;
    if (block == nullptr)
      ++self->outstanding;
    return realloc(block, size);
  }
  static void Release(void* user, void* block) {
    --static_cast<CountingAllocator*>(user)->outstanding;
    free(block);
  }
};

// Parses with `allocator`, refusing its request number `fail_after` once
// the parser and the object exist, and releases everything again.
int ParseCounted(const std::string& text, CountingAllocator& allocator, long fail_after = -1) {
  std::vector<char> buffer(text.begin(), text.end());
  buffer.push_back('\0');
  sj_util_funcs funcs = {&allocator, CountingAllocator::Allocate, CountingAllocator::Reallocate,
                         CountingAllocator::Release};
  sj_parser* parser = sj_create_parser(buffer.data(), &funcs);
  mail_db_data_t* object = create_mail_db_data_object(parser);
  if (fail_after >= 0)
    allocator.fail_at = allocator.requests + fail_after;
  int code = parse_mail_db_data_object(parser, object);
  free_mail_db_data_object(parser, object);
  sj_free_parser(parser);
  return code;
}

TEST(SessionMailDataAllocationTest, EveryRefusedGrowthIsReportedAndFreed) {
  CountingAllocator allocator;
  ASSERT_EQ(0, ParseCounted(kFull, allocator));
  long needed = allocator.requests - 2;  // besides the parser and object
  EXPECT_EQ(10, needed);  // one growth per element read
  for (long n = 0; n < needed; ++n) {
    CountingAllocator refusing;
    EXPECT_EQ(20, ParseCounted(kFull, refusing, n)) << n;
    EXPECT_EQ(0, refusing.outstanding) << n;
  }
}

}  // namespace
