#include "net/udp_link.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include <cstdlib>
#include <cstring>

#include "base/clock.h"
#include "base/log.h"
#include "base/thread.h"

namespace nimbus {
namespace {

// Exit status when a socket fails while the service runs: its supervisor starts it again.
constexpr int kExitSocketFailed = 3;

// When the console last said that datagrams were dropped, in seconds of the monotonic clock. 0:
// never.
Shared<std::uint32_t> drops_told_s;

/// The kernel's stamp on a received datagram, if it has one.
std::optional<std::int64_t> stamp_of(msghdr& message) noexcept {
  const cmsghdr* const item = CMSG_FIRSTHDR(&message);
  if (item == nullptr || item->cmsg_type != SCM_TIMESTAMPNS) return {};
  timespec stamp{};
  std::memcpy(&stamp, CMSG_DATA(item), sizeof(stamp));
  return nanoseconds_of(stamp);
}

}  // namespace

sockaddr_in socket_address(Endpoint endpoint) noexcept {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(endpoint.port);
  address.sin_addr.s_addr = endpoint.address;
  return address;
}

void set_buffer(int socket, BufferOptions options, int bytes) noexcept {
  if (setsockopt(socket, SOL_SOCKET, options.forced, &bytes, sizeof(bytes)) != 0) {
    setsockopt(socket, SOL_SOCKET, options.plain, &bytes, sizeof(bytes));
  }
}

AddressText address_text(in_addr_t address) noexcept {
  AddressText text{};
  inet_ntop(AF_INET, &address, text.data(), text.size());
  return text;
}

int UdpLink::open(const LinkPort& port) noexcept {
  // Close-on-exec: a command that outlives the service must not hold the port of its successor.
  socket_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  set_buffer(socket_, {SO_RCVBUFFORCE, SO_RCVBUF}, port.queue_bytes);
  const int on = 1;
  const int off = 0;
  setsockopt(socket_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on));
  if (port.joins) setsockopt(socket_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));
  const sockaddr_in address = socket_address({INADDR_ANY, port.number});
  if (bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return -1;
  // Nobody joins who comes later: what arrives is for this socket.
  setsockopt(socket_, SOL_SOCKET, SO_REUSEPORT, &off, sizeof(off));
  return 0;
}

void UdpLink::start(const LinkCallbacks& callbacks) noexcept {
  callbacks_ = callbacks;
  start_thread(run, this);
}

std::ptrdiff_t UdpLink::send_to_peer(std::span<const std::uint8_t> bytes) const noexcept {
  const std::uint16_t port = peer_port_.load_acquire();
  if (port == 0) return -1;
  const sockaddr_in address = socket_address({peer_address_, port});
  return sendto(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT,
                reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

void UdpLink::notice_silence() noexcept {
  if (last_packet_ms_ == 0) return;
  if (age_ms(last_packet_ms_) <= kLinkTimeoutMs) return;
  if (callbacks_.lost != nullptr) callbacks_.lost();
  // Last, so that the receive thread cannot report "found" while "lost" is still running.
  last_packet_ms_.store_release(0);
}

// cppcheck-suppress missingReturn ; the loop has no end
void* UdpLink::run(void* link) noexcept { static_cast<UdpLink*>(link)->receive_loop(); }

void UdpLink::receive_loop() noexcept {
  for (;;) {
    const Receipt receipt = receive();
    if (receipt.length < 1) {  // an empty datagram counts as a failure, on purpose
      log_text("UDP read failed\n");
      std::exit(kExitSocketFailed);
    }
    note(receipt.sender);
    if (is_too_old(receipt)) {
      count_dropped();
    } else if (callbacks_.packet != nullptr) {
      const auto length = static_cast<std::size_t>(receipt.length);
      callbacks_.packet({{buffer_.data(), length}, receipt.sender});
    }
  }
}

UdpLink::Receipt UdpLink::receive() noexcept {
  sockaddr_in from{};
  iovec bytes{buffer_.data(), buffer_.size()};
  alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(timespec))> extras;
  msghdr message{};
  message.msg_name = &from;
  message.msg_namelen = sizeof(from);
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = extras.data();
  message.msg_controllen = extras.size();
  const std::ptrdiff_t length = recvmsg(socket_, &message, 0);
  if (length < 1) return {length, {}, {}};
  return {length, {from.sin_addr.s_addr, ntohs(from.sin_port)}, stamp_of(message)};
}

void UdpLink::note(Endpoint sender) noexcept {
  peer_address_ = sender.address;
  peer_port_.store_release(sender.port);
  const std::uint32_t last = last_packet_ms_.load_acquire();
  // A loss that is reported at this very moment must be followed by "found": a stamp stored over it
  // would leave a live link that everybody takes for lost.
  if (last != 0 && last_packet_ms_.replace(last, now_ms())) return;
  if (callbacks_.found != nullptr) callbacks_.found();
  last_packet_ms_.store_release(now_ms());
}

bool UdpLink::is_too_old(const Receipt& receipt) noexcept {
  if (!receipt.stamp) return false;
  return std::chrono::nanoseconds(queue_age_.waited(*receipt.stamp, read_clocks())) >
         kQueuePatience;
}

void UdpLink::count_dropped() noexcept {
  ++dropped_;
  const std::uint32_t told = drops_told_s;  // before the clock: another link may set it meanwhile
  const auto now = static_cast<std::uint32_t>(read_clocks().monotonic / kNsPerSecond);
  // In whole seconds, more than so many: two of them may be no further apart than a moment.
  if (told != 0 && now - told <= kDropReportPeriod.count()) return;
  if (!drops_told_s.replace(told, now)) return;
  sockaddr_in own{};
  socklen_t size = sizeof(own);
  getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size);
  log_text("Too much on port %d: %u datagrams waited for more than %d s and were dropped\n",
           ntohs(own.sin_port), dropped_, static_cast<int>(kQueuePatience.count()));
}

}  // namespace nimbus
