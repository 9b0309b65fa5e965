#include "net/udp_link.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdlib>

#include "base/clock.h"
#include "base/log.h"
#include "base/thread.h"

namespace nimbus {
namespace {

// A burst of 64 datagrams of the largest size, with the kernel's own bookkeeping for each, must
// wait in the socket while ten viewers are served. The kernel doubles the number.
constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;

// Exit status when a socket fails while the service runs: its supervisor starts it again.
constexpr int kExitSocketFailed = 3;

sockaddr_in socket_address(Endpoint endpoint) noexcept {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(endpoint.port);
  address.sin_addr.s_addr = endpoint.address;
  return address;
}

void enlarge_receive_buffer(int socket) noexcept {
  // The forced option passes the system's limit but wants CAP_NET_ADMIN; the plain one is cut to
  // the limit, and then so is the burst that can be held.
  const int size = kReceiveBufferBytes;
  if (setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0) {
    setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  }
}

}  // namespace

AddressText address_text(in_addr_t address) noexcept {
  AddressText text{};
  inet_ntop(AF_INET, &address, text.data(), text.size());
  return text;
}

int UdpLink::open(std::uint16_t port) noexcept {
  // Close-on-exec: a command that outlives the service must not hold the port of its successor.
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  enlarge_receive_buffer(socket_);
  const sockaddr_in address = socket_address({INADDR_ANY, port});
  if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return -1;
  start_thread(run, this);
  return 0;
}

std::ptrdiff_t UdpLink::send_to(std::span<const iovec> parts, Endpoint destination) const noexcept {
  sockaddr_in address = socket_address(destination);
  msghdr message{};
  message.msg_name = &address;
  message.msg_namelen = sizeof(address);
  message.msg_iov = const_cast<iovec*>(parts.data());  // sendmsg(2) does not write through it
  message.msg_iovlen = parts.size();
  return sendmsg(socket_, &message, 0);
}

std::ptrdiff_t UdpLink::send_to_peer(std::span<const std::uint8_t> bytes) const noexcept {
  const std::uint16_t port = peer_port_.load_acquire();
  if (port == 0) return -1;
  const sockaddr_in address = socket_address({peer_address_, port});
  return sendto(socket_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                sizeof(address));
}

void UdpLink::notice_silence() noexcept {
  if (last_packet_ms_ == 0) return;
  if (age_ms(last_packet_ms_) <= kLinkTimeoutMs) return;
  if (const auto lost = on_lost.load_acquire()) lost();
  // Last, so that the receive thread cannot report "found" while "lost" is still running.
  last_packet_ms_.store_release(0);
}

// cppcheck-suppress missingReturn ; the loop has no end
void* UdpLink::run(void* link) noexcept { static_cast<UdpLink*>(link)->receive_loop(); }

void UdpLink::receive_loop() noexcept {
  for (;;) {
    sockaddr_in from{};
    socklen_t from_length = sizeof(from);
    const auto length = recvfrom(socket_, buffer_.data(), buffer_.size(), 0,
                                 reinterpret_cast<sockaddr*>(&from), &from_length);
    if (length < 1) {  // an empty datagram counts as a failure, on purpose
      log_text("UDP read failed\n");
      std::exit(kExitSocketFailed);
    }
    handle({{buffer_.data(), static_cast<std::size_t>(length)},
            {from.sin_addr.s_addr, ntohs(from.sin_port)}});
  }
}

void UdpLink::handle(const Datagram& datagram) noexcept {
  peer_address_ = datagram.sender.address;
  peer_port_.store_release(datagram.sender.port);
  const std::uint32_t last = last_packet_ms_.load_acquire();
  // A loss that is reported at this very moment must be followed by "found": a stamp stored over it
  // would leave a live link that everybody takes for lost.
  if (last == 0 || !last_packet_ms_.replace(last, now_ms())) {
    if (const auto found = on_found.load_acquire()) found();
    last_packet_ms_.store_release(now_ms());
  }
  if (const auto packet = on_packet.load_acquire()) packet(datagram);
}

}  // namespace nimbus
