// The RC channel map: which control function each receiver channel drives.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "base/word_table.h"

namespace nimbus {

/// Codes of the control functions, as the RC reader, the display and the RC input control read them
/// from the display region.
enum class RcFunction : std::uint8_t {
  pan = 0,
  tilt = 1,
  record = 2,
  record_shot = 3,
  menu = 4,
  ev = 5,
  zoom = 6,
  focus = 7,
  dutch = 8,
  focus_pan = 9,
  focus_tilt = 10,
  digital_zoom = 11,
  digital_zoom2 = 12,
  iso = 13,
  shutter = 14,
  aperture = 15,
  videomode = 16,
  custom_focus_assistant = 17,
  centre = 18,
  intcamera = 19,
  osd = 20,
  orient_lock = 21,
  none = 255,  ///< the channel drives nothing
};

/// The words of the configuration for them.
inline constexpr std::array<Word<RcFunction>, 22> kRcFunctionWords{{
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
    {"center", RcFunction::centre},
    {"intcamera", RcFunction::intcamera},
    {"osd", RcFunction::osd},
    {"orient-lock", RcFunction::orient_lock},
}};

/// Publishes a map in the display region: the n-th comma-separated word is the function of channel
/// n, 0 to 31. Words match exactly, blanks and capitals included; an unknown or empty word, and
/// every channel behind the last word, is `none`. Words behind the 32nd are ignored. Does nothing
/// while no region is mapped. Main thread at start, control thread afterwards.
void parse_rc_input_map(std::string_view map) noexcept;

}  // namespace nimbus
