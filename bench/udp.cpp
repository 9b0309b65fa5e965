#include "bench/udp.h"

#include <arpa/inet.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace nimbus::bench {
namespace {

using std::chrono::nanoseconds;

sockaddr_in local(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

nanoseconds duration_of(const timespec& time) {
  return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

}  // namespace

void check(bool done, const char* what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

nanoseconds wall_clock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return duration_of(now);
}

UniqueFd udp_socket() {
  UniqueFd result(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
  check(static_cast<bool>(result), "socket");
  return result;
}

UniqueFd stamped_udp_socket() {
  UniqueFd result = udp_socket();
  const int on = 1;
  check(setsockopt(result.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on)) == 0,
        "SO_TIMESTAMPNS");
  const sockaddr_in any_port = local(0);
  check(bind(result.get(), reinterpret_cast<const sockaddr*>(&any_port), sizeof(any_port)) == 0,
        "bind");
  return result;
}

std::uint16_t port_of(const UniqueFd& socket) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  check(getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) == 0,
        "getsockname");
  return ntohs(address.sin_port);
}

void send(const UniqueFd& socket, std::span<const std::uint8_t> bytes, std::uint16_t port) {
  const sockaddr_in to = local(port);
  check(sendto(socket.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof(to)) == static_cast<ssize_t>(bytes.size()),
        "sendto");
}

nanoseconds arrival_of(msghdr& message) {
  for (auto* item = CMSG_FIRSTHDR(&message); item != nullptr; item = CMSG_NXTHDR(&message, item)) {
    if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_TIMESTAMPNS) continue;
    timespec time{};
    std::memcpy(&time, CMSG_DATA(item), sizeof(time));
    return duration_of(time);
  }
  throw std::runtime_error("a datagram without a time stamp");
}

}  // namespace nimbus::bench
