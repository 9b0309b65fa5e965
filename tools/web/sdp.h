// What tells RTP's receivers of the stream: a session description (RFC 8866) of H.264 (RFC 6184,
// 8.1).
#pragma once

#include <cstdint>
#include <string>

#include "tools/web/bytes.h"

namespace nimbus::web {

/// For a receiver at that IPv4 address and port. `sets` are the stream's parameter sets, with start
/// codes between them: a receiver that has them knows the picture's size before a key picture
/// comes, and some begin with nothing else. Without them when they are empty, or larger than any
/// camera's: receivers then wait for those in the stream, which always hold.
[[nodiscard]] std::string session_description(const std::string& address, std::uint16_t port,
                                              Bytes sets);

}  // namespace nimbus::web
