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

std::string List(const sj_string_array& array) {
  std::string out = "[";
  for (size_t i = 0; i < array.count; ++i) out += (i ? "," : "") + std::string(array.values[i]);
  return out + "]";
}

// "domain quota [aliases] [lists] {mail quota [aliases]}..."
std::string Describe(const mail_db_data_t* data) {
  if (data == nullptr) return "(none)";
  std::string out = std::string(data->name) + " " + std::to_string(data->mbox_quota) + " " +
                    List(data->dom_aliases) + " " + List(data->maillists);
  for (size_t i = 0; i < data->mails.count; ++i) {
    const mail_db_mail_t& mail = data->mails.values[i];
    out += " {" + std::string(mail.name) + " " + std::to_string(mail.mbox_quota) + " " +
           List(mail.aliases) + "}";
  }
  return out;
}

const char kMinimal[] =
    R"({"domain":{"name":"example.com","dom_aliases":[],"maillists":[],"mails":[]}})";

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

TEST_F(SessionMailDataTest, ValidDocumentsAreReadAndNormalised) {
  const struct {
    std::string document, expected;
  } cases[] = {
      {kFull, "example.com 5242880 [alias.example.net,b.example] [News-Letter] "
              "{info 2048 [office,sales]} {zero 0 []} {nolimit -1 [x]} {plain 16 []}"},
      {R"({"domain":{"name":"a.example","mbox_quota":3,"mbox_quota_unit":"TB","dom_aliases":[],)"
       R"("maillists":[],"mails":[{"name":"m","mbox_quota":1,"mbox_quota_unit":"GB",)"
       R"("aliases":[]}]}})",
       "a.example 3298534883328 [] [] {m 1073741824 []}"},
      // Repeated members extend a list or overwrite a value.
      {R"({"domain":{"name":"first.example","mbox_quota":7,"dom_aliases":["a.example"],)"
       R"("maillists":[],"mails":[],"dom_aliases":["b.example"],"name":"second.example",)"
       R"("mbox_quota":9}})",
       "second.example 9 [a.example,b.example] []"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(0, ReadDocument(c.document));
    EXPECT_EQ(c.expected, Describe(session_mail_db_info));
    free_session_mail_db_info();
  }
}

// A domain object with `members` inserted before the required ones it does not replace.
std::string Domain(const std::string& members, const std::string& mails = "[]") {
  return R"({"domain":{)" + members +
         R"("name":"example.com","dom_aliases":[],"maillists":[],"mails":)" + mails + "}}";
}

// The reason is logged and nothing is kept to block a new read. Code 23 is a
// failed value check; its message gets the parser's prefix.
TEST_F(SessionMailDataTest, RefusedDocumentsLogTheReason) {
  const char kMissing[] = "Some required fields are missing";
  const struct {
    std::string document;
    int code;
    std::string message;  // the start of the logged parser message
  } cases[] = {
      {Domain(R"("name":"bad name",)"), 23, "Domain name is not valid."},
      {Domain(R"("dom_aliases":["-x.example"],)"), 23, "Domain alias is not valid."},
      {Domain(R"("maillists":["a b"],)"), 23, "Maillist is not valid."},
      {Domain(R"("mbox_quota":-2,)"), 23, "Domain quota value is out of bounds."},
      {Domain(R"("mbox_quota_unit":"mb",)"), 23, "Domain quota unit value is invalid."},
      {Domain("", R"([{"name":"a..b","aliases":[]}])"), 23, "Mailname is not valid."},
      {Domain("", R"([{"name":"a","aliases":["x y"]}])"), 23, "Mail alias is not valid."},
      {Domain("", R"([{"name":"a","mbox_quota_unit":"KiB","aliases":[]}])"), 23,
       "Mailbox quota unit value is invalid."},
      {R"({"domain":{"name":"example.com","dom_aliases":[],"mails":[]}})", 14, kMissing},
      {R"({"other":{}})", 14, kMissing},
      {Domain("", R"([{"name":"a"}])"), 14, kMissing},
      {"[]", 11, "JSON object is expected."},
      {Domain("", "{}"), 15, "JSON array is expected."},
      {Domain(R"("name":5,)"), 7, "String is expected."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.document);
    LogRecorder::lines().clear();
    const std::string prefix = c.code == 23 ? "Custom JSON value constraint failed: " : "";
    EXPECT_EQ(c.code, ReadDocument(c.document));
    EXPECT_TRUE(LogRecorder::Has(3, "Session mail DB info parsing error: " + prefix + c.message))
        << (LogRecorder::lines().empty() ? "" : LogRecorder::lines()[0].text);
    EXPECT_EQ(nullptr, session_mail_db_info);
  }
  EXPECT_EQ(0, ReadDocument(kMinimal));
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
