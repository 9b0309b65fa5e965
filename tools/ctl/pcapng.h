// UDP datagrams as a pcapng file (draft-ietf-opsawg-pcapng), which Wireshark and its kin read. Each
// stands behind headers of IPv4 and UDP made for it.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tools/common/udp_socket.h"

namespace nimbus::ctl {

enum class Direction : std::uint8_t { received = 1, sent = 2 };  // as in a packet's flags

/// What stands before the first datagram: the section, and one interface of raw IP packets whose
/// time counts in nanoseconds. `writer` is the name of the program.
[[nodiscard]] std::vector<std::uint8_t> pcapng_start(const std::string& writer);

/// One datagram of at most 65,507 bytes; `time` since 1970.
[[nodiscard]] std::vector<std::uint8_t> pcapng_packet(std::chrono::nanoseconds time,
                                                      Direction direction, tools::Endpoint from,
                                                      tools::Endpoint to,
                                                      std::span<const std::uint8_t> datagram);

}  // namespace nimbus::ctl
