// strprintf: formatting into a string of exactly the right length.
#include "ipc/strprintf.h"

#include <gtest/gtest.h>

namespace {

TEST(StrprintfTest, FormatsIntoAStringOfTheExactLength) {
  std::string long_text(5000, 'x');
  struct Case {
    std::string got, want;
  } cases[] = {
      {strprintf("%s", ""), ""},  // empty output
      {strprintf("%lu-%s", 12ul, "Run A"), "12-Run A"},
      {strprintf("/tmp/%s", "zebtrksvc"), "/tmp/zebtrksvc"},
      {strprintf("%s%X", "p", 0x1A2Fu), "p1A2F"},
      {strprintf("%s!", long_text.c_str()), long_text + "!"},
      {strprintf("a%cb", '\0'), std::string("a\0b", 3)},  // embedded zero kept
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.want);
  EXPECT_EQ(strprintf(nullptr), "");
}

}  // namespace
