// The way to RTP's receiver: a socket that never waits.
#pragma once

#include <cstdint>
#include <string>

#include "tools/common/udp_socket.h"
#include "tools/web/rtp.h"

namespace nimbus::web {

class RtpLink {
 public:
  /// To a host (a name or an IPv4 address) and port (host byte order). Writes the file that tells
  /// of it, if one is named. Throws Failure for an unknown host or a file that cannot be written.
  RtpLink(const std::string& host, std::uint16_t port, const std::string& sdp);
  RtpLink(const RtpLink&) = delete;
  RtpLink& operator=(const RtpLink&) = delete;

  [[nodiscard]] RtpOutput& output() { return output_; }

 private:
  [[nodiscard]] bool send(Bytes packet);

  tools::UdpSocket socket_;
  RtpOutput output_;
};

}  // namespace nimbus::web
