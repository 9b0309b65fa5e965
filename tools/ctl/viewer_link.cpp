#include "tools/ctl/viewer_link.h"

#include <algorithm>

#include "base/wire.h"
#include "display/command_mailbox.h"
#include "tools/common/failure.h"
#include "tools/common/text.h"
#include "tools/ctl/interrupt.h"

namespace nimbus::ctl {
namespace {

using std::chrono::milliseconds;

// The service forgets a viewer after five seconds.
constexpr milliseconds kRegistrationPeriod{1000};
// A registration may get lost; until somebody answers, several are sent.
constexpr milliseconds kKnockPeriod{250};
// How soon a signal that came at a bad moment is seen.
constexpr milliseconds kLongestWait{100};

constexpr std::uint8_t type_of(FromViewer message) { return static_cast<std::uint8_t>(message); }
static_assert(kRegistration[0] == type_of(FromViewer::register_viewer));
static_assert(kLeave[0] == type_of(FromViewer::leave));

}  // namespace

Clock::time_point end_after(double seconds) {
  const auto now = Clock::now();
  const std::chrono::duration<double> time(seconds);
  if (seconds <= 0 || time >= Clock::time_point::max() - now) return Clock::time_point::max();
  return now + std::chrono::duration_cast<Clock::duration>(time);
}

std::optional<Frame> decode_frame(std::span<const std::uint8_t> datagram) {
  if (datagram.size() < kFrameHeaderSize || datagram[0] != kFrameMagic) return std::nullopt;
  constexpr auto kVideo = static_cast<std::uint8_t>(FrameKind::video);
  return Frame{datagram[kFrameKindOffset] == kVideo,
               load_le<std::uint32_t>(datagram, kFrameNumberOffset),
               datagram.subspan(kFrameHeaderSize)};
}

std::vector<std::uint8_t> encode_frame(std::span<const std::uint8_t> payload) {
  std::vector<std::uint8_t> frame(kFrameHeaderSize + payload.size());
  frame[0] = kFrameMagic;
  std::copy(payload.begin(), payload.end(), frame.begin() + kFrameHeaderSize);
  return frame;
}

SpeedPayload speed_payload(const std::array<std::int16_t, 3>& pan_tilt_roll) {
  SpeedPayload payload{type_of(FromViewer::speed)};
  put(payload, SpeedMessage::mode, SpeedMessage::kSets);
  put(payload, SpeedMessage::pan, pan_tilt_roll[0]);
  put(payload, SpeedMessage::tilt, pan_tilt_roll[1]);
  put(payload, SpeedMessage::roll, pan_tilt_roll[2]);
  return payload;
}

std::span<const std::uint8_t> command_payload(std::string_view text) {
  constexpr std::size_t kLongest = CommandMailbox::kSize - 1;
  if (text.size() > kLongest) {
    throw tools::Failure("a command of " + std::to_string(text.size()) +
                         " bytes; expected at most " + std::to_string(kLongest));
  }
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

ViewerLink::ViewerLink(const Connection& connection, Tap tap)
    : place_{connection.host, connection.port},
      socket_(place_.host, place_.port),
      tap_(std::move(tap)),
      buffer_(tools::kLargestDatagram) {
  if (reach(connection.timeout)) return;
  if (connection.elsewhere != nullptr) {
    if (auto other = connection.elsewhere()) {
      place_ = std::move(*other);
      socket_ = tools::UdpSocket(place_.host, place_.port);
      registered_.reset();
      if (reach(connection.timeout)) return;
    }
  }
  throw tools::Failure("nobody answers at " + place_.host + ":" + std::to_string(place_.port) +
                       " within " + tools::format_text("%g s", connection.timeout) +
                       "; expected a running service with room for one more viewer");
}

/// Whether somebody answers in time; or the tool shall end.
bool ViewerLink::reach(double seconds) {
  socket_.hold_bursts();
  first_ = receive_next(end_after(seconds), kKnockPeriod);
  if (first_ || interrupted()) return true;
  leave();  // a late service shall not keep a place for nobody
  return false;
}

ViewerLink::~ViewerLink() { leave(); }

void ViewerLink::leave() noexcept {
  try {
    send(kLeave);
  } catch (...) {
    // The service will miss this viewer by itself.
  }
}

std::optional<Frame> ViewerLink::receive(Clock::time_point until) {
  if (first_) return std::exchange(first_, std::nullopt);
  return receive_next(until, kRegistrationPeriod);
}

void ViewerLink::pause(milliseconds time) {
  const auto until = Clock::now() + time;
  while (Clock::now() < until && !interrupted()) receive(until);
}

void ViewerLink::command(std::string_view text) { send(command_payload(text)); }

void ViewerLink::speed(const std::array<std::int16_t, 3>& pan_tilt_roll) {
  send(speed_payload(pan_tilt_roll));
}

void ViewerLink::send(std::span<const std::uint8_t> payload) {
  const auto frame = encode_frame(payload);
  // An earlier datagram that was refused fails the send of this one once, and is no reason.
  if (!socket_.send(frame)) socket_.send(frame);
  pass(true, frame);
}

void ViewerLink::pass(bool sent, std::span<const std::uint8_t> datagram) const {
  if (!tap_) return;
  const tools::Endpoint own = socket_.local();
  const tools::Endpoint peer = socket_.peer();
  tap_({sent, sent ? own : peer, sent ? peer : own, datagram});
}

void ViewerLink::keep_registered(Clock::duration period) {
  const auto now = Clock::now();
  if (registered_ && now - *registered_ < period) return;
  registered_ = now;
  send(kRegistration);
}

std::optional<Frame> ViewerLink::receive_next(Clock::time_point until,
                                              Clock::duration registration_period) {
  for (;;) {
    if (interrupted()) return std::nullopt;
    keep_registered(registration_period);
    const auto rest = until - Clock::now();
    const auto wait =
        std::clamp(std::chrono::ceil<milliseconds>(rest), milliseconds{0}, kLongestWait);
    if (const auto datagram = socket_.receive(buffer_, wait)) {
      pass(false, *datagram);
      if (const auto frame = decode_frame(*datagram)) return frame;
    } else if (rest <= Clock::duration::zero()) {
      return std::nullopt;
    }
  }
}

}  // namespace nimbus::ctl
