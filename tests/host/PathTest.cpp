// zeb::path: resolving, joining, splitting and wildcard matching.
#include <gtest/gtest.h>

#include <string>

#include <zeb/Path.h>

namespace {

using namespace zeb::path;

TEST(PathTest, ExpandRelativePath) {
  struct SCase {
    const char* base;
    const char* path;
    const char* expected;
  };
  const SCase cases[] = {
      // An empty base is the root; more of that through the "trk:" file system.
      {"/", "", "/"},
      {"/base", "/abs/x", "/abs/x"},
      {"/base/", "x", "/base/x"},
      {"/a/b", "../c", "/a/c"},
      {"/a/b", "./c/.", "/a/b/c"},
      {"/", "../../x", "/x"},
      {"", "//x//y/", "/x/y/"},
      {"/a", "b/", "/a/b/"},
      {"d", "x", "d/x"},
      {"d", "../../x", "../x"},
      {"d", "..", "."},
  };
  for (const SCase& c : cases) {
    SCOPED_TRACE(std::string(c.base) + " | " + c.path);
    EXPECT_STREQ(ExpandRelativePath(c.base, c.path, '/').c_str(), c.expected);
  }
}

TEST(PathTest, JoinAndSplit) {
  struct SCase {
    const char* directory;
    const char* name;
    const char* joined;
  };
  const SCase joins[] = {
      {"/home/op", ".cache/Ostrel Systems/TRK", "/home/op/.cache/Ostrel Systems/TRK"},
      {"/home/op/", ".cache", "/home/op/.cache"},
      {"/d//", "/x", "/d/x"},
      {"/", "x", "/x"},
      {"", "x", "x"},
      {"/d", "", "/d"},
  };
  for (const SCase& c : joins) {
    EXPECT_STREQ(MakePath(c.directory, c.name, '/').c_str(), c.joined) << c.directory;
  }
  EXPECT_STREQ(GetFilename("/cache/7-Fire.dat").c_str(), "7-Fire.dat");
  EXPECT_STREQ(GetFilename("7-Fire").c_str(), "7-Fire");
  EXPECT_STREQ(GetFilename("/a/").c_str(), "");
  EXPECT_STREQ(RemoveExtension("/a.b/c.tar.gz").c_str(), "/a.b/c.tar");
  EXPECT_STREQ(RemoveExtension("/a.b/c").c_str(), "/a.b/c");
  EXPECT_STREQ(RemoveExtension("/d/.profile").c_str(), "/d/.profile");
  EXPECT_STREQ(ChangeExtension("/c/12-Run A.meta", ".dat").c_str(), "/c/12-Run A.dat");
  EXPECT_STREQ(ChangeExtension("/c/7", "info").c_str(), "/c/7.info");
  EXPECT_STREQ(GetDirectory("/a").c_str(), "/");
  EXPECT_STREQ(GetExtension("x/y.dat").c_str(), ".dat");
}

TEST(PathTest, WildcardMatch) {
  struct SCase {
    const char* pattern;
    const char* text;
    bool match;
  };
  const SCase cases[] = {
      {"*.dat", "12-Run.dat", true},   {"*.dat", "12-Run.DAT", false},
      {"*.dat", "12-Run.dat.meta", false}, {"*", "", true},
      {"", "", true},                  {"", "a", false},
      {"?", "", false},                {"?-*", "7-Fire", true},
      {"a*b*c", "aXbYc", true},        {"a*b*c", "aXbY", false},
      {"*a", "aaa", true},             {"**", "x", true},
      {"a?c", "abc", true},            {"a?c", "ac", false},
  };
  for (const SCase& c : cases) {
    EXPECT_EQ(WildcardMatch(c.pattern, c.text), c.match) << c.pattern << " ~ " << c.text;
  }
  // A pattern that makes naive backtracking exponential finishes at once.
  const std::string text(4000, 'a');
  EXPECT_FALSE(WildcardMatch("*a*a*a*a*a*a*a*a*a*a*b", text.c_str()));
}

}  // namespace
