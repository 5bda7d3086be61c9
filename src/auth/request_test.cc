#include "auth/request.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

using tavix::auth::kMaxRequest;
using tavix::auth::NormalizeLogin;
using tavix::auth::ParseRequest;
using tavix::auth::ReadRequest;
using tavix::auth::Request;
using tavix::auth::RequestStatus;

std::string Bytes(const char* text, size_t size) { return std::string(text, size); }

struct ParseCase {
  std::string input;
  RequestStatus status;
  std::string login;
  std::string password;
};

TEST(ParseRequestTest, SplitsLoginAndPassword) {
  const std::string longest_login(kMaxRequest - 2, 'a');
  const ParseCase cases[] = {
      {Bytes("jo@a.test\0secret\0" "1234@host\0", 27), RequestStatus::kOk, "jo@a.test", "secret"},
      // Dovecot's form: the timestamp is empty; so may anything after it be.
      {Bytes("jo@a.test\0secret\0\0", 18), RequestStatus::kOk, "jo@a.test", "secret"},
      {Bytes("jo@a.test\0secret\0", 17), RequestStatus::kOk, "jo@a.test", "secret"},
      {Bytes("jo@a.test\0\0\0", 12), RequestStatus::kOk, "jo@a.test", ""},
      {longest_login + std::string(2, '\0'), RequestStatus::kOk, longest_login, ""},
      {std::string(kMaxRequest + 1, '\0'), RequestStatus::kTooLong, "", ""},
      {"", RequestStatus::kMalformed, "", ""},
      {"jo@a.test", RequestStatus::kMalformed, "", ""},
      {Bytes("jo@a.test\0secret", 16), RequestStatus::kMalformed, "", ""},
  };
  for (const ParseCase& c : cases) {
    Request request;
    EXPECT_EQ(c.status, ParseRequest(c.input.data(), c.input.size(), &request)) << c.input;
    EXPECT_EQ(c.login, request.login);
    EXPECT_EQ(c.password, std::string(request.password.data(), request.password.size()));
  }
}

// Writes `input` into a pipe, closes the writing end and reads the request
// from the reading end; `*left` receives what the reader did not take.
RequestStatus ReadFromPipe(const std::string& input, Request* request, size_t* left) {
  int fds[2];
  EXPECT_EQ(0, pipe(fds));
  fcntl(fds[1], F_SETPIPE_SZ, 65536);
  EXPECT_EQ(static_cast<ssize_t>(input.size()), write(fds[1], input.data(), input.size()));
  close(fds[1]);
  RequestStatus status = ReadRequest(fds[0], request);
  char rest[4096];
  ssize_t got = read(fds[0], rest, sizeof(rest));
  *left = got > 0 ? static_cast<size_t>(got) : 0;
  close(fds[0]);
  return status;
}

TEST(ReadRequestTest, NeverReadsBeyondTheLimit) {
  Request request;
  size_t left = 0;
  EXPECT_EQ(RequestStatus::kOk, ReadFromPipe(Bytes("a@b.c\0pw\0\0", 10), &request, &left));
  EXPECT_EQ("a@b.c", request.login);
  EXPECT_EQ(0u, left);

  const std::string exact = std::string(kMaxRequest - 2, 'x') + std::string(2, '\0');
  EXPECT_EQ(RequestStatus::kOk, ReadFromPipe(exact, &request, &left));

  // One byte beyond the limit is all it takes to refuse, and all it reads.
  EXPECT_EQ(RequestStatus::kTooLong, ReadFromPipe(std::string(600, 'x'), &request, &left));
  EXPECT_EQ(600 - kMaxRequest - 1, left);

  EXPECT_EQ(RequestStatus::kMalformed, ReadFromPipe("a@b.c", &request, &left));
  EXPECT_EQ(RequestStatus::kMalformed, ReadFromPipe("", &request, &left));
}

TEST(ReadRequestTest, ClosedDescriptorIsMisuse) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  close(fds[0]);
  close(fds[1]);
  Request request;
  EXPECT_EQ(RequestStatus::kNoDescriptor, ReadRequest(fds[0], &request));
  // A descriptor that cannot be read is another matter: the caller may try again.
  int dir = open("/", O_RDONLY | O_DIRECTORY);
  ASSERT_GE(dir, 0);
  EXPECT_EQ(RequestStatus::kReadError, ReadRequest(dir, &request));
  close(dir);
}

TEST(NormalizeLoginTest, GivesTheFormOfTheRecords) {
  struct Case {
    const char* login;
    const char* mailname;  // null: no record can have this name
    const char* domain;
  } cases[] = {
      {"jo@a.test", "jo", "a.test"},
      {"Jo.Smith@Example.COM", "jo.smith", "example.com"},
      {"info@b\xc3\xbc" "cher.example", "info", "xn--bcher-kva.example"},
      {"info@B\xc3\x9c" "CHER.example", "info", "xn--bcher-kva.example"},
      {"o'neil+x@xn--bcher-kva.example", "o'neil+x", "xn--bcher-kva.example"},
      {"jo", nullptr, nullptr},
      {"@a.test", nullptr, nullptr},
      {"jo@", nullptr, nullptr},
      {"jo@a@b.test", nullptr, nullptr},
      {"j o@a.test", nullptr, nullptr},
      {"..@a.test", nullptr, nullptr},
      {"jo@a..test", nullptr, nullptr},
      {"j\xc3\xb6@a.test", nullptr, nullptr},
      {"jo@a.test\n", nullptr, nullptr},
  };
  for (const Case& c : cases) {
    std::string mailname, domain;
    bool ok = NormalizeLogin(c.login, &mailname, &domain);
    EXPECT_EQ(c.mailname != nullptr, ok) << c.login;
    if (ok && c.mailname) {
      EXPECT_EQ(c.mailname, mailname);
      EXPECT_EQ(c.domain, domain);
    }
  }
}

TEST(PrintableTest, KeepsALogLineOneLine) {
  EXPECT_EQ("jo@a.test", tavix::auth::Printable("jo@a.test"));
  EXPECT_EQ("a\\x0ab\\x5c\\xc3", tavix::auth::Printable("a\nb\\\xc3"));
}

}  // namespace
