// The service as a viewer sees it: one UDP socket, registered for as long as it is used.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "net/messages.h"
#include "tools/common/udp_socket.h"

namespace nimbus::ctl {

using Clock = std::chrono::steady_clock;

/// When so many seconds from now are over; never for 0, and for more than the clock can count.
[[nodiscard]] Clock::time_point end_after(double seconds);

/// A host (a name or an IPv4 address) and its UDP port, host byte order.
struct Place {
  std::string host;
  std::uint16_t port;
};

/// Where the service is, and how long it may take to answer.
struct Connection {
  std::string host = "127.0.0.1";
  std::uint16_t port = kViewerPort;
  double timeout = 1.2;  ///< seconds; a registered viewer hears something once a second
  /// Where else it may be, when nobody answers there; null: nowhere. May throw.
  std::optional<Place> (*elsewhere)() = nullptr;
};

/// A frame from the service. The payload holds until the next receive.
struct Frame {
  bool video;
  std::uint32_t number;
  std::span<const std::uint8_t> payload;
};

/// A datagram that a link sends or receives, as it passes.
struct Passing {
  bool sent;
  tools::Endpoint from;
  tools::Endpoint to;
  std::span<const std::uint8_t> datagram;
};
using Tap = std::function<void(const Passing&)>;

/// The header of a frame, and the frame around a payload.
[[nodiscard]] std::optional<Frame> decode_frame(std::span<const std::uint8_t> datagram);
[[nodiscard]] std::vector<std::uint8_t> encode_frame(std::span<const std::uint8_t> payload);

/// What a viewer says, as payloads: 4000 is full speed.
inline constexpr std::array<std::uint8_t, 2> kRegistration{0, 0};
inline constexpr std::array<std::uint8_t, 1> kLeave{1};
using SpeedPayload = std::array<std::uint8_t, SpeedMessage::kSize>;
[[nodiscard]] SpeedPayload speed_payload(const std::array<std::int16_t, 3>& pan_tilt_roll);

/// The text of a command as a payload. Throws Failure when it does not fit the service's mailbox.
[[nodiscard]] std::span<const std::uint8_t> command_payload(std::string_view text);

/// A registered viewer. Registers again and again while it receives, and leaves at its end.
class ViewerLink {
 public:
  /// Registers and waits for the first frame, which receive() then gives. Throws Failure when none
  /// comes in time; nothing but registrations and leaves has been sent then. The tap is told of
  /// every datagram, and may throw.
  explicit ViewerLink(const Connection& connection, Tap tap = {});
  ViewerLink(const ViewerLink&) = delete;
  ViewerLink& operator=(const ViewerLink&) = delete;
  ~ViewerLink();

  /// The next frame. Nothing when the time is over, or the tool shall end.
  std::optional<Frame> receive(Clock::time_point until);

  /// Drops what comes, for so long or until the tool shall end.
  void pause(std::chrono::milliseconds time);

  /// Where the service has answered: `elsewhere`, if nobody has where it was asked first.
  [[nodiscard]] const Place& place() const { return place_; }

  /// Whether the service runs on this machine.
  [[nodiscard]] bool is_local() const { return socket_.local().address == socket_.peer().address; }

  /// Sends a command. Throws Failure when it does not fit the service's mailbox.
  void command(std::string_view text);

  /// Sends a speed: 4000 is full speed.
  void speed(const std::array<std::int16_t, 3>& pan_tilt_roll);

 private:
  [[nodiscard]] bool reach(double seconds);
  void send(std::span<const std::uint8_t> payload);
  void leave() noexcept;
  void keep_registered(Clock::duration period);
  std::optional<Frame> receive_next(Clock::time_point until, Clock::duration registration_period);

  void pass(bool sent, std::span<const std::uint8_t> datagram) const;

  Place place_;
  tools::UdpSocket socket_;
  Tap tap_;
  std::vector<std::uint8_t> buffer_;
  std::optional<Frame> first_;
  std::optional<Clock::time_point> registered_;
};

}  // namespace nimbus::ctl
