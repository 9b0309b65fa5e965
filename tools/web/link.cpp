#include "tools/web/link.h"

#include <sys/socket.h>

#include "tools/common/failure.h"

namespace nimbus::web {
namespace {

constexpr std::chrono::seconds kPatience{3};  // a registered viewer hears something every second
constexpr int kMostAtOnce = 256;              // the rest waits for its turn

}  // namespace

Link::Link(const std::string& host, std::uint16_t port)
    : socket_(host, port), buffer_(tools::kLargestDatagram) {
  socket_.hold_bursts();
}

Link::~Link() {
  try {
    send(ctl::kLeave);
  } catch (const std::exception&) {
    // The service will miss this viewer by itself.
  }
}

void Link::receive(const Handler& handler) {
  for (int i = 0; i < kMostAtOnce; ++i) {
    const ssize_t size = recv(socket_.fd(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    if (size < 0) return;
    const auto frame = ctl::decode_frame(Bytes(buffer_).first(static_cast<std::size_t>(size)));
    if (!frame) continue;
    const Time now = Clock::now();
    heard_ = now;
    handler(*frame, now);
  }
}

void Link::keep_registered() { send(ctl::kRegistration); }

bool Link::heard(Time now) const { return heard_ && now - *heard_ < kPatience; }

bool Link::command(std::string_view text) { return send(ctl::command_payload(text)); }

bool Link::speed(const std::array<std::int16_t, 3>& pan_tilt_roll) {
  return send(ctl::speed_payload(pan_tilt_roll));
}

bool Link::send(Bytes payload) {
  const auto frame = ctl::encode_frame(payload);
  try {
    // An earlier datagram that was refused fails the send of this one once.
    return socket_.send(frame) || socket_.send(frame);
  } catch (const tools::Failure&) {
    return false;  // no way to the service just now
  }
}

}  // namespace nimbus::web
