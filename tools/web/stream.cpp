#include "tools/web/stream.h"

#include <algorithm>
#include <utility>

#include "tools/web/annex_b.h"

namespace nimbus::web {
namespace {

// Datagrams in which no parameter set has come, before a stream is called unknown.
constexpr std::size_t kUndecided = 200;
// Bytes of it that are kept, and of those that stay when it is too much: a parameter set is
// shorter.
constexpr std::size_t kMostUndecided = 8192;
constexpr std::ptrdiff_t kOverlap = 256;
constexpr std::chrono::seconds kSilence{1};
// Three packets of a transport stream.
constexpr std::size_t kSurelyPackets = std::size_t{3} * 188;

// Microseconds. Browsers do not show what is shorter.
constexpr std::uint64_t kShortest = 1'000;
constexpr std::uint64_t kUsual = 40'000;

}  // namespace

Stream::Stream(StreamListener& listener, Ends ends)
    : listener_(listener), assembler_(ends), epoch_(std::make_shared<const Epoch>()) {}

void Stream::video(Bytes datagram, std::uint32_t number, Time now) {
  other(number);
  ++counts_.datagrams;
  counts_.bytes += datagram.size();
  last_video_ = now;
  const Buffer kept = detect(datagram);
  if (codec_ != nullptr) assembler_.take(kept.empty() ? datagram : kept, gap_, now, units_);
  gap_ = false;
  take_units();
}

void Stream::other(std::uint32_t number) {
  const std::uint32_t missing = numbers_.take(number);
  if (missing == 0) return;
  gap_ = true;
  ++counts_.gaps;
  counts_.missing += missing;
}

void Stream::pass_time(Time now) {
  assembler_.expire(now, units_);
  take_units();
  const bool silent = !last_video_ || now - *last_video_ >= kSilence;
  if (silent) tell(Waiting::silence);
}

void Stream::interrupt() {
  numbers_.forget();
  gap_ = true;
}

// --- The kind of the stream --------------------------------------------------------------------

/// What has come of a stream of unknown kind is kept for a while: when the kind is known, it is
/// taken.
Buffer Stream::detect(Bytes datagram) {
  if (codec_ != nullptr) {
    const Kind other = kind_of(datagram);
    // A short datagram of a stream that plays may look like a packet by chance.
    const bool doubtful = !blocked_ && other == Kind::mpeg_ts && datagram.size() < kSurelyPackets;
    if (other != Kind::none && other != kind_ && !doubtful) decide(other);
    return {};
  }
  append(undecided_, datagram);
  const Kind kind = kind_of(datagram) == Kind::mpeg_ts ? Kind::mpeg_ts : kind_of(undecided_);
  if (kind != Kind::none && kind != kind_) {
    decide(kind);
    return std::exchange(undecided_, {});
  }
  if (++undecided_datagrams_ >= kUndecided && kind_ == Kind::none) decide(Kind::unknown);
  if (undecided_.size() > kMostUndecided)
    undecided_.erase(undecided_.begin(), undecided_.end() - kOverlap);
  return {};
}

void Stream::decide(Kind kind) {
  kind_ = kind;
  undecided_datagrams_ = 0;
  codec_.reset();
  if (kind == Kind::h264) codec_ = make_h264();
  if (kind == Kind::h265) codec_ = make_h265();
  assembler_.reset(kind == Kind::h264   ? Coding::h264
                   : kind == Kind::h265 ? Coding::h265
                                        : Coding::none);
  blocked_ = true;
  if (codec_ != nullptr) return;
  Epoch epoch;
  epoch.kind = kind;
  begin_epoch(epoch);
}

void Stream::begin_epoch(const Epoch& epoch) {
  auto numbered = std::make_shared<Epoch>(epoch);
  numbered->number = epoch_->number + 1;
  epoch_ = std::move(numbered);
  group_.clear();
  group_bytes_ = 0;
  listener_.on_epoch(epoch_);
}

// --- Pictures ----------------------------------------------------------------------------------

void Stream::take_units() {
  for (const AccessUnit& unit : units_) take(unit);
  units_.clear();
  counts_.torn = assembler_.torn();
}

void Stream::take(const AccessUnit& unit) {
  Look look = codec_->look(unit.bytes);
  if (!look.picture) return;
  if (unit.damaged) return discard(Waiting::loss);
  if (unit.lost_before && !look.key && !look.follows) return discard(Waiting::loss);
  if (blocked_ && !look.key) return discard(waiting_);
  if (look.key) {
    Buffer sets = codec_->parameter_sets();
    if (sets.empty()) return discard(Waiting::key);
    if (sets != epoch_->parameter_sets) {
      Epoch epoch;
      epoch.parameter_sets = std::move(sets);
      codec_->describe(epoch);
      begin_epoch(epoch);
    }
  }
  publish(unit, std::move(look));
}

void Stream::discard(Waiting reason) {
  ++counts_.discarded;
  blocked_ = true;
  tell(reason == Waiting::loss ? Waiting::loss
                               : (waiting_ == Waiting::loss ? Waiting::loss : Waiting::key));
}

void Stream::tell(Waiting reason) {
  if (waiting_ == reason) return;
  waiting_ = reason;
  listener_.on_waiting(reason);
}

/// Each picture begins where the one before it ends and lasts until its own arrival, so that
/// nothing waits for its successor and no pause leaves a hole.
mp4::Span Stream::next_span(Time first) const {
  const std::uint64_t arrival = micros_of(first);
  if (end_ == 0 || arrival > end_ + kLongestPause) return {arrival - kUsual, kUsual};
  return {end_, static_cast<std::uint32_t>(std::max(arrival, end_ + kShortest) - end_)};
}

void Stream::publish(const AccessUnit& unit, Look look) {
  auto picture = std::make_shared<Picture>();
  picture->number = next_number_++;
  picture->epoch = epoch_->number;
  picture->key = look.key;
  picture->arrival = micros_of(unit.first);
  picture->span = next_span(unit.first);
  if (look.key && !look.has_sets) {
    picture->units = epoch_->parameter_sets;
    append(picture->units, look.units);
  } else {
    picture->units = std::move(look.units);
  }
  end_ = picture->end();
  blocked_ = false;
  waiting_ = Waiting::no;
  ++counts_.pictures;
  if (look.key) ++counts_.key_pictures;
  keep(picture);
  listener_.on_picture(picture);
}

void Stream::keep(const SharedPicture& picture) {
  if (picture->key || group_.size() >= kMostKept || group_bytes_ > kMostKeptBytes) {
    group_.clear();
    group_bytes_ = 0;
  }
  // Without its key picture the rest of a group is of no use.
  if (!picture->key && group_.empty()) return;
  group_.push_back(picture);
  group_bytes_ += picture->units.size();
}

}  // namespace nimbus::web
