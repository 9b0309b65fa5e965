#include "bench/traffic.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "base/wire.h"
#include "net/viewers.h"

namespace nimbus::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr std::size_t kHeaderSize = 12;
constexpr std::size_t kNumberSize = 4;
constexpr std::uint8_t kMagic = 0x42;

// Everything that one measurement sends to a viewer waits in its socket. The relays ask for as
// much.
constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;
constexpr std::size_t kBatch = 64;

void check(bool done, const char* what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

UniqueFd udp_socket() {
  UniqueFd result(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
  check(static_cast<bool>(result), "socket");
  return result;
}

sockaddr_in local(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void send(const UniqueFd& socket, std::span<const std::uint8_t> bytes, std::uint16_t port) {
  const sockaddr_in to = local(port);
  check(sendto(socket.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof(to)) == static_cast<ssize_t>(bytes.size()),
        "sendto");
}

nanoseconds duration_of(const timespec& time) {
  return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

void enlarge_receive_buffer(const UniqueFd& socket) {
  int size = kReceiveBufferBytes;
  if (setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) == 0) return;
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  socklen_t length = sizeof(size);
  getsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &size, &length);
  // The kernel doubles what it grants.
  if (size < 2 * kReceiveBufferBytes) {
    throw std::runtime_error("the receive buffers are too small; run as root, or set " +
                             ("net.core.rmem_max=" + std::to_string(kReceiveBufferBytes)));
  }
}

/// The kernel's stamp on a received datagram.
nanoseconds arrival_of(msghdr& message) {
  for (auto* item = CMSG_FIRSTHDR(&message); item != nullptr; item = CMSG_NXTHDR(&message, item)) {
    if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_TIMESTAMPNS) continue;
    timespec time{};
    std::memcpy(&time, CMSG_DATA(item), sizeof(time));
    return duration_of(time);
  }
  throw std::runtime_error("a datagram without a time stamp");
}

}  // namespace

nanoseconds wall_clock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return duration_of(now);
}

Bridge::Bridge(std::size_t size) : socket_(udp_socket()), datagram_(size) {}

void Bridge::send(std::uint16_t port) {
  store_le(datagram_, 0, number_++);
  bench::send(socket_, datagram_, port);
}

Viewer::Viewer() : socket_(udp_socket()) {
  enlarge_receive_buffer(socket_);
  const int on = 1;
  check(setsockopt(socket_.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on)) == 0,
        "SO_TIMESTAMPNS");
  sockaddr_in address = local(0);
  socklen_t length = sizeof(address);
  check(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), length) == 0, "bind");
  check(getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &length) == 0,
        "getsockname");
  port_ = ntohs(address.sin_port);
}

void Viewer::register_with_service() {
  // Payload byte 0: the type, 0; byte 1: the mode, 0 for a full viewer.
  std::array<std::uint8_t, kHeaderSize + 2> frame{kMagic};
  bench::send(socket_, frame, kViewerPort);
}

void Viewer::expect(const Bridge& bridge) {
  frame_size_ = kHeaderSize + bridge.datagram_size();
  first_number_ = bridge.next_number();
  arrivals_.clear();
}

void Viewer::drain() {
  struct Slot {
    std::array<std::uint8_t, kHeaderSize + kNumberSize> head;
    alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(timespec))> control;
    iovec part;
  };
  std::array<Slot, kBatch> slots{};
  std::array<mmsghdr, kBatch> messages{};
  for (std::size_t i = 0; i < kBatch; ++i) {
    slots[i].part = {slots[i].head.data(), slots[i].head.size()};
    messages[i].msg_hdr.msg_iov = &slots[i].part;
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  for (;;) {
    for (std::size_t i = 0; i < kBatch; ++i) {
      messages[i].msg_hdr.msg_control = slots[i].control.data();
      messages[i].msg_hdr.msg_controllen = slots[i].control.size();
    }
    // With MSG_TRUNC the lengths are those on the wire, while only the heads are copied.
    const int count =
        recvmmsg(socket_.get(), messages.data(), kBatch, MSG_DONTWAIT | MSG_TRUNC, nullptr);
    if (count <= 0) return;
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
      const auto& head = slots[i].head;
      if (head[1] != static_cast<std::uint8_t>(FrameKind::video)) continue;
      const auto number = load_le<std::uint32_t>(head, kHeaderSize);
      if (number < first_number_) continue;
      if (head[0] != kMagic || messages[i].msg_len != frame_size_ ||
          number - first_number_ != arrivals_.size()) {
        throw std::runtime_error("a frame is missing or wrong after " +
                                 std::to_string(arrivals_.size()) + " good ones");
      }
      arrivals_.push_back(arrival_of(messages[i].msg_hdr));
    }
  }
}

bool frames_come(std::vector<Viewer>& viewers, std::size_t count, milliseconds limit) {
  // No relay is done before its pauses have passed, and nobody else needs to run until then.
  const milliseconds pauses{count * viewers.size()};
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::this_thread::sleep_for(pauses);
  for (;;) {
    for (auto& viewer : viewers) viewer.drain();
    if (std::all_of(viewers.begin(), viewers.end(),
                    [count](const Viewer& v) { return v.arrivals().size() >= count; })) {
      return true;
    }
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(milliseconds(1));
  }
}

}  // namespace nimbus::bench
