// Short texts made of numbers.
#pragma once

#include <string>

namespace nimbus::sim {

/// printf into a string, cut to 255 characters.
[[nodiscard, gnu::format(printf, 1, 2)]] std::string format_text(const char* format, ...);

}  // namespace nimbus::sim
