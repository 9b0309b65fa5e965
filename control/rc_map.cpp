#include "control/rc_map.h"

#include <algorithm>
#include <array>

#include "app/display_region.h"

namespace nimbus {
namespace {

struct FunctionWord {
  std::string_view word;
  RcFunction function;
};

constexpr std::array<FunctionWord, 22> kFunctionWords{{
    {"pan", RcFunction::pan},
    {"tilt", RcFunction::tilt},
    {"record", RcFunction::record},
    {"record-shot", RcFunction::record_shot},
    {"menu", RcFunction::menu},
    {"ev", RcFunction::ev},
    {"zoom", RcFunction::zoom},
    {"focus", RcFunction::focus},
    {"dutch", RcFunction::dutch},
    {"focus-pan", RcFunction::focus_pan},
    {"focus-tilt", RcFunction::focus_tilt},
    {"digital-zoom", RcFunction::digital_zoom},
    {"digital-zoom2", RcFunction::digital_zoom2},
    {"iso", RcFunction::iso},
    {"shutter", RcFunction::shutter},
    {"aperture", RcFunction::aperture},
    {"videomode", RcFunction::videomode},
    {"custom-focus-assistant", RcFunction::custom_focus_assistant},
    {"center", RcFunction::center},
    {"intcamera", RcFunction::intcamera},
    {"osd", RcFunction::osd},
    {"orient-lock", RcFunction::orient_lock},
}};

RcFunction function_of(std::string_view word) {
  const auto* const found =
      std::find_if(kFunctionWords.begin(), kFunctionWords.end(),
                   [word](const FunctionWord& row) { return row.word == word; });
  return found == kFunctionWords.end() ? RcFunction::none : found->function;
}

}  // namespace

void parse_rc_input_map(std::string_view map) noexcept {
  DisplayRegion* const region = display_region();
  if (region == nullptr) return;
  auto& channels = region->rc_channel_map;
  for (auto& channel : channels) channel = static_cast<std::uint8_t>(RcFunction::none);
  for (auto& channel : channels) {
    const auto comma = map.find(',');
    channel = static_cast<std::uint8_t>(function_of(map.substr(0, comma)));
    if (comma == std::string_view::npos) break;
    map.remove_prefix(comma + 1);
  }
}

}  // namespace nimbus
