// Scripts that play an RC receiver: what it says, and when.
//
//   # left, then stop; again and again
//   function tilt = 0
//   at 0.5 function pan = -0.3
//   wait 2
//   function pan = 0
//   at 5 loop
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "display/region.h"

namespace nimbus::sim {

/// What a receiver says at one moment.
struct RcReceiver {
  static constexpr std::size_t kFunctions = 32;

  std::uint8_t state = kReceiverLive;
  /// Raw values, 1500 in the middle; none: the receiver has no such channel.
  std::array<std::optional<std::uint16_t>, kRcChannels> channels;
  /// Centred values (-1.0 to 1.0) by function code, whatever the channels say; none: they decide.
  std::array<std::optional<double>, kFunctions> functions;
};

/// One change of the receiver.
struct RcStep {
  enum class What : std::uint8_t { state, channel, function };
  double at = 0;  ///< seconds since the script's start
  What what = What::state;
  std::size_t index = 0;                       ///< of the channel (from 0) or the function
  std::optional<double> value = std::nullopt;  ///< none: taken away
};

struct RcScript {
  std::vector<RcStep> steps;  ///< in the order of time
  double length = 0;          ///< seconds
  bool loops = false;
};

/// Reads a script; `name` stands in what is thrown. Throws Failure, which names the line and says
/// what is expected.
[[nodiscard]] RcScript parse_rc_script(std::string_view text, const std::string& name);

/// Plays a script.
class RcPlayer {
 public:
  explicit RcPlayer(RcScript script) : script_(std::move(script)) {}

  /// Makes every change that is due so many seconds after the start. Time never goes back.
  void play(double seconds, RcReceiver& receiver);

 private:
  RcScript script_;
  std::size_t next_ = 0;
  double start_ = 0;  // of this round, seconds
};

}  // namespace nimbus::sim
