#include "util/idn.h"

#include <idna.h>

#include <string>

#include <gtest/gtest.h>

#include "util/test_support.h"
#include "util/unique_free.h"

namespace {

// "bücher.example" in UTF-8 and its ASCII form.
const char kUnicode[] = "b\xc3\xbc" "cher.example";
const char kAscii[] = "xn--bcher-kva.example";
const std::string kLongLabel = std::string(64, 'a') + ".example";

std::string take(char* heap) {
  tavix::unique_free<char> owner(heap);
  return owner ? owner.get() : "(null)";
}

// The conversions log through the console writers here; keep that noise out
// of the test output.
template <class F>
auto quietly(F body) -> decltype(body()) {
  return tavix::test::CaptureStreams(body).result;
}

TEST(IdnTest, Conversions) {
  EXPECT_EQ(kAscii, tavix::idn::toAscii(kUnicode));
  EXPECT_EQ(kUnicode, tavix::idn::toUtf8(kAscii));
  EXPECT_EQ(std::string("J\xc3\xb6rg@") + kAscii,
            tavix::idn::emailToAscii(std::string("J\xc3\xb6rg@") + kUnicode));
  EXPECT_EQ("postmaster", tavix::idn::emailToAscii("postmaster"));
  try {
    tavix::idn::emailToAscii("info@" + kLongLabel);
    FAIL() << "no exception";
  } catch (const tavix::idn::IdnaError& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("Invalid length")) << e.what();
  }

  int rc = -1;
  EXPECT_EQ(kAscii, take(idn_toascii(kUnicode, &rc)));
  EXPECT_EQ(IDNA_SUCCESS, rc);
  EXPECT_EQ(nullptr, idn_toascii(kLongLabel.c_str(), &rc));
  EXPECT_EQ(IDNA_INVALID_LENGTH, rc);
  EXPECT_EQ(nullptr, idn_toascii(nullptr, &rc));
  EXPECT_EQ(std::string("info@") + kAscii,
            take(idn_email_toascii((std::string("info@") + kUnicode).c_str())));
}

// The same conversion asked for again, after others and after a failure,
// gives the same result each time.
TEST(IdnTest, RepeatedConversionsAgree) {
  for (int round = 0; round < 2; ++round) {
    for (const char* domain : {kUnicode, kUnicode, kLongLabel.c_str(), kUnicode, kAscii}) {
      SCOPED_TRACE(domain);
      int rc = -1;
      std::string const converted = take(idn_toascii(domain, &rc));
      EXPECT_EQ(domain == kLongLabel.c_str() ? IDNA_INVALID_LENGTH : IDNA_SUCCESS, rc);
      EXPECT_EQ(domain == kLongLabel.c_str() ? "(null)" : kAscii, converted);
    }
  }
}

TEST(IdnTest, SafeConversionsFallBackToTheInput) {
  EXPECT_EQ(kAscii, take(idn_toascii_safe(kUnicode)));
  EXPECT_EQ(kLongLabel, quietly([] { return take(idn_toascii_safe(kLongLabel.c_str())); }));

  auto run = tavix::test::CaptureStreams(
      [] { return take(idn_email_toascii_safe(("x@" + kLongLabel).c_str())); });
  EXPECT_EQ("x@" + kLongLabel, run.result);
  EXPECT_EQ("idn_email_toascii_safe(x@" + kLongLabel + ") failed: Invalid length\n", run.err);
}

TEST(IdnTest, UrlConversion) {
  const std::string host = kUnicode;
  const struct {
    std::string url;
    std::string expected;
  } cases[] = {
      {"https://user:pw@" + host + ":8443/", std::string("https://user:pw@") + kAscii + ":8443/"},
      {"mailto@" + host + "/x?q=1", std::string("mailto@") + kAscii + "/x?q=1"},
      {":8080/", "(null)"},
      {"http://" + kLongLabel + "/", "(null)"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.expected, quietly([&] { return take(idn_url_toascii(c.url.c_str())); }))
        << c.url;
  }
}

}  // namespace
