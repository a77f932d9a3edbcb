// The fake service itself, where the client tests do not reach: stopping with
// connections still held, requests that do not decode, and the byte notation.
#include <stdexcept>
#include <thread>

#include "ipc/LocalSocket.h"
#include "tests/client/ClientTestSupport.h"

namespace clienttest {
namespace {

using FS = FakeService;

TEST_F(ClientTest, FakeStopsWhileClientsHoldConnections) {
  LocalSocket idle, waiting;
  ASSERT_TRUE(idle.Connect("zebtrksvc"));
  ASSERT_TRUE(waiting.Connect("zebtrksvc"));
  m_fake.Enqueue(Reply::Never());
  std::vector<unsigned char> request = FS::Wire("82 A3'act' A4'exec' A3'ord' 01");
  ASSERT_EQ(waiting.Write(request.data(), request.size()), request.size());
  ASSERT_TRUE(m_fake.WaitForRequests(1));
  ASSERT_TRUE(m_fake.WaitForOpenConnections(2));
  m_fake.Stop();
  EXPECT_EQ(m_fake.OpenConnectionCount(), 0u);
  unsigned char byte;
  EXPECT_EQ(idle.Read(&byte, 1), 0u);  // both streams ended, nothing answered
  EXPECT_EQ(waiting.Read(&byte, 1), 0u);
}

TEST_F(ClientTest, FakeRecordsARequestThatDoesNotDecode) {
  {
    LocalSocket socket;
    ASSERT_TRUE(socket.Connect("zebtrksvc"));
    std::vector<unsigned char> half = FS::Wire("82 A3'act' A4 'ex'");
    ASSERT_EQ(socket.Write(half.data(), half.size()), half.size());
  }
  ASSERT_TRUE(m_fake.WaitForRequests(1));
  Request request = m_fake.Requests()[0];
  EXPECT_FALSE(request.complete);
  // LocalSocket delivers a read whole or not at all: the two bytes of the
  // cut text are not among what was read.
  EXPECT_EQ(Hex(request.bytes), "82 A3 61 63 74 A4 ");
  EXPECT_TRUE(m_fake.WaitForOpenConnections(0));
}

TEST(FakeServiceWire, ParsesBytesAndTextsAndRejectsTheRest) {
  EXPECT_EQ(Hex(FS::Wire("83 A3'act' ' ' C0")), "83 A3 61 63 74 20 C0 ");
  EXPECT_TRUE(FS::Wire("").empty());
  EXPECT_THROW(FS::Wire("8"), std::invalid_argument);
  EXPECT_THROW(FS::Wire("GG"), std::invalid_argument);
  EXPECT_THROW(FS::Wire("'open"), std::invalid_argument);
}

}  // namespace
}  // namespace clienttest
