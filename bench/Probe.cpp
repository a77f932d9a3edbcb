// zebtrk_bench_probe: exit status 0 when a service accepts connections on
// /tmp/zebtrksvc, 1 when none does. bench/run uses it to refuse to start next
// to a live service and to wait for its own simulator; /proc/net/unix cannot
// tell, since it also lists sockets of other mount namespaces' /tmp.
#include "ipc/LocalSocket.h"

int main() {
  LocalSocket socket;
  return socket.Connect("zebtrksvc") ? 0 : 1;
}
