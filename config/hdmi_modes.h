// The HDMI modes that a viewer can choose.
#pragma once

#include <array>
#include <string_view>

#include "base/word_table.h"

namespace nimbus {

enum class HdmiGroup : int { cea = 0, dmt = 1 };

/// A mode as the firmware numbers it: the video identification code of CEA-861, or the identifier
/// of VESA DMT. Mode 0 is the display's own choice.
struct HdmiMode {
  HdmiGroup group = HdmiGroup::cea;
  int mode = 0;
};

inline constexpr std::array<Word<HdmiMode>, 21> kHdmiModes{{
    {"default", {HdmiGroup::cea, 0}},
    {"640x480@60p CEA", {HdmiGroup::cea, 1}},
    {"1280x720@50p CEA", {HdmiGroup::cea, 19}},
    {"1280x720@60p CEA", {HdmiGroup::cea, 4}},
    {"1920x1080@50i CEA", {HdmiGroup::cea, 20}},
    {"1920x1080@50p CEA", {HdmiGroup::cea, 31}},
    {"1920x1080@60i CEA", {HdmiGroup::cea, 5}},
    {"1920x1080@60p CEA", {HdmiGroup::cea, 16}},
    {"1920x1080@24p CEA", {HdmiGroup::cea, 32}},
    {"1920x1080@25p CEA", {HdmiGroup::cea, 33}},
    {"1920x1080@30p CEA", {HdmiGroup::cea, 34}},
    {"640x480@60p DMT", {HdmiGroup::dmt, 4}},
    {"640x480@75p DMT", {HdmiGroup::dmt, 6}},
    {"800x600@60p DMT", {HdmiGroup::dmt, 9}},
    {"800x600@75p DMT", {HdmiGroup::dmt, 11}},
    {"1024x768@60p DMT", {HdmiGroup::dmt, 16}},
    {"1024x768@75p DMT", {HdmiGroup::dmt, 18}},
    {"1152x864@75p DMT", {HdmiGroup::dmt, 21}},
    {"1280x1024@60p DMT", {HdmiGroup::dmt, 35}},
    {"1280x1024@75p DMT", {HdmiGroup::dmt, 36}},
    {"1920x1080@60p DMT", {HdmiGroup::dmt, 82}},
}};

/// The mode of exactly that name, or null. Any thread.
[[nodiscard]] const HdmiMode* hdmi_mode_lookup(std::string_view name) noexcept;

}  // namespace nimbus
