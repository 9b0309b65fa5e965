// Numbers as people type them.
#pragma once

#include <cmath>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace nimbus::tools {

/// The number that the whole text is, or nothing. No blanks, infinities or NaN.
[[nodiscard]] inline std::optional<double> parse_real(std::string_view text) {
  // from_chars for floating types is younger than some compilers of the boards.
  const std::string copy(text);
  if (copy.empty() || copy.find_first_not_of("+-.0123456789eE") != std::string::npos) return {};
  char* end = nullptr;
  const double value = std::strtod(copy.c_str(), &end);
  if (*end != '\0' || !std::isfinite(value)) return {};
  return value;
}

/// The whole number from `lowest` to `highest` that the whole text is, or nothing.
[[nodiscard]] inline std::optional<unsigned> parse_whole(std::string_view text, unsigned lowest,
                                                         unsigned highest) {
  const auto value = parse_real(text);
  if (!value || std::trunc(*value) != *value || *value < lowest || *value > highest) return {};
  return static_cast<unsigned>(*value);
}

}  // namespace nimbus::tools
