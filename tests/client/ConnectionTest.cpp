// Idle and Connected: the version check, what a client sends when it is not
// connected (nothing), what becomes of its socket, a stream that the service
// closes; and one exchange at a time per client: threads sharing a client
// never interleave their requests or swap their answers, and Disconnect waits
// for a running exchange. (Every test's fixture also fails on a descriptor
// left open, so a client that does not close its socket when destroyed is
// caught everywhere.)
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <zeb/CMemFile.h>

#include "client/CTrkClient.h"
#include "tests/client/ClientTestSupport.h"

namespace clienttest {
namespace {

using FS = FakeService;

// Runs all thirteen commands; returns how many succeeded.
int Succeeding(CTrkClient& c) {
  unsigned int number = 0;
  STrkMovieInfo info = {};
  zeb::CString mapping;
  STrkEvent event = {};
  bool results[] = {c.DetectDrive(),
                    c.ListMovies(number),
                    c.GetMovieInfo(0, &info),
                    c.GetMovieIndex("m", number),
                    c.OpenMovie(0, mapping),
                    c.CloseMovie(0),
                    c.ReadFrame(0, 0),
                    c.DeleteMovie(0),
                    c.DeleteAllMovies(),
                    c.ReadInfoFile(0, zeb::CMemFile::Create()),
                    c.CreateEventQueue(number),
                    c.DestroyEventQueue(0),
                    c.ReadEventQueue(0, event)};
  int count = 0;
  for (bool result : results) count += result ? 1 : 0;
  return count;
}

// A failed version check leaves the client Idle with its socket still open;
// the next Connect closes it before it opens a new one, so nothing leaks.
TEST_F(ClientTest, VersionCheckDecidesTheState) {
  const struct {
    const char* name;
    Reply reply;
    bool connects;
  } cases[] = {
      {"ver 0", Reply::Result({{"ver", 0}}), true},
      {"ver 5", Reply::Result({{"ver", 5}}), true},
      {"largest ver", Reply::Result({{"ver", 18446744073709551615ull}}), true},
      {"nil error", Reply::Answer(FS::Map({{"error", nullptr}, {"result", FS::Map({{"ver", 0}})}})), true},
      {"error", Reply::Error("version 0 is too old"), false},
      {"no ver", Reply::Result(), false},
      {"ver negative", Reply::Result({{"ver", -1}}), false},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    m_fake.SetVersionHandler([&](const Request&) { return row.reply; });
    CTrkClient client;
    EXPECT_EQ(client.Connect(), row.connects);
    EXPECT_EQ(ClientSockets(), 1);
    size_t requests = m_fake.RequestCount();
    if (!row.connects) {
      EXPECT_EQ(Succeeding(client), 0);
      EXPECT_EQ(m_fake.RequestCount(), requests);
      EXPECT_FALSE(client.Connect());  // a new connection, the old one closed
      EXPECT_EQ(ClientSockets(), 1);
      m_fake.SetVersionHandler([](const Request&) { return Reply::Result({{"ver", 0}}); });
      EXPECT_TRUE(client.Connect());
      EXPECT_EQ(ClientSockets(), 1);
      requests = m_fake.RequestCount();
    }
    m_fake.Enqueue(Reply::Result({{"detected", true}}));
    EXPECT_TRUE(client.DetectDrive());
    EXPECT_EQ(m_fake.RequestCount(), requests + 1);
    client.Disconnect();
    EXPECT_EQ(ClientSockets(), 0);
    ASSERT_TRUE(m_fake.WaitForOpenConnections(0));
  }
}

// Without a service, and after Disconnect, the client is Idle: commands send
// nothing and Connect tries again; a second Connect while Connected sends
// nothing either.
TEST_F(ClientTest, IdleClientSendsNothingAndConnectTriesAgain) {
  m_fake.Stop();
  CTrkClient client;
  client.Disconnect();  // harmless before any Connect
  EXPECT_FALSE(client.Connect());
  EXPECT_EQ(ClientSockets(), 0);
  EXPECT_EQ(Succeeding(client), 0);
  ASSERT_TRUE(m_fake.Start());
  ASSERT_TRUE(client.Connect());
  EXPECT_TRUE(client.Connect());
  m_fake.Enqueue(Reply::Result({{"detected", true}}));
  EXPECT_TRUE(client.DetectDrive());
  client.Disconnect();
  EXPECT_EQ(ClientSockets(), 0);
  EXPECT_EQ(Succeeding(client), 0);
  EXPECT_TRUE(m_fake.WaitForOpenConnections(0));
  std::vector<Request> requests = m_fake.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].act(), "verCheck");
  EXPECT_EQ(requests[1].ord(), 0);
  EXPECT_EQ(m_fake.ConnectionCount(), 1u);
}

