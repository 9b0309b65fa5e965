// What is said of the frames that the service sends.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/sim/commands.h"
#include "tools/sim/console.h"
#include "tools/sim/frame.h"

namespace nimbus::sim {

/// Shows each frame on a line, behind the seconds at which it came. Of equal speeds in a row only
/// the first is shown, with their count behind them.
class FrameLog {
 public:
  enum class Detail : std::uint8_t { none, summary, every_frame };

  FrameLog(Console& console, Detail detail) : console_(console), detail_(detail) {}

  /// A command that was taken, or ignored for that reason.
  void command(double at, const Frame& frame, const CameraCommand& command,
               std::string_view ignored);
  void bad_frame(double at, const std::string& why, Bytes datagram);
  /// Shows what is left to say.
  void end(double at);

 private:
  bool is_repeated(double at, Bytes speed);
  void line(double at, const std::string& text);

  Console& console_;
  Detail detail_;
  std::vector<std::uint8_t> last_speed_;
  std::uint64_t repeated_ = 0;
};

}  // namespace nimbus::sim
