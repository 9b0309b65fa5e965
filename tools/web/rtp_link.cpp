#include "tools/web/rtp_link.h"

#include <sys/socket.h>

#include <cerrno>
#include <random>
#include <utility>

#include "tools/web/sdp.h"

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

RtpLink::RtpLink(const std::string& host, std::uint16_t port, std::string sdp)
    : socket_(host, port),
      port_(port),
      sdp_(std::move(sdp)),
      output_(
          random_begin(), [this](Bytes packet) { return send(packet); },
          [this](Bytes sets) { sdp_.write_beside(description(sets)); }) {
  setsockopt(socket_.fd(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof(kSendBuffer));
  sdp_.write(description({}));
}

std::string RtpLink::description(Bytes sets) const {
  return session_description(tools::dotted(socket_.peer().address), port_, sets);
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
