// Shared pieces of the client tests: a fixture with a listening FakeService
// that fails a test which leaves a descriptor or segment behind, a count of
// this process's connections to the service, and a readable form of bytes.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/FakeService.h"
#include "tests/support/ResourceSnapshot.h"

namespace clienttest {

using Reply = FakeService::Reply;
using Request = FakeService::Request;

class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_fake.Start()); }
  void TearDown() override {
    m_fake.Stop();
    EXPECT_EQ(m_before.Leaks(), "");
  }

  testsupport::ResourceSnapshot m_before;  // taken before the fake listens
  FakeService m_fake;
};

// Client ends of connections to /tmp/zebtrksvc open in this process (their
// peer is the service socket; the fake's own ends are not counted).
inline int ClientSockets() {
  int count = 0;
  for (int fd : testsupport::OpenDescriptors()) {
    sockaddr_un peer = {};
    socklen_t size = sizeof(peer);
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0) continue;
    if (peer.sun_family == AF_UNIX && std::strcmp(peer.sun_path, "/tmp/zebtrksvc") == 0) ++count;
  }
  return count;
}

// "83 A3 61 ..." for readable comparisons.
inline std::string Hex(const std::vector<unsigned char>& bytes) {
  std::string text;
  for (unsigned char byte : bytes) {
    char pair[4];
    std::snprintf(pair, sizeof(pair), "%02X ", byte);
    text += pair;
  }
  return text;
}

// A packed field by value: gtest's comparisons bind references, which a
// misaligned field of STrkMovieInfo cannot take.
template <class T>
T Val(T value) {
  return value;
}

// The start of every command map, in FakeService::Wire notation: a map of 2
// ("act" "exec", "ord") or of 3 (with "params") up to the ordinal.
constexpr const char* kCommand2 = "82 A3'act' A4'exec' A3'ord' ";
constexpr const char* kCommand3 = "83 A3'act' A4'exec' A3'ord' ";

}  // namespace clienttest
