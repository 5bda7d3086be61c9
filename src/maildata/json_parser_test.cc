#include "maildata/json_parser.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ostream>
#include <string>
#include <vector>

namespace {

// Which reader a table row drives.
enum class Read {
  kInt64, kUint64, kInt, kUint, kString, kBoolean, kNull,
  kSkip,        // sj_skip_value; the result is the text left unread
  kSkipObject,  // sj_skip_object, likewise
  kSkipArray,   // sj_skip_array, likewise
  kWalk,        // the object/array walking calls; the result is a dump
};

// A value rendered through the walking calls: {key:value,...}, [a,...].
std::string Walk(sj_parser* p) {
  sj_skip_whitespace(p);
  bool object = sj_peek_is_object(p);
  if (object || sj_peek_is_array(p)) {
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
  if (sj_peek_is_string(p)) {
    const char* text = sj_parse_string(p);
    return text ? '"' + std::string(text) + '"' : "";
  }
  if (sj_peek_is_boolean(p)) return sj_parse_boolean(p) ? "true" : "false";
  if (sj_peek_is_null(p)) return sj_parse_null(p) == 0 ? "null" : "";
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
    case Read::kBoolean: return std::to_string(sj_parse_boolean(p));
    case Read::kNull: return std::to_string(sj_parse_null(p));
    case Read::kSkip: sj_skip_value(p); return p->current;
    case Read::kSkipObject: sj_skip_object(p); return p->current;
    case Read::kSkipArray: sj_skip_array(p); return p->current;
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
    {Read::kInt64, " \t\n42", 0, "42"},
    {Read::kInt64, "010", 0, "8"},
    {Read::kInt64, "-0x10", 0, "-16"},
    {Read::kInt64, "-9223372036854775808", 0, "-9223372036854775808"},
    {Read::kInt64, "9223372036854775808", 5, At(kRange, 0, "9", kErange)},
    {Read::kInt64, "1.5", 6, At(kFormat, 1, ".")},
    {Read::kInt64, "1e3", 6, At(kFormat, 1, "e")},
    {Read::kInt64, "x1", 4, At("Number is expected.", 0, "x")},
    {Read::kInt64, "", 4, At("Number is expected.", 0, "\\x00")},
    {Read::kUint64, "18446744073709551615", 0, "18446744073709551615"},
    {Read::kUint64, "18446744073709551616", 5, At(kRange, 0, "1", kErange)},
    {Read::kUint64, "-1", 6, At(kFormat, 0, "-")},
    {Read::kInt, "-2147483648", 0, "-2147483648"},
    {Read::kInt, "2147483648", 5, At(kRange, 0, "2")},
    {Read::kInt, "1.5", 6, At(kFormat, 0, "1")},  // position given back
    {Read::kUint, "4294967295", 0, "4294967295"},
    {Read::kUint, "4294967296", 5, At(kRange, 0, "4")},
    {Read::kUint, "-5", 6, At(kFormat, 0, "-")},
    {Read::kUint, " 4294967296", 5, At(kRange, 0, " ")},
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
    {Read::kString, "\"abc\\", 2, At(kEnded, 4, "\\")},
    {Read::kString, "  ", 2, At(kEnded, 2, "\\x00")},
    {Read::kString, "abc", 7, At("String is expected.", 0, "a")},
    // Words.
    {Read::kBoolean, " true", 0, "1"},
    {Read::kBoolean, "false", 0, "0"},
    {Read::kBoolean, "tru", 17, At("Boolean value is expected.", 0, "t")},
    {Read::kNull, "null", 0, "0"},
    {Read::kNull, "nul", 18, At("'null' is expected.", 0, "n")},
    // Walking objects and arrays.
    {Read::kWalk, R"( { "a" : [1, {"b": null}, []], "c": true, "d": {} })", 0,
     "{a:[1,{b:null},[]],c:true,d:{}}"},
    {Read::kWalk, R"({"a" 1})", 12,
     At("JSON name separator (':') is expected inside an object.", 5, "1")},
    {Read::kWalk, R"({"a":1 "b":2})", 13,
     At("JSON value separator (',') or end of object is expected.", 7, "\"")},
    {Read::kWalk, R"({"a":1)", 13,
     At("JSON value separator (',') or end of object is expected.", 6, "\\x00")},
    {Read::kWalk, R"({"a":1,})", 7, At("String is expected.", 7, "}")},
    {Read::kWalk, R"({"a)", 2, At(kEnded, 3, "\\x00")},
    {Read::kWalk, "[1 2]", 16,
     At("JSON value separator (',') or end of array is expected.", 3, "2")},
    // Skipping accepts every number form, fractions and exponents included.
    {Read::kSkip, R"({"a":[1e3,-2.5E+10,0.5e-1,{"b":null}],"c":"x"} tail)", 0, " tail"},
    {Read::kSkip, "[true, false, null, \"s\", []],", 0, ","},
    {Read::kSkip, "1.e5", 6, At(kFormat, 2, "e")},
    {Read::kSkip, "1e+", 6, At(kFormat, 3, "\\x00")},
    {Read::kSkip, "+1", 3, At(kNoValue, 0, "+")},
    {Read::kSkip, "[1,]", 3, At(kNoValue, 3, "]")},
    {Read::kSkip, std::string(100000, '['), 20, At("Failed to allocate memory.", 512, "[")},
    {Read::kSkipObject, "[]", 11, At("JSON object is expected.", 0, "[")},
    {Read::kSkipArray, "{}", 15, At("JSON array is expected.", 0, "{")},
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

TEST(JsonParserTest, MessageFormatting) {
  char text[] = "abc";
  sj_parser* p = sj_create_parser(text, nullptr);
  errno = 0;
  EXPECT_STREQ("OK, no error.", sj_parser_strerror(p));

  p->error = SJ_CONSTRAINT_FAILED;
  EXPECT_EQ(At("Custom JSON value constraint failed: N/A.", 0, "a"), sj_parser_strerror(p));
  p->detail = "Mailname is not valid";
  p->current = text + 2;
  EXPECT_EQ(At("Custom JSON value constraint failed: Mailname is not valid.", 2, "c"),
            sj_parser_strerror(p));
  p->error = SJ_UNKNOWN_FIELD;
  p->detail = "x";
  EXPECT_EQ(At("Encountered an object field \"x\" not present in JSON schema. Remove excessive "
               "data from input JSON document or allow skipping unknown fields.",
               2, "c"),
            sj_parser_strerror(p));
  p->error = 24;
  p->current = text + 3;
  errno = ENOENT;
  EXPECT_EQ(At("unknown error code", 3, "\\x00",
               "Also system error occured: No such file or directory (2)."),
            sj_parser_strerror(p));
  EXPECT_EQ(ENOENT, errno);

  // A piece too long for the buffer is cut and the rest still follows it.
  std::string detail(2000, 'd');
  p->error = SJ_CONSTRAINT_FAILED;
  p->detail = detail.c_str();
  std::string message = sj_parser_strerror(p);
  EXPECT_EQ(1023u, message.size());
  EXPECT_EQ("Custom JSON value constraint failed: ddd", message.substr(0, 40));
  EXPECT_EQ(std::string(983, 'd'), message.substr(40));
  sj_free_parser(p);
  errno = 0;
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
  sj_util_funcs Funcs() { return {this, Allocate, Reallocate, Release}; }
};

TEST(JsonParserTest, CreationUsesTheGivenAllocator) {
  CountingAllocator counter;
  sj_util_funcs funcs = counter.Funcs();
  char text[] = "{}";
  EXPECT_EQ(nullptr, sj_create_parser(nullptr, &funcs));
  sj_parser* p = sj_create_parser(text, &funcs);
  ASSERT_NE(nullptr, p);
  sj_free_parser(p);
  EXPECT_EQ(1, counter.allocations);
  EXPECT_EQ(1, counter.releases);

  counter.fail = true;
  EXPECT_EQ(nullptr, sj_create_parser(text, &funcs));
}

TEST(JsonParserTest, DummyParserIsResetAndNeverReleased) {
  CountingAllocator counter;
  sj_util_funcs funcs = counter.Funcs();
  sj_parser* dummy = sj_get_dummy_parser(&funcs);
  EXPECT_EQ(11, sj_parse_object_start(dummy));
  EXPECT_EQ(dummy, sj_get_dummy_parser(nullptr));
  EXPECT_EQ(0, dummy->error);
  EXPECT_STREQ("", dummy->current);
  EXPECT_EQ(sj_default_free, dummy->funcs.release);
  dummy->funcs = funcs;
  sj_free_parser(dummy);
  EXPECT_EQ(0, counter.releases);
}

TEST(JsonParserTest, PeeksLookAtTheCurrentByteOnly) {
  char text[] = " {";
  sj_parser* p = sj_create_parser(text, nullptr);
  EXPECT_FALSE(sj_peek_is_object(p));
  sj_skip_whitespace(p);
  EXPECT_TRUE(sj_peek_is_object(p));
  EXPECT_FALSE(sj_peek_is_array(p) || sj_peek_is_string(p) || sj_peek_is_number(p) ||
               sj_peek_is_boolean(p) || sj_peek_is_null(p));
  EXPECT_EQ(text + 1, p->current);
  sj_free_parser(p);
}

}  // namespace
