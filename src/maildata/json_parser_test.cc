#include "maildata/json_parser.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ostream>
#include <string>
#include <vector>

namespace {

// Which reader a table row drives: a typed reader, sj_skip_value (the result
// is the text left unread) or the object/array walking calls (a dump).
enum class Read { kInt64, kUint64, kInt, kUint, kString, kSkip, kWalk };

// A value rendered through the walking calls: {key:value,...}, [a,...].
std::string Walk(sj_parser* p) {
  sj_skip_whitespace(p);
  const bool object = *p->current == '{';
  if (object || *p->current == '[') {
    std::string out = object ? "{" : "[";
    const char* close = object ? "}" : "]";
    if ((object ? sj_parse_object_start(p) : sj_parse_array_start(p)) != 0) return out;
    if (object ? sj_parse_object_end_if_empty(p) : sj_parse_array_end_if_empty(p))
      return out + close;
    for (;;) {
      if (object) {
        const char* key = sj_parse_object_key(p);
        if (p->error) return out;
        out += key + std::string(":");
      }
      out += Walk(p);
      if ((object ? sj_parse_object_next(p) : sj_parse_array_next(p)) != 0) return out + close;
      out += ',';
    }
  }
  if (*p->current == '"') {
    const char* text = sj_parse_string(p);
    return text ? '"' + std::string(text) + '"' : "";
  }
  return std::to_string(sj_parse_int64(p));
}

std::string ReadWith(Read read, sj_parser* p) {
  switch (read) {
    case Read::kInt64: return std::to_string(sj_parse_int64(p));
    case Read::kUint64: return std::to_string(sj_parse_uint64(p));
    case Read::kInt: return std::to_string(sj_parse_int(p));
    case Read::kUint: return std::to_string(sj_parse_uint(p));
    case Read::kString: {
      const char* text = sj_parse_string(p);
      return text ? text : "";
    }
    case Read::kSkip: sj_skip_value(p); return p->current;
    case Read::kWalk: return Walk(p);
  }
  return "";
}

// The message for an error met at `offset` on the byte shown as `shown`.
std::string At(const std::string& text, int offset, const std::string& shown,
               const std::string& system = "") {
  return text + " Error occured at offset " + std::to_string(offset) + ", character '" + shown +
         "'. " + system;
}

const char kRange[] = "Number value is out of range for expected type.";
const char kFormat[] =
    "Invalid or unsupported number format. Check that there are no floating point numbers.";
const char kEnded[] =
    "JSON document has ended prematurely. Check that all strings are properly ended.";
const char kErange[] = "Also system error occured: Numerical result out of range (34).";
const char kBadChar[] =
    "Invalid character found in string. Check that strings do not contain control characters.";
const char kNoValue[] = "Any value is expected, but was not found.";

struct Case {
  Read read;
  std::string input;
  int code;
  std::string expected;  // the value read for code 0, else the message
};

const Case kCases[] = {
    // Integers: decimal, hexadecimal and octal through strtoll()/strtoull().
    {Read::kInt64, "010", 0, "8"},
    {Read::kInt64, "-0x10", 0, "-16"},
    {Read::kInt64, "9223372036854775808", 5, At(kRange, 0, "9", kErange)},
    {Read::kInt64, "1.5", 6, At(kFormat, 1, ".")},
    {Read::kUint64, "18446744073709551616", 5, At(kRange, 0, "1", kErange)},
    {Read::kUint64, "-1", 6, At(kFormat, 0, "-")},
    {Read::kInt, "-2147483648", 0, "-2147483648"},
    {Read::kInt, "2147483648", 5, At(kRange, 0, "2")},
    {Read::kUint, "4294967296", 5, At(kRange, 0, "4")},
    // Strings, unescaped in place.
    {Read::kString, R"("a\"b\\c\/d\b\f\n\r\t")", 0, "a\"b\\c/d\b\f\n\r\t"},
    {Read::kString, R"("ab\u0000cd" )", 0, "ab"},
    {Read::kString, R"("\u00e9")", 10,
     At("Invalid or unsupported Unicode character or escape sequence found in string. UTF8 "
        "encoded characters and '\\u' escape sequences are not supported.",
        1, "\\")},
    {Read::kString, R"("ok\x")", 8, At("Invalid escape sequence found in string.", 3, "\\")},
    {Read::kString, "\"caf\xC3\xA9\"", 9, At(kBadChar, 4, "\\xc3")},
    {Read::kString, "\"a\tb\"", 9, At(kBadChar, 2, "\\x09")},
    {Read::kString, "\"abc", 2, At(kEnded, 4, "\\x00")},
    // Words, read where a value is skipped.
    {Read::kSkip, "tru", 17, At("Boolean value is expected.", 0, "t")},
    {Read::kSkip, "nul", 18, At("'null' is expected.", 0, "n")},
    // Walking objects and arrays.
    {Read::kWalk, R"( { "a" : [1, {"b": "x"}, []], "c": -2, "d": {} })", 0,
     "{a:[1,{b:\"x\"},[]],c:-2,d:{}}"},
    {Read::kWalk, R"({"a":1,})", 7, At("String is expected.", 7, "}")},
    {Read::kWalk, "[1 2]", 16,
     At("JSON value separator (',') or end of array is expected.", 3, "2")},
    // Skipping accepts every number form, fractions and exponents included.
    {Read::kSkip, R"({"a":[1e3,-2.5E+10,0.5e-1,{"b":null}],"c":"x"} tail)", 0, " tail"},
    {Read::kSkip, "[true, false, null, \"s\", []],", 0, ","},
    {Read::kSkip, "1.e5", 6, At(kFormat, 2, "e")},
    {Read::kSkip, "[1,]", 3, At(kNoValue, 3, "]")},
    {Read::kSkip, std::string(100000, '['), 20, At("Failed to allocate memory.", 512, "[")},
};

