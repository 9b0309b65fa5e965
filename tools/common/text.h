// Short texts made of numbers.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "camera/codes.h"

namespace nimbus::tools {

/// printf into a string, cut to 255 characters.
[[nodiscard, gnu::format(printf, 1, 2)]] std::string format_text(const char* format, ...);

/// An exposure time: "1/50 s", "1.3 s".
[[nodiscard]] std::string exposure_text(const ShutterTime& time);

/// The bytes in hexadecimal, blanks between them.
[[nodiscard]] std::string hexadecimal(std::span<const std::uint8_t> bytes);

}  // namespace nimbus::tools
