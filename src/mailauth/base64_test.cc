#include "mailauth/base64.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "util/unique_free.h"

namespace {

using tavix::unique_free;

std::string Encode(const std::string& bytes) {
  unique_free<char> text(b64_encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                                    bytes.size()));
  return text ? text.get() : "<null>";
}

std::string Decode(const std::string& text) {
  size_t len = 12345;
  unique_free<unsigned char> bytes(b64_decode(text.c_str(), &len));
  if (!bytes) return "<null>";
  EXPECT_EQ(bytes.get()[len], 0) << "decoded data must be NUL-terminated";
  return std::string(reinterpret_cast<const char*>(bytes.get()), len);
}

TEST(Base64Test, Rfc4648Vectors) {
  const struct {
    const char* plain;
    const char* encoded;
  } cases[] = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Encode(c.plain), c.encoded);
    EXPECT_EQ(Decode(c.encoded), c.plain);
  }
}

TEST(Base64Test, DecodingNeverFails) {
  const struct {
    const char* text;
    const char* bytes;
    size_t len;
  } cases[] = {
      {"=", "", 0},
      {"==", "", 0},
      {"Zg=", "", 0},             // one padding character but no whole group
      {"Zm9vYg", "foo", 3},       // an unpadded tail is left over
      {"Zm9v\n", "foo", 3},
      {"****", "\xFF\xFF\xFF", 3},  // foreign bytes count as 255
      {"A***", "\x0F\xFF\xFF", 3},
      {"Zm 9", "f\x7F\xFD", 3},
      {"Z\x80==", "o", 1},
  };
  for (const auto& c : cases) {
    unsigned char out[8];
    EXPECT_EQ(base64Decode(c.text, out), c.len) << c.text;
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), c.len), std::string(c.bytes, c.len))
        << c.text;
  }
  // A length given with the text is where decoding stops.
  unsigned char out[8];
  ASSERT_EQ(base64ArrayDecode("Zm9vYmFy", 4, out), 3u);
  EXPECT_EQ(std::memcmp(out, "foo", 3), 0);
}


}  // namespace
