// One exchange at a time per client: threads sharing a client never
// interleave their requests or swap their answers, Disconnect waits for a
// running exchange, and an event read blocked on one client ends when another
// client destroys the queue.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "client/CTrkClient.h"
#include "tests/client/ClientTestSupport.h"

namespace clienttest {
namespace {

using FS = FakeService;

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
  m_fake.Enqueue(Reply::Result({{"event", FS::Map({{"type", 1}, {"drive", 2}})}}).Delay(std::chrono::milliseconds(100)));
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

// The monitoring pattern: the event client blocks in ReadEventQueue; the
// request client destroys the queue, after which the service answers the
// pending read with an event of type 0.
TEST_F(ClientTest, PendingEventReadEndsWhenAnotherClientDestroysTheQueue) {
  auto destroyed = [](const Request& r) { return r.ord() == 11; };
  m_fake.SetHandler([&](const Request& request) {
    switch (request.ord()) {
      case 10:
        return Reply::Result({{"queueId", 7}});
      case 11:
        return Reply::Result();
      case 12:
        if (!m_fake.WaitForRequest(destroyed)) return Reply::Error("queue was not destroyed");
        return Reply::Result({{"event", FS::Map({{"type", 0}, {"drive", 0}})}});
      default:
        return Reply::Error("unexpected");
    }
  });
  CTrkClient requests, events;
  ASSERT_TRUE(requests.Connect());
  ASSERT_TRUE(events.Connect());
  unsigned int queueId = 0;
  ASSERT_TRUE(events.CreateEventQueue(queueId));
  STrkEvent event = {9, 9};
  bool read = false;
  std::thread monitor([&] {
    read = events.ReadEventQueue(queueId, event);
    events.Disconnect();
  });
  EXPECT_TRUE(m_fake.WaitForRequest([](const Request& r) { return r.ord() == 12; }));
  EXPECT_TRUE(requests.DestroyEventQueue(queueId));
  monitor.join();
  EXPECT_TRUE(read);
  EXPECT_EQ(event.type, 0u);
  EXPECT_EQ(event.drive, 0u);

  std::vector<Request> all = m_fake.Requests();
  ASSERT_EQ(all.size(), 5u);
  for (const Request& r : all) {
    if (r.ord() == 11 || r.ord() == 12) {
      EXPECT_EQ(r.param("queueId"), 7) << r.ord();
    }
  }
  EXPECT_NE(all[3].connection, all[4].connection);  // the read and the destroy
}

}  // namespace
}  // namespace clienttest
