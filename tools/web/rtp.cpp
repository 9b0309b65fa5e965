#include "tools/web/rtp.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tools/web/annex_b.h"

namespace nimbus::web {
namespace rtp {
namespace {

constexpr std::uint8_t kVersion = 0x80;  // 2; no padding, extension or further sources
constexpr std::uint8_t kMarker = 0x80;   // beside the payload type
constexpr std::uint8_t kFragment = 28;   // FU-A, in place of the unit's type
constexpr std::uint8_t kType = 0x1F;
constexpr std::uint8_t kFirst = 0x80;
constexpr std::uint8_t kLast = 0x40;
constexpr std::size_t kFragmentHeader = 2;
constexpr std::size_t kMostOfUnit = kLongest - kHeader;
constexpr std::size_t kMostOfFragment = kMostOfUnit - kFragmentHeader;

/// High byte first.
template <typename T>
void store(Buffer& to, std::size_t at, T value) {
  for (std::size_t i = sizeof(T); i-- > 0; value = static_cast<T>(value >> 8U)) {
    to[at + i] = static_cast<std::uint8_t>(value & 0xFFU);
  }
}

}  // namespace

bool Packetizer::send(Bytes units, std::uint64_t time, const Sink& sink) {
  // Unsigned, so that it goes round as receivers expect it.
  timestamp_ = static_cast<std::uint32_t>(begin_.time + time / 100 * 9 + time % 100 * 9 / 100);
  const auto all = units_of(units);
  return std::ranges::all_of(
      all, [&](const Bytes& unit) { return send_unit(unit, &unit == &all.back(), sink); });
}

bool Packetizer::send_unit(Bytes unit, bool last, const Sink& sink) {
  if (unit.size() <= kMostOfUnit) {
    std::ranges::copy(unit, packet_.begin() + kHeader);
    return send_packet(kHeader + unit.size(), last, sink);
  }
  const std::uint8_t head = unit[0];
  packet_[kHeader] = static_cast<std::uint8_t>((head & ~kType) | kFragment);
  std::uint8_t position = kFirst;
  for (Bytes rest = unit.subspan(1); !rest.empty(); position = 0) {
    const Bytes part = rest.first(std::min(rest.size(), kMostOfFragment));
    rest = rest.subspan(part.size());
    if (rest.empty()) position |= kLast;
    packet_[kHeader + 1] = static_cast<std::uint8_t>(position | (head & kType));
    std::ranges::copy(part, packet_.begin() + kHeader + kFragmentHeader);
    if (!send_packet(kHeader + kFragmentHeader + part.size(), last && rest.empty(), sink)) {
      return false;
    }
  }
  return true;
}

bool Packetizer::send_packet(std::size_t size, bool marked, const Sink& sink) {
  packet_[0] = kVersion;
  packet_[1] = static_cast<std::uint8_t>(kPayloadType | (marked ? kMarker : 0));
  store(packet_, 2, begin_.sequence++);
  store(packet_, 4, timestamp_);
  store(packet_, 8, begin_.source);
  return sink(Bytes(packet_).first(size));
}

}  // namespace rtp

RtpOutput::RtpOutput(rtp::Begin begin, rtp::Sink send, rtp::Describe describe)
    : packetizer_(begin), send_(std::move(send)), describe_(std::move(describe)) {}

void RtpOutput::on_epoch(const SharedEpoch& epoch) {
  const bool another = epoch->kind != std::exchange(kind_, epoch->kind);
  sets_ = epoch->parameter_sets;
  if (!another || kind_ == Kind::h264) return;
  std::fprintf(stderr, "nimbus-web: the video is %s, which is not sent as RTP; expected h264\n",
               name_of(kind_));
}

void RtpOutput::on_picture(const SharedPicture& picture) {
  if (kind_ != Kind::h264) return;
  if (picture->key) tell_sets(picture->arrival);
  blocked_ = blocked_ && !picture->key;
  if (!blocked_) blocked_ = !packetizer_.send(picture->units, picture->arrival, send_);
  std::uint64_t& count = blocked_ ? dropped_ : sent_;
  ++count;
}

/// Seldom: a damaged stream may have others at each key picture, and to tell of them is to write a
/// file.
void RtpOutput::tell_sets(std::uint64_t now) {
  constexpr std::uint64_t kSeldom = 10'000'000;  // microseconds
  if (sets_ == told_ || (!told_.empty() && now < told_at_ + kSeldom)) return;
  told_ = sets_;
  told_at_ = now;
  if (describe_) describe_(told_);
}

}  // namespace nimbus::web