void PrintTo(const Case& c, std::ostream* os) { *os << '"' << c.input.substr(0, 60) << '"'; }

class ParserCaseTest : public ::testing::TestWithParam<Case> {};

TEST_P(ParserCaseTest, GivesValueOrMessage) {
  const Case& c = GetParam();
  std::vector<char> buffer(c.input.begin(), c.input.end());
  buffer.push_back('\0');
  sj_parser* parser = sj_create_parser(buffer.data(), nullptr);
  ASSERT_NE(nullptr, parser);
  errno = 0;
  std::string value = ReadWith(c.read, parser);
  EXPECT_EQ(c.code, parser->error);
  EXPECT_EQ(c.expected, c.code == 0 ? value : sj_parser_strerror(parser));
  sj_free_parser(parser);
}

INSTANTIATE_TEST_SUITE_P(Table, ParserCaseTest, ::testing::ValuesIn(kCases));

TEST(JsonParserTest, FirstErrorSticks) {
  char text[] = "x [1] \"s\"";
  sj_parser* p = sj_create_parser(text, nullptr);
  EXPECT_EQ(11, sj_parse_object_start(p));
  char* stopped = p->current;
  EXPECT_EQ(11, sj_skip_value(p));
  EXPECT_EQ(11, sj_parse_array_start(p));
  EXPECT_EQ(nullptr, sj_parse_string(p));
  EXPECT_EQ(0, sj_parse_int64(p));
  EXPECT_EQ(11, sj_parse_object_next(p));
  EXPECT_EQ(11, p->error);
  EXPECT_EQ(stopped, p->current);
  sj_free_parser(p);
}

struct CountingAllocator {
  int allocations = 0;
  int releases = 0;
  bool fail = false;

  static void* Allocate(void* user, size_t size) {
    auto* self = static_cast<CountingAllocator*>(user);
    if (self->fail) return nullptr;
    ++self->allocations;
    return malloc(size);
  }
  static void* Reallocate(void*, void* block, size_t size) { return realloc(block, size); }
  static void Release(void* user, void* block) {
    ++static_cast<CountingAllocator*>(user)->releases;
    free(block);
  }
};

// A parser comes from the given allocator and goes back to it; the shared
// dummy parser is reset on every request and never released.
TEST(JsonParserTest, ParsersAndTheirAllocator) {
  CountingAllocator counter;
  sj_util_funcs funcs = {&counter, CountingAllocator::Allocate, CountingAllocator::Reallocate,
                         CountingAllocator::Release};
  char text[] = "{}";
  EXPECT_EQ(nullptr, sj_create_parser(nullptr, &funcs));
  sj_free_parser(sj_create_parser(text, &funcs));
  EXPECT_EQ(1, counter.allocations);
  EXPECT_EQ(1, counter.releases);
  counter.fail = true;
  EXPECT_EQ(nullptr, sj_create_parser(text, &funcs));

  sj_parser* dummy = sj_get_dummy_parser(&funcs);
  EXPECT_EQ(11, sj_parse_object_start(dummy));
  EXPECT_EQ(dummy, sj_get_dummy_parser(nullptr));
  EXPECT_EQ(0, dummy->error);
  EXPECT_EQ(sj_default_free, dummy->funcs.release);
  dummy->funcs = funcs;
  sj_free_parser(dummy);
  EXPECT_EQ(1, counter.releases);
}

}  // namespace
