// What holds whatever came from outside.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "config/config.h"
#include "config/fields.h"
#include "control/rc_map.h"
#include "display/region.h"

namespace nimbus::fuzz {

/// Ends the run with a finding unless the condition holds.
inline void require(bool condition) {
  if (!condition) std::abort();
}

/// A text field holds its NUL. For texts that no other thread writes at the moment.
template <std::size_t size>
void require_text(const SharedText<size>& text) {
  static_assert(sizeof(text) == size);
  require(std::memchr(&text, '\0', size) != nullptr);
}

/// Every flag of the record is a flag, every text ends within its field.
inline void require_settings(Config& config) {
  for (const ConfigField& field : kConfigFields) {
    require(field.kind != FieldKind::flag || config.*field.byte <= 1);
  }
  require_text(config.rc_input_mode);
  require_text(config.rc2_input_mode);
  require_text(config.rc_input_map);
  require_text(config.ap_iface);
  require_text(config.ap_ssid);
  require_text(config.ap_psk);
  require_text(config.ap_country);
  require_text(config.wifi_iface);
  require_text(config.wifi_ssid);
  require_text(config.wifi_psk);
  require_text(config.camera_iface);
  require_text(config.camera_ssid);
  require_text(config.camera_psk);
}

/// Every channel has a known function or none.
inline void require_channel_map(const DisplayRegion& region) {
  require(std::all_of(region.rc_channel_map.begin(), region.rc_channel_map.end(),
                      [](std::uint8_t code) {
                        return code <= static_cast<std::uint8_t>(RcFunction::orient_lock) ||
                               code == static_cast<std::uint8_t>(RcFunction::none);
                      }));
}

}  // namespace nimbus::fuzz
