#include "tools/web/tcp.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace nimbus::web {
namespace {

void set(int fd, int level, int name, int value) {
  setsockopt(fd, level, name, &value, sizeof(value));
}

}  // namespace

std::uint64_t tcp_progress(int fd) {
  tcp_info info{};
  socklen_t size = sizeof(info);
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return 0;
  return info.tcpi_bytes_acked;
}

void tune_tcp(int fd) {
  constexpr int kUnsent = 64 * 1024;  // what is older than that shall wait where it can be dropped
  constexpr int kUserTimeout = 10'000;  // ms without an answer
  set(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  set(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, kUnsent);
  set(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, kUserTimeout);
  set(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  set(fd, IPPROTO_TCP, TCP_KEEPIDLE, 10);
  set(fd, IPPROTO_TCP, TCP_KEEPINTVL, 5);
  set(fd, IPPROTO_TCP, TCP_KEEPCNT, 2);
}

}  // namespace nimbus::web
