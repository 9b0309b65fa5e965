#include "tools/sim/frame_log.h"

#include <algorithm>
#include <cinttypes>

#include "tools/common/text.h"

namespace nimbus::sim {

using tools::format_text;
using tools::hexadecimal;

void FrameLog::command(double at, const Frame& frame, const CameraCommand& command,
                       std::string_view ignored) {
  if (detail_ == Detail::none) return;
  if (command.streamed && detail_ == Detail::summary && is_repeated(at, frame.payload)) {
    return;
  }
  std::string text = format_text("#%u ", unsigned{frame.sequence});
  text += describe(command, frame.payload);
  if (!ignored.empty()) text += " (ignored: " + std::string(ignored) + ")";
  line(at, text);
}

void FrameLog::bad_frame(double at, const std::string& why, Bytes datagram) {
  if (detail_ == Detail::none) return;
  line(at, "bad frame: " + why + ": " + hexadecimal(datagram));
}

bool FrameLog::is_repeated(double at, Bytes speed) {
  if (std::equal(speed.begin(), speed.end(), last_speed_.begin(), last_speed_.end())) {
    ++repeated_;
    return true;
  }
  end(at);
  last_speed_.assign(speed.begin(), speed.end());
  return false;
}

void FrameLog::end(double at) {
  if (repeated_ == 0) return;
  line(at, format_text("gimbal speed: the last one %" PRIu64 " more times", repeated_));
  repeated_ = 0;
}

void FrameLog::line(double at, const std::string& text) {
  console_.line(format_text("%8.3f ", at) + text);
}

}  // namespace nimbus::sim