// Once the service has closed the stream, every command fails and sends
// nothing, while the client stays Connected: Connect returns true at once.
TEST_F(ClientTest, StreamClosedByTheServiceFailsEveryLaterCommand) {
  const struct {
    const char* name;
    Reply reply;
  } cases[] = {
      {"closed before answering", Reply::Close()},
      {"closed inside the answer", Reply::Result({{"count", 3}}).CloseAfter(5)},
      {"closed after a header byte", Reply::Result({{"count", 3}}).CloseAfter(1)},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    CTrkClient client;
    ASSERT_TRUE(client.Connect());
    m_fake.Enqueue(row.reply);
    unsigned int count = 99;
    EXPECT_FALSE(client.ListMovies(count));
    EXPECT_EQ(count, 99u);
    EXPECT_EQ(ClientSockets(), 0);
    size_t requests = m_fake.RequestCount();
    EXPECT_EQ(Succeeding(client), 0);
    EXPECT_TRUE(client.Connect());
    EXPECT_EQ(Succeeding(client), 0);
    EXPECT_EQ(m_fake.RequestCount(), requests);
  }
}

TEST_F(ClientTest, PendingReadFailsWhenTheServiceStops) {
  CTrkClient client;
  ASSERT_TRUE(client.Connect());
  m_fake.Enqueue(Reply::Never());
  bool result = true;
  std::thread reader([&] {
    STrkEvent event = {};
    result = client.ReadEventQueue(1, event);
  });
  EXPECT_TRUE(m_fake.WaitForRequests(2));
  m_fake.Stop();
  reader.join();
  EXPECT_FALSE(result);
  EXPECT_TRUE(client.Connect());
}

// The request GetMovieIndex sends for a name of fewer than 32 bytes.
std::vector<unsigned char> IndexRequest(const std::string& name) {
  char header[16];
  std::snprintf(header, sizeof(header), "%02X", 0xA0u | static_cast<unsigned>(name.size()));
  return FS::Wire(std::string(kCommand3) + "03 A6'params' 81 A4'name' " + header + " '" + name + "'");
}

TEST_F(ClientTest, ThreadsSharingAClientNeverInterleave) {
  // Each name "n<k>" is answered with index k, some answers late, so that a
  // swapped or interleaved exchange shows as a wrong index or a broken
  // request.
  m_fake.SetHandler([](const Request& request) {
    const TinyMsgPackObject& name = request.params().valueForKey("name");
    unsigned int k = static_cast<unsigned int>(std::stoul(name.stringValue() + 1));
    Reply reply = Reply::Result({{"index", k}});
    return k % 7 == 0 ? reply.Delay(std::chrono::milliseconds(1)) : reply;
  });
  CTrkClient client;
  ASSERT_TRUE(client.Connect());
  const unsigned int kPerThread = 150;
  std::atomic<int> wrong{0};
  auto run = [&](unsigned int first) {
    for (unsigned int k = first; k < first + kPerThread; ++k) {
      unsigned int index = 0;
      if (!client.GetMovieIndex(("n" + std::to_string(k)).c_str(), index) || index != k) ++wrong;
    }
  };
  std::thread a(run, 1000), b(run, 2000);
  run(3000);
  a.join();
  b.join();
  EXPECT_EQ(wrong.load(), 0);

  std::vector<Request> requests = m_fake.Requests();
  ASSERT_EQ(requests.size(), 1 + 3 * kPerThread);
  for (size_t i = 1; i < requests.size(); ++i) {
    ASSERT_TRUE(requests[i].complete) << i;
    std::string name = requests[i].params().valueForKey("name").stringValue();
    ASSERT_EQ(Hex(requests[i].bytes), Hex(IndexRequest(name))) << i;
  }
}

TEST_F(ClientTest, DisconnectWaitsForTheRunningExchange) {
  CTrkClient client;
  ASSERT_TRUE(client.Connect());
  m_fake.Enqueue(
      Reply::Result({{"event", FS::Map({{"type", 1}, {"drive", 2}})}}).Delay(std::chrono::milliseconds(100)));
  STrkEvent event = {};
  bool result = false;
  std::thread reader([&] { result = client.ReadEventQueue(4, event); });
  EXPECT_TRUE(m_fake.WaitForRequests(2));
  client.Disconnect();  // holds on until the answer has been read
  reader.join();
  EXPECT_TRUE(result);
  EXPECT_EQ(event.type, 1u);
  EXPECT_EQ(event.drive, 2u);
  EXPECT_EQ(ClientSockets(), 0);
}

}  // namespace
}  // namespace clienttest
