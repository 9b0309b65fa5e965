#include "tools/web/rtp_link.h"

#include <sys/socket.h>

#include <cerrno>
#include <random>

#include "base/whole_file.h"
#include "tools/common/failure.h"

namespace nimbus::web {
namespace {

constexpr int kSendBuffer = 1024 * 1024;  // the largest pictures, as far as the system allows

rtp::Begin random_begin() {
  std::random_device random;
  return {.source = random(),
          .time = random(),
          .sequence = static_cast<std::uint16_t>(random() & 0xFFFFU)};
}

}  // namespace

RtpLink::RtpLink(const std::string& host, std::uint16_t port, const std::string& sdp)
    : socket_(host, port), output_(random_begin(), [this](Bytes packet) { return send(packet); }) {
  setsockopt(socket_.fd(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
  const std::string text = rtp::description(tools::dotted(socket_.peer().address), port);
  if (!sdp.empty() && replace_file(sdp.c_str(), text) != Replaced::whole) {
    throw tools::Failure("cannot write '" + sdp + "'; expected a file to write for --sdp");
  }
}

/// A receiver that is not there yet refuses packets; that an earlier one was refused fails the send
/// of this one once.
bool RtpLink::send(Bytes packet) {
  for (int i = 0; i < 2; ++i) {
    if (::send(socket_.fd(), packet.data(), packet.size(), MSG_DONTWAIT) >= 0) return true;
    if (errno != ECONNREFUSED) return false;
  }
  return true;
}

}  // namespace nimbus::web
