// LocalSocket against the fixed service socket /tmp/zebtrksvc, which the
// plug-in reaches by the name "zebtrksvc". Runs alone (SERVICE); the listener
// here is a plain POSIX socket, so the path rule is checked independently of
// LocalSocketServer.
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "ipc/LocalSocket.h"
#include "tests/ipc/IpcTestSupport.h"

namespace {

class ServiceSocketTest : public ipctest::IpcTest {};

TEST_F(ServiceSocketTest, ConnectReachesTmpZebtrksvc) {
  if (ipctest::PathExists("/tmp/zebtrksvc")) GTEST_SKIP() << "a service socket exists";
  LocalSocket client;
  EXPECT_FALSE(client.Connect("zebtrksvc"));  // no service yet: holds nothing
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(NewDescriptors().empty());

  int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_NE(listener, -1);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/tmp/zebtrksvc");
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  EXPECT_TRUE(client.Connect("zebtrksvc"));
  int peer = accept(listener, nullptr, nullptr);
  ASSERT_NE(peer, -1);
  EXPECT_EQ(client.Write("\x81\xa3ord\x00", 6), 6u);
  char buffer[6] = {};
  EXPECT_EQ(recv(peer, buffer, sizeof(buffer), MSG_WAITALL), 6);
  EXPECT_EQ(std::string(buffer, 6), std::string("\x81\xa3ord\x00", 6));
  client.Disconnect();
  close(peer);
  close(listener);
  unlink("/tmp/zebtrksvc");
}

}  // namespace
