// Who announces the service on the local network: one question by multicast DNS, and its answers
// (RFC 6762, 5.1 and 6.7: a one-shot query from any port, answered to that port alone; names of
// services by RFC 6763). Answers come from anybody: each is read within its bounds, whole or not
// at all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace nimbus::ctl {

inline constexpr std::uint32_t kMdnsGroup = 0xE000'00FB;  ///< 224.0.0.251, host byte order
inline constexpr std::uint16_t kMdnsPort = 5353;

/// A service that announces itself. The texts are as they came: for people only through shown().
struct Board {
  std::string name;           ///< of the service
  std::string host;           ///< its machine's name, as raspberrypi.local
  std::uint32_t address = 0;  ///< IPv4, host byte order
  std::uint16_t port = 0;     ///< UDP, host byte order
};

/// The question for every service. Its answers carry the same id.
[[nodiscard]] std::vector<std::uint8_t> board_query(std::uint16_t id);

/// The services that an answer names whole, with their ports and machines; none if it is damaged or
/// answers something else. An address that it does not have is the sender's (host byte order).
[[nodiscard]] std::vector<Board> boards_of(std::span<const std::uint8_t> answer, std::uint16_t id,
                                           std::uint32_t sender);

}  // namespace nimbus::ctl
