#include "net/viewers.h"

#include <arpa/inet.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "base/clock.h"
#include "base/log.h"
#include "base/wire.h"
#include "display/command_handover.h"
#include "display/region.h"
#include "net/send_sockets.h"
#include "net/turn.h"

namespace nimbus {
namespace {

// The longest of what viewers say, but for texts.
constexpr std::size_t kLongestFixedPayload = SpeedMessage::kSize;
constexpr std::size_t kHeadSize = kFrameHeaderSize + kLongestFixedPayload;

// --- Policy ------------------------------------------------------------------------------------
// The pause after every send keeps the fan-out from overrunning a viewer's Wi-Fi.
constexpr useconds_t kPauseAfterSendUs = 1000;
// Commands and speeds of ten viewers for seconds.
constexpr int kQueueBytes = 1024 * 1024;

UdpLink viewer_link;
std::array<int, kMaxViewers> send_sockets;  // by slot
Turn turn;
std::array<ViewerClient, kMaxViewers> viewers;
Shared<std::uint32_t> frame_counter;
DisplayRegion* display = nullptr;
ViewerSpeedHandler speed_handler = nullptr;

// --- The table ---------------------------------------------------------------------------------

bool holds(const ViewerClient& slot, Endpoint viewer) {
  const Endpoint held = slot.viewer();
  return held.port != 0 && held.address == viewer.address && held.port == viewer.port;
}

bool is_free(const ViewerClient& slot) { return slot.address.load_acquire() == 0; }

// --- From viewers ------------------------------------------------------------------------------

void handle_register(Endpoint viewer, bool data_only) {
  if (register_viewer(viewer, data_only) == 0) return;
  log_text("New client connected from %s:%d %s\n", address_text(viewer.address).data(), viewer.port,
           data_only ? "(only data)" : " ");
}

void handle_leave(Endpoint viewer) {
  auto* const slot = std::find_if(viewers.begin(), viewers.end(),
                                  [viewer](const auto& entry) { return holds(entry, viewer); });
  if (slot == viewers.end() || !slot->release(slot->tenancy)) return;
  log_text("Client %s:%d removed\n", address_text(viewer.address).data(), viewer.port);
}

/// The service's own frames, looped back to it.
bool is_own_frame(Endpoint sender) {
  return sender.address == htonl(INADDR_LOOPBACK) && sender.port == kViewerPort;
}

// --- Outbound ----------------------------------------------------------------------------------

/// Each slot sends through a socket of its own, or, where the system cannot share a port among
/// sockets, through the one that receives.
bool open_sockets() {
  const bool shared = open_send_sockets(send_sockets, kViewerPort);
  const LinkPort port{.number = kViewerPort, .queue_bytes = kQueueBytes, .joins = shared};
  if (viewer_link.open(port) == -1) return false;
  if (!shared) send_sockets.fill(viewer_link.socket());
  return true;
}

std::array<std::uint8_t, kFrameHeaderSize> frame_header(FrameKind kind, std::uint32_t number) {
  std::array<std::uint8_t, kFrameHeaderSize> header{};
  header[0] = kFrameMagic;
  header[kFrameKindOffset] = static_cast<std::uint8_t>(kind);
  store_le(header, kFrameNumberOffset, number);
  return header;
}

bool has_viewers() {
  return std::any_of(viewers.begin(), viewers.end(),
                     [](const ViewerClient& slot) { return slot.tenancy != 0; });
}

/// The frame goes to every slot in turn. What a slot's socket does not take is lost for its viewer
/// alone, and the pause follows all the same.
void send_to_viewers(std::span<const std::uint8_t> payload, FrameKind kind) {
  const Turn::Ticket ticket = turn.take(kind == FrameKind::video ? Rank::next : Rank::in_line);
  // Header and payload are gathered by the kernel: no frame buffer that two threads could share.
  auto header = frame_header(kind, frame_counter);
  const std::size_t length = static_cast<std::uint16_t>(kFrameHeaderSize + payload.size());
  const std::size_t header_length = std::min(length, kFrameHeaderSize);
  const std::array<iovec, 2> parts{{
      {header.data(), header_length},
      {const_cast<std::uint8_t*>(payload.data()), length - header_length},
  }};
  for (std::size_t i = 0; i < kMaxViewers; ++i) {
    const Endpoint viewer = viewers[i].viewer();
    if (viewer.port == 0) continue;
    send_through(send_sockets[i], parts, viewer);
    usleep(kPauseAfterSendUs);
  }
  // Before the turn goes on: whoever has it next goes on at once, and takes the next number.
  frame_counter = frame_counter + 1;
  turn.give_back(ticket);
}

}  // namespace

Endpoint ViewerClient::viewer() const noexcept {
  const std::uint32_t seen = tenancy.load_acquire();
  const in_addr_t host = address.load_acquire();
  // The tenancy still stands after the address was read.
  if (seen == 0 || host == 0 || tenancy != seen) return {};
  return {host, static_cast<std::uint16_t>(seen)};
}

void ViewerClient::fill(Endpoint newcomer) noexcept {
  static std::uint16_t count = 0;
  address.store_release(newcomer.address);
  count = static_cast<std::uint16_t>(count + 1);  // it wraps
  tenancy.store_release(std::uint32_t{count} << 16 | newcomer.port);
}

bool ViewerClient::release(std::uint32_t ended) noexcept {
  if (ended == 0 || !tenancy.replace(ended, 0)) return false;
  last_seen_ms = 0;
  data_only = 0;
  address.store_release(0);
  return true;
}

int open_viewers_link(ViewerSpeedHandler on_speed) {
  display = display_region();
  speed_handler = on_speed;
  frame_counter = 0;
  log_text("Init network... ");
  const bool open = open_sockets();
  log_text(open ? "done\n" : "fail\n");
  if (!open) return -1;
  viewer_link.start({.packet = handle_viewer_datagram});
  return 0;
}

void handle_viewer_datagram(const Datagram& datagram) noexcept {
  // Fields behind the end of a short datagram read as zero: a lone magic byte is a registration.
  std::array<std::uint8_t, kHeadSize> head{};
  std::copy_n(datagram.bytes.begin(), std::min(datagram.bytes.size(), head.size()), head.begin());
  if (head[0] != kFrameMagic || is_own_frame(datagram.sender)) return;
  const ByteView payload(std::span<const std::uint8_t>(head).subspan(kFrameHeaderSize));
  switch (static_cast<FromViewer>(head[kFrameHeaderSize])) {
    case FromViewer::register_viewer:
      handle_register(datagram.sender,
                      payload[RegisterMessage::mode] == RegisterMessage::kDataOnly);
      break;
    case FromViewer::leave:
      handle_leave(datagram.sender);
      break;
    case FromViewer::speed:
      if (speed_handler != nullptr) {
        using Speed = SpeedMessage;
        speed_handler(payload[Speed::mode], payload[Speed::pan], payload[Speed::tilt],
                      payload[Speed::roll]);
      }
      break;
    case FromViewer::command: {
      const auto text = datagram.bytes.subspan(kFrameHeaderSize);
      command_handover.post(display->command_mailbox,
                            {reinterpret_cast<const char*>(text.data()), text.size()});
      break;
    }
  }
}

void broadcast(std::span<const std::uint8_t> payload, FrameKind kind) noexcept {
  if (has_viewers()) {
    send_to_viewers(payload, kind);
  } else {
    // With nobody to send to, not even another broadcast is waited for: this one is only counted.
    frame_counter = frame_counter + 1;
  }
}

void broadcast_text(std::string_view text) noexcept {
  broadcast({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, FrameKind::data);
}

void send_status(ToViewer type, const std::array<std::uint8_t, 6>& values) noexcept {
  std::array<std::uint8_t, kShortMessageSize> payload{type_of(type)};
  std::copy(values.begin(), values.end(), payload.begin() + 1);
  broadcast(payload, FrameKind::data);
}

void send_triple(ToViewer type, const std::array<std::int16_t, 3>& values) noexcept {
  std::array<std::uint8_t, kShortMessageSize> payload{type_of(type)};
  for (std::size_t i = 0; i < values.size(); ++i) store_le(payload, 1 + 2 * i, values[i]);
  broadcast(payload, FrameKind::data);
}

int register_viewer(Endpoint viewer, bool data_only) noexcept {
  // Who has no port (RFC 768) or no address yet cannot be sent to.
  if (viewer.port == 0 || viewer.address == INADDR_ANY) return 0;
  const auto set = [&](ViewerClient& slot) {
    slot.data_only = data_only ? 1 : 0;
    slot.last_seen_ms.store_release(now_ms());
  };
  for (auto& slot : viewers) {
    if (!holds(slot, viewer)) continue;
    set(slot);
    return 0;
  }
  auto* const slot = std::find_if(viewers.begin(), viewers.end(), is_free);
  if (slot == viewers.end()) return 0;
  set(*slot);
  slot->fill(viewer);
  return 1;
}

void check_viewer_timeouts() noexcept {
  std::uint8_t count = 0;
  for (auto& slot : viewers) {
    if (is_free(slot)) continue;
    const std::uint32_t tenancy = slot.tenancy.load_acquire();
    const Endpoint viewer = slot.viewer();
    // Port 0: the receive thread is filling the slot at this moment.
    if (viewer.port != 0 && age_ms(slot.last_seen_ms) > kViewerTimeoutMs) {
      if (slot.release(tenancy)) {
        log_text("Client %s:%d lost\n", address_text(viewer.address).data(), viewer.port);
      }
      if (is_free(slot)) continue;
    }
    ++count;
  }
  display->viewer_count = count;
}

}  // namespace nimbus
