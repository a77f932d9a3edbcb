// LocalSocketServer on real sockets: replacing a stale file, failures that
// leave nothing behind, the file mode and the umask, re-creation, moves, and
// Accept ended by Destroy from another thread, woken by its time-out, and on a
// listening descriptor past FD_SETSIZE.
#include "ipc/LocalSocketServer.h"

#include <sys/resource.h>
#include <sys/select.h>

#include <future>
#include <stdexcept>
#include <thread>

#include "tests/ipc/IpcTestSupport.h"

namespace {

using ipctest::IpcTest;
using ipctest::PathExists;

// The message Accept threw, or "" when it returned a connection.
std::string AcceptError(LocalSocketServer& server) {
  try {
    server.Accept();
    return "";
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

// Connects to `name` and checks that `server` hands out a working connection.
void ExpectServes(LocalSocketServer& server, const std::string& name) {
  LocalSocket client;
  ASSERT_TRUE(client.Connect(name.c_str()));
  LocalSocket peer = server.Accept();
  EXPECT_TRUE(ipctest::RoundTrip(client, peer, "ping"));
}

class LocalSocketServerTest : public IpcTest {};

TEST_F(LocalSocketServerTest, CreateReplacesAStaleSocketFile) {
  std::string name = Name();
  ipctest::BindStale(name);
  ASSERT_TRUE(PathExists("/tmp/" + name));
  LocalSocketServer server;
  ASSERT_TRUE(server.Create(name.c_str()));
  ExpectServes(server, name);
}

TEST_F(LocalSocketServerTest, FailedCreateLeavesNothingAndAcceptThrowsAtOnce) {
  LocalSocketServer server;
  EXPECT_EQ(AcceptError(server), "socket closed");  // never created

  std::string missingDir = Name();
  EXPECT_FALSE(server.Create((missingDir + "/socket").c_str()));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(AcceptError(server), "socket closed");

  std::string name = Name();
  ASSERT_TRUE(server.Create(name.c_str()));
  server.Destroy();
  server.Destroy();  // harmless twice
  EXPECT_EQ(AcceptError(server), "socket closed");
}

TEST_F(LocalSocketServerTest, FileModeFollowsAllUsersAndTheUmaskIsKept) {
  struct Case {
    mode_t mask;
    LocalSocketServer::EFlags flags;
    mode_t mode;
  } cases[] = {
      {022, LocalSocketServer::AllUsers, 0777},
      {077, LocalSocketServer::AllUsers, 0777},
      {022, LocalSocketServer::EFlags(), 0755},
      {077, LocalSocketServer::EFlags(), 0700},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::oct << "mask " << c.mask << " flags " << c.flags);
    ipctest::ScopedUmask mask(c.mask);
    std::string name = Name();
    LocalSocketServer server;
    ASSERT_TRUE(server.Create(name.c_str(), c.flags));
    EXPECT_EQ(ipctest::PathMode("/tmp/" + name), c.mode);
    EXPECT_EQ(ipctest::ScopedUmask::Current(), c.mask);
  }
}

// Create again and move assignment both destroy the server's own socket first:
// its descriptor is closed and its file removed.
TEST_F(LocalSocketServerTest, CreateAgainAndMovesReplaceTheOldSocket) {
  std::string first = Name(), second = Name(), other = Name();
  LocalSocketServer source;
  ASSERT_TRUE(source.Create(first.c_str()));
  ASSERT_TRUE(source.Create(second.c_str()));
  EXPECT_FALSE(PathExists("/tmp/" + first));
  EXPECT_EQ(NewDescriptors().size(), 1u);

  LocalSocketServer moved(std::move(source));
  EXPECT_EQ(AcceptError(source), "socket closed");
  source.Destroy();  // the moved-from server owns no file
  EXPECT_TRUE(PathExists("/tmp/" + second));
  LocalSocketServer target;
  ASSERT_TRUE(target.Create(other.c_str()));
  target = std::move(moved);
  EXPECT_FALSE(PathExists("/tmp/" + other));
  EXPECT_EQ(NewDescriptors().size(), 1u);
  ExpectServes(target, second);
}

TEST_F(LocalSocketServerTest, AcceptWaitsAcrossWakeUpsAndEndsOnDestroyFromAnotherThread) {
  LocalSocketServer server;
  std::string name = Name();
  ASSERT_TRUE(server.Create(name.c_str()));
  std::thread client([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // past one wake-up
    LocalSocket socket;
    EXPECT_TRUE(socket.Connect(name.c_str()));
    EXPECT_EQ(socket.Write("late", 4), 4u);
  });
  LocalSocket peer = server.Accept();
  client.join();
  char buffer[4] = {};
  EXPECT_EQ(peer.Read(buffer, 4), 4u);
  EXPECT_EQ(std::string(buffer, 4), "late");

  std::promise<std::string> result;
  std::future<std::string> error = result.get_future();
  std::thread acceptor([&] { result.set_value(AcceptError(server)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let it wait
  server.Destroy();
  bool ended = error.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
  if (!ended) acceptor.detach();  // the assertion below reports the hang
  ASSERT_TRUE(ended);
  acceptor.join();
  EXPECT_EQ(error.get(), "socket closed");
}

TEST_F(LocalSocketServerTest, AcceptWorksOnAListeningDescriptorPastFdSetsize) {
  // Occupy every descriptor below FD_SETSIZE + 10 so that the server's socket
  // gets a number that an fd_set cannot hold.
  rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlim_t wanted = FD_SETSIZE + 64;
  if (saved.rlim_max < wanted) GTEST_SKIP() << "descriptor limit below " << wanted;
  rlimit raised = saved;
  raised.rlim_cur = std::max<rlim_t>(saved.rlim_cur, wanted);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  std::vector<int> fillers;
  int next = dup(0);
  for (; next != -1 && next < FD_SETSIZE + 10; next = dup(0)) fillers.push_back(next);
  if (next != -1) close(next);  // now the lowest free number

  LocalSocketServer server;
  std::string name = Name();
  bool created = server.Create(name.c_str());
  std::vector<int> fds = NewDescriptors();
  int listening = fds.empty() ? -1 : *std::max_element(fds.begin(), fds.end());
  for (int fd : fillers) close(fd);
  ASSERT_TRUE(created);
  EXPECT_GE(listening, FD_SETSIZE);

  ExpectServes(server, name);
  std::string error;
  std::thread acceptor([&] { error = AcceptError(server); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  server.Destroy();
  acceptor.join();
  EXPECT_EQ(error, "socket closed");
  setrlimit(RLIMIT_NOFILE, &saved);
}

}  // namespace
