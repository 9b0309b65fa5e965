#include "tools/sim/replay.h"

#include <cinttypes>
#include <utility>

#include "net/messages.h"
#include "net/sources.h"
#include "tools/common/failure.h"
#include "tools/common/text.h"

namespace nimbus::sim {
namespace {

using tools::Failure;
using tools::format_text;

/// Seconds between the last datagram of a round and the first of the next: a picture's time.
constexpr double kBetweenRounds = 0.04;

bool is_video_frame(const UdpDatagram& udp) {
  constexpr auto kVideo = static_cast<std::uint8_t>(FrameKind::video);
  return udp.source_port == kViewerPort && udp.payload.size() > kFrameHeaderSize &&
         udp.payload[0] == kFrameMagic && udp.payload[kFrameKindOffset] == kVideo;
}

}  // namespace

std::optional<Link> LinkFilter::take(UdpDatagram& udp) {
  if (udp.destination_port == kDataPort) return Link::data;
  if (udp.destination_port == kVideoPort) {
    bridge_video_ = true;
    return Link::video;
  }
  if (bridge_video_ || !is_video_frame(udp)) return {};
  const Viewer viewer{udp.destination, udp.destination_port};
  if (!viewer_) viewer_ = viewer;
  if (*viewer_ != viewer) return {};
  udp.payload.erase(udp.payload.begin(), udp.payload.begin() + kFrameHeaderSize);
  return Link::video;
}

Replay::Replay(ReplayOptions options) : options_(std::move(options)) {
  open();
  advance();
  if (next_) return;
  check();
  throw Failure(options_.path +
                format_text(": nothing to play in %" PRIu64 " packets", recording_->packets()) +
                "; expected datagrams to UDP port 5000 or 5001, or a viewer's video");
}

void Replay::open() {
  recording_ = Recording(options_.path);
  filter_ = {};
  any_ = false;
}

std::optional<double> Replay::due() const {
  if (!next_) return {};
  return next_->due;
}

void Replay::check() const {
  if (damage_) throw Failure(*damage_);
}

ReplayDatagram Replay::take() {
  ReplayDatagram taken = std::move(*next_);
  std::uint64_t& count = taken.link == Link::data ? counts_.data : counts_.video;
  ++count;
  shown_ = recorded_;
  advance();
  return taken;
}

void Replay::advance() {
  next_.reset();
  try {
    if (!fetch() && options_.loops && any_) next_round();
  } catch (const Failure& failure) {
    damage_ = failure.what();
  }
  counts_.incomplete = lost_ + recording_->incomplete();
}

/// Not after one that had nothing to play: it would be followed by another at once, for ever.
void Replay::next_round() {
  const double length = (shown_ - options_.from) / options_.speed;
  lost_ += recording_->incomplete();
  open();
  start_ += length + kBetweenRounds / options_.speed;
  ++round_;
  fetch();
}

/// Reads on to the next datagram to play; false at the end.
bool Replay::fetch() {
  while (auto recorded = recording_->next()) {
    const double time = std::chrono::duration<double>(recorded->time).count();
    if (time > options_.to) return false;
    const auto link = filter_.take(recorded->udp);
    if (!link || time < options_.from || (options_.only && *options_.only != *link)) continue;
    recorded_ = time;
    any_ = true;
    next_ = {*link, start_ + (time - options_.from) / options_.speed,
             std::move(recorded->udp.payload)};
    return true;
  }
  return false;
}

std::string Replay::progress() const {
  std::string text = format_text("%.1f s", shown_);
  const double part = recording_->part();
  if (part > 0) text += format_text(" (%.0f %%)", part * 100);
  text += format_text(", packet %" PRIu64 ": %" PRIu64 " data, %" PRIu64 " video",
                      recording_->packets(), counts_.data, counts_.video);
  if (options_.loops) text += format_text(", round %" PRIu64, round_);
  return text;
}

}  // namespace nimbus::sim
