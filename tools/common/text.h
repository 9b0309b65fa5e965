// Short texts made of numbers.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace nimbus::tools {

/// printf into a string, cut to 255 characters.
[[nodiscard, gnu::format(printf, 1, 2)]] std::string format_text(const char* format, ...);

/// The bytes in hexadecimal, blanks between them.
[[nodiscard]] std::string hexadecimal(std::span<const std::uint8_t> bytes);

}  // namespace nimbus::tools
