#include "config/hdmi_modes.h"

namespace nimbus {

const HdmiMode* hdmi_mode_lookup(std::string_view name) noexcept {
  return find_word(kHdmiModes, name);
}

}  // namespace nimbus
