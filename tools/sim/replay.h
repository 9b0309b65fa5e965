// A recording, played again: what the camera and its bridge sent, when they sent it.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "tools/sim/recording.h"

namespace nimbus::sim {

/// Which of the service's links a datagram belongs to.
enum class Link : std::uint8_t { data, video };

struct ReplayOptions {
  std::string path;
  double speed = 1;  ///< 1: as it was; 2: twice as fast
  bool loops = false;
  double from = 0;                                      ///< seconds of the recording
  double to = std::numeric_limits<double>::infinity();  ///< seconds of the recording
  std::optional<Link> only;                             ///< nothing: both
};

/// What of a recording goes to the service. The bridge's datagrams to the ports of data and video;
/// where it holds what a viewer received instead, the video out of the frames of the first viewer.
class LinkFilter {
 public:
  /// The link of a datagram, whose payload becomes what its sender put into it; nothing: none.
  [[nodiscard]] std::optional<Link> take(UdpDatagram& udp);

 private:
  struct Viewer {
    std::uint32_t address;
    std::uint16_t port;
    bool operator==(const Viewer&) const = default;
  };
  bool bridge_video_ = false;
  std::optional<Viewer> viewer_;
};

/// What is due next.
struct ReplayDatagram {
  Link link;
  double due;  ///< seconds since the start of the replay
  std::vector<std::uint8_t> payload;
};

/// Plays a recording by its own clock: the time of each datagram is reckoned from the start, so
/// that no wait adds to another.
class Replay {
 public:
  struct Counts {
    std::uint64_t data = 0;
    std::uint64_t video = 0;
    std::uint64_t incomplete = 0;  ///< not sent: pieces of them lack
  };

  /// Throws Failure when there is nothing to play.
  explicit Replay(ReplayOptions options);

  /// Seconds since the start at which the next datagram is due; nothing when all were taken.
  [[nodiscard]] std::optional<double> due() const;
  /// Takes the datagram that is due; there must be one. If the recording is damaged behind it,
  /// nothing more is due, and check() throws: everything before is played.
  [[nodiscard]] ReplayDatagram take();
  /// Throws Failure when the recording is damaged where it ended.
  void check() const;

  /// Where it is, in words.
  [[nodiscard]] std::string progress() const;
  [[nodiscard]] const Counts& counts() const { return counts_; }

 private:
  void open();
  void advance();
  void next_round();
  bool fetch();

  ReplayOptions options_;
  std::optional<Recording> recording_;
  LinkFilter filter_;
  std::optional<ReplayDatagram> next_;
  std::optional<std::string> damage_;
  double recorded_ = 0;  // seconds of the recording that the next datagram stands at
  double shown_ = 0;     // the same of the last one taken
  double start_ = 0;     // of this round, seconds since the start of the replay
  bool any_ = false;     // in this round
  std::uint64_t round_ = 1;
  std::uint64_t lost_ = 0;  // in the rounds before
  Counts counts_;
};

}  // namespace nimbus::sim
