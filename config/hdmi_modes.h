// The HDMI modes that a viewer can choose.
#pragma once

#include <string_view>

namespace nimbus {

enum class HdmiGroup : int { cea = 0, dmt = 1 };

/// A mode as the firmware numbers it: the video identification code of CEA-861, or the identifier
/// of VESA DMT. Mode 0 is the display's own choice.
struct HdmiMode {
  HdmiGroup group = HdmiGroup::cea;
  int mode = 0;
};

/// The mode of exactly that name, or null. Any thread.
[[nodiscard]] const HdmiMode* hdmi_mode_lookup(std::string_view name) noexcept;

}  // namespace nimbus
