// What passes by on the board itself: what viewers tell the service, and what it tells the camera.
#pragma once

#include <cstdint>
#include <optional>

#include "base/unique_fd.h"
#include "tools/sim/packet.h"

namespace nimbus::ctl {

/// A packet socket that sees both. Only root may have one; without, nothing is heard.
class BoardTap {
 public:
  /// `port`: where viewers send to.
  explicit BoardTap(std::uint16_t port);

  /// The next datagram from a viewer, or from the service to the bridge (from UDP port 5000);
  /// nothing when none waits.
  [[nodiscard]] std::optional<sim::UdpDatagram> next();

 private:
  UniqueFd socket_;
  sim::UdpReader reader_;
};

}  // namespace nimbus::ctl
