// Idle and Connected: the version check, what a client sends when it is not
// connected (nothing), what becomes of its socket, and a stream that the
// service closes.
#include <thread>

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

struct VersionCase {
  const char* name;
  Reply reply;
  bool connects;
};

TEST_F(ClientTest, VersionCheckDecidesTheState) {
  const VersionCase cases[] = {
      {"ver 0", Reply::Result({{"ver", 0}}), true},
      {"ver 5", Reply::Result({{"ver", 5}}), true},
      {"largest ver", Reply::Result({{"ver", 18446744073709551615ull}}), true},
      {"nil error", Reply::Answer(FS::Map({{"error", nullptr}, {"result", FS::Map({{"ver", 0}})}})), true},
      {"error", Reply::Error("version 0 is too old"), false},
      {"no ver", Reply::Result(), false},
      {"ver negative", Reply::Result({{"ver", -1}}), false},
      {"ver string", Reply::Result({{"ver", "0"}}), false},
      {"garbage", Reply::Raw(FS::Wire("C1")), false},
      {"closed", Reply::Close(), false},
  };
  for (const VersionCase& row : cases) {
    SCOPED_TRACE(row.name);
    m_fake.SetVersionHandler([&](const Request&) { return row.reply; });
    CTrkClient client;
    EXPECT_EQ(client.Connect(), row.connects);
    size_t requests = m_fake.RequestCount();
    if (!row.connects) {
      // Idle: commands fail without traffic, and Connect tries again.
      EXPECT_EQ(Succeeding(client), 0);
      EXPECT_EQ(m_fake.RequestCount(), requests);
      m_fake.SetVersionHandler([](const Request&) { return Reply::Result({{"ver", 0}}); });
      EXPECT_TRUE(client.Connect());
      requests = m_fake.RequestCount();
    }
    m_fake.Enqueue(Reply::Result({{"detected", true}}));
    EXPECT_TRUE(client.DetectDrive());
    EXPECT_EQ(m_fake.RequestCount(), requests + 1);
  }
}

// A failed version check keeps its socket open (the client is Idle); the next
// Connect closes it before it opens a new one, so nothing is leaked.
TEST_F(ClientTest, FailedVersionCheckKeepsItsSocketUntilTheNextConnect) {
  m_fake.SetVersionHandler([](const Request&) { return Reply::Error("no"); });
  CTrkClient client;
  EXPECT_FALSE(client.Connect());
  EXPECT_EQ(ClientSockets(), 1);
  EXPECT_EQ(m_fake.OpenConnectionCount(), 1u);

  EXPECT_FALSE(client.Connect());
  EXPECT_EQ(ClientSockets(), 1);
  ASSERT_TRUE(m_fake.WaitForOpenConnections(1));
  EXPECT_EQ(m_fake.ConnectionCount(), 2u);

  m_fake.SetVersionHandler(nullptr);
  m_fake.Enqueue(Reply::Result({{"ver", 0}}));
  EXPECT_TRUE(client.Connect());
  EXPECT_EQ(ClientSockets(), 1);
  ASSERT_TRUE(m_fake.WaitForOpenConnections(1));
  EXPECT_EQ(m_fake.ConnectionCount(), 3u);

  client.Disconnect();
  EXPECT_EQ(ClientSockets(), 0);
  EXPECT_TRUE(m_fake.WaitForOpenConnections(0));
}

TEST_F(ClientTest, ConnectWithoutServiceFailsAndTriesAgainLater) {
  m_fake.Stop();
  CTrkClient client;
  EXPECT_FALSE(client.Connect());
  EXPECT_EQ(ClientSockets(), 0);
  EXPECT_EQ(Succeeding(client), 0);
  ASSERT_TRUE(m_fake.Start());
  EXPECT_TRUE(client.Connect());
  EXPECT_EQ(m_fake.RequestCount(), 1u);
}

TEST_F(ClientTest, IdleClientSendsNothing) {
  CTrkClient client;
  client.Disconnect();  // harmless before any Connect
  EXPECT_EQ(Succeeding(client), 0);
  EXPECT_EQ(m_fake.ConnectionCount(), 0u);

  ASSERT_TRUE(client.Connect());
  client.Disconnect();
  EXPECT_EQ(ClientSockets(), 0);
  EXPECT_EQ(Succeeding(client), 0);
  EXPECT_TRUE(m_fake.WaitForOpenConnections(0));
  EXPECT_EQ(m_fake.RequestCount(), 1u);  // the version check only
}

TEST_F(ClientTest, SecondConnectSendsNothing) {
  CTrkClient client;
  ASSERT_TRUE(client.Connect());
  EXPECT_TRUE(client.Connect());
  m_fake.Enqueue(Reply::Result({{"detected", true}}));
  EXPECT_TRUE(client.DetectDrive());
  std::vector<Request> requests = m_fake.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].act(), "verCheck");
  EXPECT_EQ(requests[1].ord(), 0);
  EXPECT_EQ(m_fake.ConnectionCount(), 1u);
}

TEST_F(ClientTest, DestroyedClientHasClosedItsSocket) {
  {
    CTrkClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_EQ(ClientSockets(), 1);
  }
  EXPECT_EQ(ClientSockets(), 0);
  EXPECT_TRUE(m_fake.WaitForOpenConnections(0));
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

}  // namespace
}  // namespace clienttest
