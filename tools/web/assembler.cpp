#include "tools/web/assembler.h"

#include <algorithm>

#include "tools/web/annex_b.h"
#include "tools/web/h264.h"
#include "tools/web/h265.h"

namespace nimbus::web {
namespace {

using std::chrono::milliseconds;

// The service leaves 1 ms between two viewers: with ten of them, the datagrams of a picture come
// 10 ms apart. Nothing within a picture takes longer than the longest patience.
constexpr milliseconds kLeastPatience{12};
constexpr milliseconds kMostPatience{100};
constexpr milliseconds kFirstPause{20};  // what is assumed before anything has been seen

// How often in turn the guess must have been right before it counts, and after it was wrong.
constexpr int kTrusted = 8;
constexpr int kAfterMistake = -50;
constexpr int kMostTrust = 1000;

constexpr std::size_t kStartCode = 3;
constexpr std::size_t kUnitHead = 3;  // what must be seen of a unit

}  // namespace

void Assembler::reset(Coding coding) {
  *this = Assembler(ends_);
  coding_ = coding;
  longest_pause_ = kFirstPause;
}

void Assembler::take(Bytes datagram, bool gap, Time now, Units& units) {
  if (coding_ == Coding::none || datagram.empty()) return;
  const std::size_t at = pending_.size();
  if (gap) note_gap();
  if (at == 0) first_ = now;
  append(pending_, datagram);
  begins_at_.reset();
  scan(at, now, units);
  const bool undecided = skips_ && pending_.size() <= kStartCode + kUnitHead;
  if (!gap && !undecided) learn(at, now);
  ended_ = ended_ && undecided;
  previous_size_ = datagram.size();
  last_ = now;
  if (skips_ || pending_.size() > kLongest) give_up();
  schedule(datagram.size(), now, units);
}

void Assembler::expire(Time now, Units& units) {
  if (deadline_ && now >= *deadline_) emit_all(units);
}

// --- Where pictures begin ----------------------------------------------------------------------

bool Assembler::begins_picture(std::size_t unit) const {
  if (coding_ == Coding::h264) return h264::begins_picture(pending_[unit], pending_[unit + 1]);
  return h265::begins_picture(pending_[unit], pending_[unit + 2]);
}

bool Assembler::is_slice(std::size_t unit) const {
  const auto head = Bytes(pending_).subspan(unit);
  if (coding_ == Coding::h264) return h264::is_slice(h264::unit_of(head));
  return h265::is_slice(h265::unit_of(head));
}

/// Looks at the units that have come to light with the datagram that begins at `datagram_at`.
void Assembler::scan(std::size_t datagram_at, Time now, Units& units) {
  auto origin = static_cast<std::ptrdiff_t>(datagram_at);
  for (;;) {
    const std::size_t code = find_start_code(pending_, scanned_);
    if (code + kStartCode + kUnitHead > pending_.size()) {
      // The end may hold the start of a start code.
      const std::size_t rest = std::min(pending_.size(), kStartCode - 1);
      scanned_ = std::min(code, pending_.size() - rest);
      return;
    }
    scanned_ = code + kStartCode;
    if ((skips_ || has_slice_) && begins_picture(scanned_)) {
      const std::size_t at = code > 0 && pending_[code - 1] == 0 ? code - 1 : code;
      if (!begins_at_) begins_at_ = static_cast<std::ptrdiff_t>(at) - origin;
      origin -= static_cast<std::ptrdiff_t>(at);
      begin(at, now, units);
    }
    has_slice_ = has_slice_ || (!skips_ && is_slice(scanned_));
  }
}

/// A picture begins at `at`: what stands before it is complete, or is no picture.
void Assembler::begin(std::size_t at, Time now, Units& units) {
  if (skips_) {
    erase(at);
    skips_ = false;
  } else {
    emit(at, units);
  }
  first_ = now;
}

void Assembler::erase(std::size_t size) {
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(size));
  scanned_ -= std::min(scanned_, size);
}

void Assembler::emit(std::size_t size, Units& units) {
  const auto end = pending_.begin() + static_cast<std::ptrdiff_t>(size);
  units.push_back({{pending_.begin(), end}, first_, last_, lost_before_, damaged_});
  erase(size);
  has_slice_ = false;
  lost_before_ = false;
  damaged_ = false;
  deadline_.reset();
}

/// By a guess: the next datagram must begin a picture.
void Assembler::emit_all(Units& units) {
  emit(pending_.size(), units);
  skips_ = true;
  ended_ = true;
}

// --- What goes wrong ---------------------------------------------------------------------------

void Assembler::note_gap() {
  lost_before_ = true;
  damaged_ = damaged_ || !pending_.empty();
}

/// The picture that was ended by a guess goes on: it is of no use, and nor are those behind it.
void Assembler::note_torn(Time now) {
  ++torn_;
  trust_ = kAfterMistake;
  damaged_ = true;
  note_pause(now);
}

/// Drops what belongs to no picture, but for what may be the start of a start code.
void Assembler::give_up() {
  lost_before_ = lost_before_ || !skips_;
  skips_ = true;
  has_slice_ = false;
  const std::size_t rest = std::min(pending_.size(), kStartCode + kUnitHead);
  erase(pending_.size() - rest);
  deadline_.reset();
}

// --- Where pictures end ------------------------------------------------------------------------

void Assembler::note_pause(Time now) {
  longest_pause_ = std::max<Clock::duration>(longest_pause_, now - last_);
}

void Assembler::learn(std::size_t datagram_at, Time now) {
  const bool begins = begins_at_ && *begins_at_ <= 0;
  if (begins) {
    if (previous_size_ != full_size_) trust_ = std::min(trust_ + 1, kMostTrust);
    longest_pause_ -= longest_pause_ / 64;
  } else if (ended_) {
    note_torn(now);
  } else if (datagram_at != 0) {
    if (previous_size_ < full_size_ || begins_at_) trust_ = kAfterMistake;
    full_size_ = previous_size_;
    note_pause(now);
  }
}

Clock::duration Assembler::patience() const {
  // A full datagram is hardly ever the last one where shorter ones are.
  if (trust_ >= kTrusted && previous_size_ == full_size_) return kMostPatience;
  return std::clamp<Clock::duration>(2 * longest_pause_, kLeastPatience, kMostPatience);
}

void Assembler::schedule(std::size_t size, Time now, Units& units) {
  if (skips_ || !has_slice_ || ends_ == Ends::seen) return;
  if (trust_ >= kTrusted && size != full_size_) {
    emit_all(units);
  } else {
    deadline_ = now + patience();
  }
}

}  // namespace nimbus::web
