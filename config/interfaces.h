// The board's network interfaces, as the system lists them. Control thread.
#pragma once

#include <span>

#include "base/text_builder.h"

namespace nimbus {

/// Appends {"name":..,"addr":..} for each IPv4 address of each interface but "lo", in the system's
/// order, comma-separated. An item that does not fit whole is left out, and all behind it.
void iface_list_json(TextBuilder& list) noexcept;

// Nobody in the service calls this one: it is for setting up the networks, see config/wireless.h.

/// The first IPv4 address of an interface into `address`, NUL-terminated and cut to it; nothing is
/// written when it has none.
void iface_address(const char* iface, std::span<char> address) noexcept;

}  // namespace nimbus
