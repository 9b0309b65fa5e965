// What the service sends to the camera, as the camera's end sees it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <variant>

namespace nimbus::sim {

using Bytes = std::span<const std::uint8_t>;

/// A frame whose length and checksums are right. A view of the datagram that it came in.
struct Frame {
  std::uint8_t sender = 0;
  std::uint8_t receiver = 0;
  std::uint16_t sequence = 0;
  std::uint8_t type = 0;
  std::uint8_t set = 0;
  std::uint8_t id = 0;
  Bytes payload;
};

/// The frame that a datagram consists of, or what is wrong with it, in words.
[[nodiscard]] std::variant<Frame, std::string> check_frame(Bytes datagram);

}  // namespace nimbus::sim
