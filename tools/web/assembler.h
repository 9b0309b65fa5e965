// Datagrams of video -> access units.
//
// A datagram may hold part of a picture, one, or several, and says nothing about where pictures
// end: a decoder finds out when the next one begins, which is a picture's time too late. So the end
// of a picture is learned from how the bridge cuts the stream. Bridges fill datagrams up to some
// size; one that is shorter is then the last of its picture, as long as that has always been so.
// Where it has not, a silence that is longer than any within a picture ends it. What arrives behind
// such an end and belongs before it shows that the guess was wrong: that picture is torn, and the
// guesses are dropped or become more careful.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "tools/web/bytes.h"

namespace nimbus::web {

/// How pictures are coded.
enum class Coding : std::uint8_t { none, h264, h265 };

/// A picture as it came.
struct AccessUnit {
  Buffer bytes;              ///< begins with a start code
  Time first;                ///< when its first bytes came
  Time last;                 ///< and its last
  bool lost_before = false;  ///< something was lost before it
  bool damaged = false;      ///< something of it was lost, or may have been
};

/// How the end of a picture is found: guessed, for who shows it at once, or seen in the begin of
/// the next one, for who can wait and wants none torn.
enum class Ends : bool { guessed, seen };

class Assembler {
 public:
  /// Pictures longer than this are nobody's.
  static constexpr std::size_t kLongest = std::size_t{4} * 1024 * 1024;

  using Units = std::vector<AccessUnit>;

  explicit Assembler(Ends ends = Ends::guessed) : ends_(ends) {}

  /// Begins anew: what waits is dropped.
  void reset(Coding coding);

  /// Takes a datagram. `gap` says that something was lost before it. Appends the pictures that are
  /// complete then.
  void take(Bytes datagram, bool gap, Time now, Units& units);

  /// When expire() is due; nothing while no picture waits for its end.
  [[nodiscard]] std::optional<Time> deadline() const { return deadline_; }

  /// Ends the picture that waits, if it has waited long enough.
  void expire(Time now, Units& units);

  /// How often the end of a picture was seen too early.
  [[nodiscard]] std::uint64_t torn() const { return torn_; }

 private:
  void scan(std::size_t datagram_at, Time now, Units& units);
  [[nodiscard]] bool begins_picture(std::size_t unit) const;
  [[nodiscard]] bool is_slice(std::size_t unit) const;
  void begin(std::size_t at, Time now, Units& units);
  void emit(std::size_t size, Units& units);
  void emit_all(Units& units);
  void erase(std::size_t size);
  void note_gap();
  void note_torn(Time now);
  void give_up();
  void learn(std::size_t datagram_at, Time now);
  void note_pause(Time now);
  void schedule(std::size_t size, Time now, Units& units);
  [[nodiscard]] Clock::duration patience() const;

  Ends ends_;
  Coding coding_ = Coding::none;
  Buffer pending_;
  std::size_t scanned_ = 0;  // what stands before has been looked at
  bool has_slice_ = false;   // of what is pending
  bool skips_ = true;        // up to the begin of a picture
  bool ended_ = false;       // by a guess: a picture must begin now
  bool lost_before_ = false;
  bool damaged_ = false;
  Time first_{};
  Time last_{};
  std::optional<Time> deadline_;
  std::optional<std::ptrdiff_t> begins_at_;  // the first begin in this datagram, from its start

  // What has been learned of the bridge.
  std::size_t previous_size_ = 0;
  std::size_t full_size_ = 0;  // of datagrams that others of the same picture follow; 0: none do
  int trust_ = 0;              // how often in turn a shorter one was the last of its picture
  Clock::duration longest_pause_{};  // within a picture
  std::uint64_t torn_ = 0;
};

}  // namespace nimbus::web
