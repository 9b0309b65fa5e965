// What the board's Wi-Fi tools tell. They run while the caller waits. For a name that is no
// interface's (16 characters or more, or anything but letters, digits, ".", "-" and "_"), no tool
// is started. Control thread.
#pragma once

#include <cstdint>

#include "base/text_builder.h"

namespace nimbus {

/// Appends the names of the Wi-Fi networks that an interface sees, comma-separated, as the tool
/// prints them: not escaped, a hidden one empty, one for each access point. Returns the tool's wait
/// status, or -1 when it cannot be started.
int wifi_scan(const char* iface, TextBuilder& list) noexcept;

// Nobody in the service calls what follows: it is for setting up the networks, which the board's
// own services do for now.

/// The network that an interface is connected to, up to 39 bytes, with its line end. Empty when
/// there is none. Static storage, overwritten by the next call.
const char* wifi_status_ssid(const char* iface) noexcept;

/// A Wi-Fi client connection.
struct WlanStatus {
  std::int32_t freq = 0;     ///< as the tool reports it
  std::uint8_t quality = 0;  ///< of quality_max
  std::uint8_t quality_max = 0;
  std::uint8_t signal = 0;     ///< as the tool reports it, cut to a byte
  const char* ssid = nullptr;  ///< static storage, overwritten by the next call
};

/// Takes over what "./bin/wlanstatus" reports; members that it does not name stay as they are.
/// Returns the tool's wait status, or -1 when it cannot be started.
int wifi_link_status(const char* iface, WlanStatus& status) noexcept;

}  // namespace nimbus
