#include "tools/sim/rc_reader.h"

#include <algorithm>
#include <array>

namespace nimbus::sim {
namespace {

using FunctionValues = std::array<std::optional<double>, RcReceiver::kFunctions>;

/// 1000 to 2000 become -1.0 to 1.0.
double centred(std::uint16_t raw) {
  constexpr double kMiddle = 1500;
  constexpr double kReach = 500;
  return std::clamp((raw - kMiddle) / kReach, -1.0, 1.0);
}

/// In a region that no service has used yet every channel has the code of "pan".
bool is_published(const DisplayRegion& display) {
  return std::any_of(display.rc_channel_map.begin(), display.rc_channel_map.end(),
                     [](const auto& code) { return code != 0; });
}

FunctionValues function_values(const RcReceiver& receiver, const DisplayRegion& display) {
  FunctionValues values;
  if (is_published(display)) {
    for (std::size_t channel = 0; channel < kRcChannels; ++channel) {
      const std::uint8_t code = display.rc_channel_map[channel];
      const auto& raw = receiver.channels[channel];
      if (code < values.size() && raw) values[code] = centred(*raw);
    }
  }
  for (std::size_t code = 0; code < values.size(); ++code) {
    if (receiver.functions[code]) values[code] = receiver.functions[code];
  }
  return values;
}

}  // namespace

void write_receiver(const RcReceiver& receiver, DisplayRegion& display) {
  for (std::size_t channel = 0; channel < kRcChannels; ++channel) {
    display.rc_channel_values[channel] = receiver.channels[channel].value_or(0);
  }
  const bool live = receiver.state == kReceiverLive;
  const FunctionValues values = function_values(receiver, display);
  for (std::size_t code = 0; code < values.size(); ++code) {
    const double value = values[code].value_or(0);
    display.rc_function_centred[code] = value;
    display.rc_function_position[code] = (value + 1) / 2;
    display.rc_function_assigned[code] = live && values[code] ? 1 : 0;
  }
  display.rc_status = receiver.state;
}

RcPlayback::~RcPlayback() {
  receiver_.state = 0;
  write_receiver(receiver_, display_);
}

void RcPlayback::play(double seconds) {
  player_.play(seconds, receiver_);
  write_receiver(receiver_, display_);
}

}  // namespace nimbus::sim
