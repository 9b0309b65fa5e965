#include "bench/traffic.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>

#include "base/wire.h"
#include "net/viewers.h"

namespace nimbus::bench {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kNumberSize = 4;

// Everything that one measurement sends to a viewer waits in its socket. The relays ask for as
// much.
constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;
constexpr std::size_t kBatch = 64;

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

}  // namespace

Bridge::Bridge(std::size_t size) : socket_(udp_socket()), datagram_(size) {}

void Bridge::send(std::uint16_t port) {
  store_le(datagram_, 0, number_++);
  bench::send(socket_, datagram_, port);
}

Viewer::Viewer() : socket_(stamped_udp_socket()), port_(port_of(socket_)) {
  enlarge_receive_buffer(socket_);
}

void Viewer::register_with_service() {
  // Payload byte 0: the type, 0; byte 1: the mode, 0 for a full viewer.
  std::array<std::uint8_t, kFrameHeaderSize + 2> frame{kFrameMagic};
  bench::send(socket_, frame, kViewerPort);
}

void Viewer::expect(const Bridge& bridge) {
  frame_size_ = kFrameHeaderSize + bridge.datagram_size();
  first_number_ = bridge.next_number();
  arrivals_.clear();
}

void Viewer::drain() {
  struct Slot {
    std::array<std::uint8_t, kFrameHeaderSize + kNumberSize> head;
    alignas(cmsghdr) StampSpace control;
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
      if (head[kFrameKindOffset] != static_cast<std::uint8_t>(FrameKind::video)) continue;
      const auto number = load_le<std::uint32_t>(head, kFrameHeaderSize);
      if (number < first_number_) continue;
      if (head[0] != kFrameMagic || messages[i].msg_len != frame_size_ ||
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
