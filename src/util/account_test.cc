#include "util/account.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "util/test_support.h"

namespace {

using tavix::test::CaptureStreams;

TEST(TavixGetpw, FillsWhatIsAskedOrReportsTheUnknownUser) {
  uid_t uid = 1;
  gid_t gid = 1;
  char* home = nullptr;
  ASSERT_EQ(0, tavix_getpw("root", &uid, &gid, &home));
  EXPECT_EQ(0u, uid);
  EXPECT_EQ(0u, gid);
  EXPECT_STREQ("/root", home);
  free(home);
  EXPECT_EQ(0, tavix_getpw("root", nullptr, nullptr, nullptr));

  auto output =
      CaptureStreams([&] { return tavix_getpw("no-such-user-x", &uid, nullptr, nullptr); });
  EXPECT_EQ(-1, output.result);
  EXPECT_EQ(0u, output.out.find("Unable to getpwnam for user no-such-user-x")) << output.out;

  EXPECT_EQ(65534u, tavix_ugid("nobody", 1));
  EXPECT_EQ(0u, tavix_ugid("no-such-user-x", 0));
}

TEST(GetGroupId, LooksUpByNameOrNumber) {
  const struct {
    const char* group;
    gid_t id;
    const char* message;  // null: nothing printed
  } cases[] = {
      {"nogroup", 65534, nullptr},
      {"65534", 65534, nullptr},
      {"no-such-group-x", 0, "getgrnam(no-such-group-x)"},
      {"4000000", 0, "getgrgid(4000000)"},
  };
  for (const auto& c : cases) {
    auto output = CaptureStreams([&] { return get_group_id(c.group); });
    EXPECT_EQ(c.id, output.result) << c.group;
    if (c.message)
      EXPECT_EQ(0u, output.out.find(c.message)) << output.out;
    else
      EXPECT_EQ("", output.out);
  }
}

}  // namespace
