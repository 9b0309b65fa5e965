#include "net/send_sockets.h"

#include <linux/filter.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

namespace nimbus {
namespace {

// For each viewer five datagrams of the largest size, or some 180 of 1,400 bytes, with the kernel's
// own bookkeeping: a picture that comes at once fits, and seconds of it do not. The kernel doubles
// the number, and grants this much to everybody.
constexpr int kSendBufferBytes = 212'992;

/// A program of one instruction (classic BPF), which says the same about every datagram.
bool attach(int socket, int option, std::uint32_t verdict) noexcept {
  sock_filter instruction{.code = BPF_RET | BPF_K, .jt = 0, .jf = 0, .k = verdict};
  const sock_fprog program{.len = 1, .filter = &instruction};
  return setsockopt(socket, SOL_SOCKET, option, &program, sizeof(program)) == 0;
}

/// Lets other sockets of this process share the port of this one, which has it or is to get it.
bool share_port(int socket) noexcept {
  const int on = 1;
  return setsockopt(socket, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on)) == 0;
}

bool take_port(int socket, std::uint16_t port) noexcept {
  const sockaddr_in address = socket_address({INADDR_ANY, port});
  return bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

int open_send_socket() noexcept {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  set_buffer(fd, {SO_SNDBUFFORCE, SO_SNDBUF}, kSendBufferBytes);
  // Datagrams to a broadcast address go to every socket on their port: here they are dropped.
  attach(fd, SO_ATTACH_FILTER, 0);
  return fd;
}

/// The first one takes the port without sharing it, so that nobody has it but who joins now.
bool take_together(std::span<int> sockets, std::uint16_t port) noexcept {
  return take_port(sockets.front(), port) && share_port(sockets.front()) &&
         std::all_of(sockets.begin() + 1, sockets.end(),
                     [port](int fd) { return share_port(fd) && take_port(fd, port); }) &&
         attach(sockets.front(), SO_ATTACH_REUSEPORT_CBPF,
                static_cast<std::uint32_t>(sockets.size()));
}

}  // namespace

bool open_send_sockets(std::span<int> sockets, std::uint16_t port) noexcept {
  std::generate(sockets.begin(), sockets.end(), open_send_socket);
  if (take_together(sockets, port)) return true;
  std::for_each(sockets.begin(), sockets.end(), close);
  return false;
}

std::ptrdiff_t send_through(int socket, std::span<const iovec> parts,
                            Endpoint destination) noexcept {
  sockaddr_in address = socket_address(destination);
  msghdr message{};
  message.msg_name = &address;
  message.msg_namelen = sizeof(address);
  message.msg_iov = const_cast<iovec*>(parts.data());  // sendmsg(2) does not write through it
  message.msg_iovlen = parts.size();
  return sendmsg(socket, &message, MSG_DONTWAIT);
}

}  // namespace nimbus
