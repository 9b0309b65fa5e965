// Numbers from outside into integers, with the same result on every processor.
#pragma once

#include <algorithm>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace nimbus {

/// Truncates toward zero, saturates at the limits of Int, and gives 0 for NaN. A bare cast of a
/// value out of range is undefined behaviour, and x86 and ARM answer it differently.
template <std::integral Int, std::floating_point Float>
[[nodiscard]] constexpr Int to_integer(Float value) noexcept {
  using Limits = std::numeric_limits<Int>;
  if (value != value) return 0;  // NOLINT(misc-redundant-expression): true for NaN
  // One past the largest Int is a power of two and so exact in every floating type; the largest
  // Int itself may not be.
  constexpr Float kPastMax =
      static_cast<Float>(std::uint64_t{1} << (Limits::digits - 1)) * Float{2};
  if (value >= kPastMax) return Limits::max();
  if (value <= static_cast<Float>(Limits::min())) return Limits::min();
  return static_cast<Int>(value);
}

/// The decimal number at the start of `text` (strtol, base 10): 0 where there is none, the leading
/// digits where text follows, and the nearest 32-bit limit beyond the range, whatever the size of
/// a long.
[[nodiscard]] inline std::int32_t parse_i32(const char* text) noexcept {
  const long number = std::strtol(text, nullptr, 10);
  return static_cast<std::int32_t>(std::clamp<long>(
      number, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

}  // namespace nimbus
