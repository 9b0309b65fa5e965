// Little-endian integers in byte buffers. Every multi-byte value on a wire or in a frame goes
// through these, never through a cast of the buffer: frames are not aligned, and the codec says
// which byte order the wire has.
#pragma once

#include <cassert>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

namespace nimbus {

/// Reads a T at `offset`, low byte first. The caller has checked offset + sizeof(T) against the
/// buffer.
template <std::integral T>
[[nodiscard]] constexpr T load_le(std::span<const std::uint8_t> bytes,
                                  std::size_t offset) noexcept {
  assert(offset + sizeof(T) <= bytes.size());
  std::make_unsigned_t<T> value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    value = static_cast<std::make_unsigned_t<T>>(
        value | static_cast<std::uint64_t>(bytes[offset + i]) << (8 * i));
  }
  return static_cast<T>(value);
}

/// Writes `value` at `offset`, low byte first. The caller has checked offset + sizeof(T) against
/// the buffer.
template <std::integral T>
constexpr void store_le(std::span<std::uint8_t> bytes, std::size_t offset, T value) noexcept {
  assert(offset + sizeof(T) <= bytes.size());
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    bytes[offset + i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * i));
  }
}

}  // namespace nimbus
