// LocalSocket on real Unix-domain sockets: exact reads, writes that report
// what was sent, zero-size calls, a peer that has gone, moves, reconnection,
// the path rule, close-on-exec (of segments too), signals, and Enum.
#include "ipc/LocalSocket.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

#include "ipc/CSharedMemory.h"
#include "ipc/LocalSocketServer.h"
#include "tests/ipc/IpcTestSupport.h"

namespace {

using ipctest::Pair;
using ipctest::RoundTrip;

// Zero-size calls return 0 and make no system call: a call on any descriptor
// (even -1) would change errno.
void ExpectZeroSizeCallsTouchNothing(LocalSocket& socket) {
  errno = EDOM;
  EXPECT_EQ(socket.Read(nullptr, 0), 0u);
  EXPECT_EQ(socket.Write(nullptr, 0), 0u);
  EXPECT_EQ(errno, EDOM);
}

class LocalSocketTest : public ipctest::IpcTest {};

TEST_F(LocalSocketTest, ReadDeliversAllRequestedBytesOrNothing) {
  struct Case {
    const char* what;
    std::vector<std::string> pieces;  // sent one by one, a little apart
    bool closeAfter;                  // the peer disconnects after the pieces
    size_t expect;
  } cases[] = {
      {"in one piece", {"0123456789"}, false, 10},
      {"in three pieces", {"012", "345", "6789"}, false, 10},
      {"all, then the peer closes", {"0123456789"}, true, 10},
      {"peer closes half-way", {"012345"}, true, 0},
      {"peer closes at once", {}, true, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Pair pair;
    ipctest::Open(pair, Name());
    // Nothing sent or consumed here: the read below sees exactly the pieces.
    ExpectZeroSizeCallsTouchNothing(pair.client);
    std::thread sender([&] {
      for (const std::string& piece : c.pieces) {
        pair.peer.Write(piece.data(), piece.size());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      if (c.closeAfter) pair.peer.Disconnect();
    });
    char buffer[10] = {};
    EXPECT_EQ(pair.client.Read(buffer, sizeof(buffer)), c.expect);
    sender.join();
    EXPECT_EQ(pair.client.connected(), c.expect != 0);
    if (c.expect != 0) {
      EXPECT_EQ(std::string(buffer, sizeof(buffer)), "0123456789");
      continue;
    }
    // Disconnected: everything later fails at once.
    EXPECT_EQ(pair.client.Read(buffer, 1), 0u);
    EXPECT_EQ(pair.client.Write("x", 1), 0u);
    ExpectZeroSizeCallsTouchNothing(pair.client);
  }
}

TEST_F(LocalSocketTest, WritingToAGonePeerReportsAndDoesNotRaiseSigpipe) {
  // Default disposition: a SIGPIPE would end this test program.
  ipctest::ScopedSignal sigpipe(SIGPIPE, nullptr);
  struct Case {
    const char* what;
    size_t size;
    size_t peerReads;  // bytes the peer reads before it closes
  } cases[] = {
      {"small write after the peer closed", 10, 0},
      {"large write, peer closes part-way", 8u << 20, 4096},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Pair pair;
    ipctest::Open(pair, Name());
    std::thread closer([&] {
      std::vector<char> sink(c.peerReads);
      if (!sink.empty()) pair.peer.Read(sink.data(), sink.size());
      pair.peer.Disconnect();
    });
    if (c.peerReads == 0) closer.join();
    std::vector<char> data(c.size, 'z');
    size_t sent = pair.client.Write(data.data(), data.size());
    if (closer.joinable()) closer.join();
    EXPECT_LT(sent, c.size);
    EXPECT_GE(sent, c.peerReads);
    // A failed write does not disconnect; the next read does.
    EXPECT_TRUE(pair.client.connected());
    char byte;
    EXPECT_EQ(pair.client.Read(&byte, 1), 0u);
    EXPECT_FALSE(pair.client.connected());
  }
}

TEST_F(LocalSocketTest, MovesTransferTheConnectionAndCloseOnlyOnce) {
  Pair one, two;
  ipctest::Open(one, Name());
  ipctest::Open(two, Name());
  {
    LocalSocket moved(std::move(one.client));
    EXPECT_FALSE(one.client.connected());
    one.client = std::move(moved);  // back into the moved-from socket
    EXPECT_FALSE(moved.connected());
  }  // destroying the moved-from socket must not close the connection
  EXPECT_TRUE(RoundTrip(one.client, one.peer, "still open"));

  // Assigning a connected socket into a connected one closes the target's old
  // connection: its peer sees the end of the stream.
  two.client = std::move(one.client);
  EXPECT_FALSE(one.client.connected());
  ASSERT_EQ(NewDescriptors().size(), 5u);  // 2 servers, 2 peers, 1 client
  char byte;
  EXPECT_EQ(two.peer.Read(&byte, 1), 0u);

  LocalSocket& alias = two.client;
  two.client = std::move(alias);  // self-assignment keeps the connection
  EXPECT_TRUE(RoundTrip(two.client, one.peer, "self"));
}

TEST_F(LocalSocketTest, ConnectOnAConnectedSocketClosesTheOldConnection) {
  Pair first;
  ipctest::Open(first, Name());
  LocalSocketServer second;
  std::string secondName = Name();
  ASSERT_TRUE(second.Create(secondName.c_str()));
  size_t before = NewDescriptors().size();

  ASSERT_TRUE(first.client.Connect(secondName.c_str()));
  LocalSocket secondPeer = second.Accept();
  ASSERT_EQ(NewDescriptors().size(), before + 1);  // only secondPeer is new
  char byte;
  EXPECT_EQ(first.peer.Read(&byte, 1), 0u);  // the old connection was closed
  EXPECT_TRUE(RoundTrip(first.client, secondPeer, "new"));

  // A failed Connect also drops the old connection.
  EXPECT_FALSE(first.client.Connect(Name().c_str()));
  EXPECT_FALSE(first.client.connected());
  EXPECT_EQ(secondPeer.Read(&byte, 1), 0u);
}

TEST_F(LocalSocketTest, ConnectWithoutListenerFailsAndHoldsNothing) {
  std::string stale = Name();
  ipctest::BindStale(stale);
  struct Case {
    std::string name;
    int error;
  } cases[] = {{Name(), ENOENT}, {stale, ECONNREFUSED}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LocalSocket socket;
    EXPECT_FALSE(socket.Connect(c.name.c_str()));
    EXPECT_EQ(errno, c.error);
    EXPECT_FALSE(socket.connected());
    EXPECT_TRUE(NewDescriptors().empty());
  }
  unlink(("/tmp/" + stale).c_str());
}

TEST_F(LocalSocketTest, LongNamesAreCutToTheSocketPathField) {
  // "/tmp/" plus 102 characters fills the 107 usable bytes of sun_path.
  std::string base = Name();
  base += std::string(102 - base.size(), 'n');
  LocalSocketServer server;
  ASSERT_TRUE(server.Create((base + "-server-tail").c_str()));
  EXPECT_TRUE(ipctest::PathExists("/tmp/" + base));
  // Any name with the same first 102 characters reaches the same socket.
  LocalSocket client;
  EXPECT_TRUE(client.Connect((base + "-other-tail").c_str()));
  LocalSocket peer = server.Accept();
  EXPECT_TRUE(RoundTrip(client, peer, "cut"));
  server.Destroy();
  EXPECT_FALSE(ipctest::PathExists("/tmp/" + base));
}

// A child process of the host must not inherit any descriptor of ours.
TEST_F(LocalSocketTest, AllDescriptorsOfTheModuleAreCloseOnExec) {
  Pair pair;
  ipctest::Open(pair, Name());
  CSharedMemory memory;
  ASSERT_TRUE(memory.Create(Name().c_str(), 8));
  std::vector<int> fds = NewDescriptors();
  EXPECT_EQ(fds.size(), 4u);  // listening, client, accepted, segment
  for (int fd : fds) EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << "fd " << fd;
}

// A signal wakes a waiting Accept, which waits on; it ends a waiting Read,
// which disconnects, and a blocked Write, which reports what it sent.
TEST_F(LocalSocketTest, SignalsEndAWaitingReadOrWriteButNotAccept) {
  ipctest::ScopedSignal usr1(SIGUSR1, ipctest::CountSignal);
  LocalSocketServer server;
  std::string name = Name();
  ASSERT_TRUE(server.Create(name.c_str()));

  LocalSocket peer;
  std::string acceptError;
  std::thread acceptor([&] {
    try {
      peer = server.Accept();
    } catch (const std::exception& e) {
      acceptError = e.what();
    }
  });
  EXPECT_GT(ipctest::Interrupt(acceptor, 5), 0);
  LocalSocket client;
  ASSERT_TRUE(client.Connect(name.c_str()));
  acceptor.join();
  EXPECT_EQ(acceptError, "");
  ASSERT_TRUE(peer.connected());

  // The client neither reads nor writes. A signal that did not end a call
  // fails the test; the call is then ended through the descriptor.
  const int peerFd = peer.fd();
  const std::vector<char> big(8 << 20, 'x');  // far more than the buffers hold
  std::atomic<bool> done{false};
  size_t sent = 0;
  std::thread writer([&] {
    sent = peer.Write(big.data(), big.size());
    done = true;
  });
  EXPECT_GT(ipctest::Interrupt(writer, 5), 0);
  EXPECT_TRUE(done.load());
  if (!done) shutdown(peerFd, SHUT_WR);
  writer.join();
  EXPECT_LT(sent, big.size());
  EXPECT_TRUE(peer.connected());

  done = false;
  char buffer[4] = {};
  size_t got = 1;
  std::thread reader([&] {
    got = peer.Read(buffer, sizeof(buffer));
    done = true;
  });
  EXPECT_GT(ipctest::Interrupt(reader, 5), 0);
  EXPECT_TRUE(done.load());
  if (!done) shutdown(peerFd, SHUT_RD);
  reader.join();
  EXPECT_EQ(got, 0u);
  EXPECT_FALSE(peer.connected());
}

TEST_F(LocalSocketTest, EnumListsMatchingEntriesOfTmp) {
  std::string prefix = Name() + "-";
  LocalSocketServer a, b;
  ASSERT_TRUE(a.Create((prefix + "a").c_str()));
  ASSERT_TRUE(b.Create((prefix + "b").c_str()));

  std::vector<std::string> names = LocalSocket::Enum(prefix.c_str());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{prefix + "a", prefix + "b"}));
  EXPECT_TRUE(LocalSocket::Enum((prefix + "c").c_str()).empty());
  // Case-sensitive, and entries are not filtered: "" yields "." and "..".
  std::string upper = prefix;
  std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
  EXPECT_TRUE(LocalSocket::Enum(upper.c_str()).empty());
  std::vector<std::string> all = LocalSocket::Enum("");
  for (const std::string& entry : {std::string("."), std::string(".."), prefix + "a"})
    EXPECT_EQ(std::count(all.begin(), all.end(), entry), 1) << entry;
}

}  // namespace
