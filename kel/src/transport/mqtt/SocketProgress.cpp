#include "transport/mqtt/SocketProgress.h"

#include <linux/sockios.h>
#include <linux/tcp.h>  // not <netinet/tcp.h>: its tcp_info ends too early
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace kel::mqtt {

SocketProgress socketProgress(int socket) {
  SocketProgress progress;
  tcp_info info = {};
  socklen_t size = sizeof info;
  if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0) {
    progress.acknowledged = info.tcpi_bytes_acked;  // a kernel that does not count leaves it 0
  }
  int waiting = 0;
  if (::ioctl(socket, SIOCOUTQ, &waiting) == 0) {
    progress.waiting = waiting;
  }
  return progress;
}

}  // namespace kel::mqtt
