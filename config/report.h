// The whole configuration as one JSON text.
#pragma once

#include <cstdint>
#include <span>

namespace nimbus {

/// Fills the buffer with the report, zeros behind it. Texts stand in it as they are stored, without
/// any escaping, pass phrases included. Returns the length less its last character, the closing
/// brace: callers measure the text themselves. Control thread.
std::int32_t config_report(std::span<char> buffer) noexcept;

}  // namespace nimbus
