// The way to RTP's receiver: a socket that never waits.
#pragma once

#include <cstdint>
#include <string>

#include "tools/common/udp_socket.h"
#include "tools/web/rtp.h"
#include "tools/web/sdp_file.h"

namespace nimbus::web {

class RtpLink {
 public:
  /// To a host (a name or an IPv4 address) and port (host byte order). Writes the file that tells
  /// of it, if one is named, and again when the stream's parameter sets are known or others. Throws
  /// Failure for an unknown host or a file that cannot be written; when it cannot be later, the
  /// console is told and the pictures go on.
  RtpLink(const std::string& host, std::uint16_t port, std::string sdp);
  RtpLink(const RtpLink&) = delete;
  RtpLink& operator=(const RtpLink&) = delete;

  [[nodiscard]] RtpOutput& output() { return output_; }

 private:
  [[nodiscard]] bool send(Bytes packet);
  [[nodiscard]] std::string description(Bytes sets) const;

  tools::UdpSocket socket_;
  std::uint16_t port_;
  SdpFile sdp_;
  RtpOutput output_;
};

}  // namespace nimbus::web
