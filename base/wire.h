// Little-endian numbers in byte buffers, and the layouts that they make. Every multi-byte value on
// a wire or in a frame goes through these, never through a cast of the buffer: frames are not
// aligned, and the codec says which byte order the wire has.
#pragma once

#include <bit>
#include <cassert>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

namespace nimbus {

/// Reads a number of `size` bytes at `offset`, low byte first: a T, or an unsigned number that is
/// narrower than its type. The caller has checked offset + size against the buffer.
template <std::integral T, std::size_t size = sizeof(T)>
[[nodiscard]] constexpr T load_le(std::span<const std::uint8_t> bytes,
                                  std::size_t offset) noexcept {
  static_assert(size == sizeof(T) || (size < sizeof(T) && std::is_unsigned_v<T>));
  assert(offset + size <= bytes.size());
  std::make_unsigned_t<T> value = 0;
  for (std::size_t i = 0; i < size; ++i) {
    value = static_cast<std::make_unsigned_t<T>>(
        value | static_cast<std::uint64_t>(bytes[offset + i]) << (8 * i));
  }
  return static_cast<T>(value);
}

/// The same for a number in the format of IEEE 754 single precision.
template <std::same_as<float> T, std::size_t size = sizeof(T)>
[[nodiscard]] constexpr T load_le(std::span<const std::uint8_t> bytes,
                                  std::size_t offset) noexcept {
  return std::bit_cast<float>(load_le<std::uint32_t>(bytes, offset));
}

/// Writes the low `size` bytes of `value` at `offset`, low byte first. The caller has checked
/// offset + size against the buffer.
template <std::integral T, std::size_t size = sizeof(T)>
constexpr void store_le(std::span<std::uint8_t> bytes, std::size_t offset, T value) noexcept {
  static_assert(size <= sizeof(T));
  assert(offset + size <= bytes.size());
  for (std::size_t i = 0; i < size; ++i) {
    bytes[offset + i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * i));
  }
}
template <std::same_as<float> T, std::size_t size = sizeof(T)>
constexpr void store_le(std::span<std::uint8_t> bytes, std::size_t offset, T value) noexcept {
  store_le(bytes, offset, std::bit_cast<std::uint32_t>(value));
}

// --- Layouts -----------------------------------------------------------------------------------
// A layout is a list of named places. Who writes by it and who reads by it cannot differ.

/// A number at a fixed place of a frame or message. A uint32_t of 3 bytes is one of 24 bits.
template <typename T, std::size_t size = sizeof(T)>
struct WireField {
  std::size_t at;
  std::string_view name;
};

/// So many bytes from a fixed place on.
template <std::size_t count>
struct WireBytes {
  std::size_t at;
  std::string_view name;
};

/// So many 16-bit numbers from a fixed place on.
template <std::size_t count>
struct WireWords {
  std::size_t at;
  std::string_view name;

  /// One of them.
  [[nodiscard]] constexpr WireField<std::uint16_t> word(std::size_t i) const noexcept {
    return {at + 2 * i, name};
  }
};

/// One bit of a byte at a fixed place; 0 is the lowest.
struct WireBit {
  std::size_t at;
  unsigned bit;
  std::string_view name;
};

/// Any of these, for those who walk a layout.
struct WireItem {
  enum class Kind : std::uint8_t { natural, integer, real, bit };

  std::string_view name;
  std::size_t at;         ///< of its first byte
  std::size_t size = 1;   ///< of one, in bytes
  std::size_t count = 1;  ///< in a row
  Kind kind = Kind::natural;
  unsigned bit = 0;  ///< of a bit: which one

  template <typename T, std::size_t bytes>
  constexpr WireItem(const WireField<T, bytes>& field) noexcept
      : name(field.name),
        at(field.at),
        size(bytes),
        kind(std::is_floating_point_v<T> ? Kind::real
             : std::is_signed_v<T>       ? Kind::integer
                                         : Kind::natural) {}
  template <std::size_t bytes>
  constexpr WireItem(const WireBytes<bytes>& field) noexcept
      : name(field.name), at(field.at), count(bytes) {}
  template <std::size_t words>
  constexpr WireItem(const WireWords<words>& field) noexcept
      : name(field.name), at(field.at), size(2), count(words) {}
  constexpr WireItem(const WireBit& field) noexcept
      : name(field.name), at(field.at), kind(Kind::bit), bit(field.bit) {}

  /// The offset behind its last byte.
  [[nodiscard]] constexpr std::size_t end() const noexcept { return at + size * count; }
};

/// Bytes that are read by a layout. Whoever makes one has checked that the layout fits.
class ByteView {
 public:
  constexpr explicit ByteView(std::span<const std::uint8_t> bytes) noexcept : bytes_(bytes) {}

  template <typename T, std::size_t size>
  [[nodiscard]] constexpr T operator[](const WireField<T, size>& field) const noexcept {
    return load_le<T, size>(bytes_, field.at);
  }
  [[nodiscard]] constexpr std::uint8_t operator[](const WireBit& field) const noexcept {
    return static_cast<std::uint8_t>(bytes_[field.at] >> field.bit & 1U);
  }
  template <std::size_t count>
  [[nodiscard]] constexpr std::span<const std::uint8_t, count> operator[](
      const WireBytes<count>& field) const noexcept {
    return bytes_.subspan(field.at).template first<count>();
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

/// Writes a value where a layout has it.
template <typename T, std::size_t size>
constexpr void put(std::span<std::uint8_t> bytes, const WireField<T, size>& field,
                   std::type_identity_t<T> value) noexcept {
  store_le<T, size>(bytes, field.at, value);
}
/// Sets or clears a bit where a layout has it.
constexpr void put(std::span<std::uint8_t> bytes, const WireBit& field, bool value) noexcept {
  const unsigned others = bytes[field.at] & ~(1U << field.bit);
  bytes[field.at] = static_cast<std::uint8_t>(others | (value ? 1U : 0U) << field.bit);
}
/// The bytes that a layout has there, to be filled.
template <std::size_t count>
[[nodiscard]] constexpr std::span<std::uint8_t, count> bytes_of(
    std::span<std::uint8_t> bytes, const WireBytes<count>& field) noexcept {
  return bytes.subspan(field.at).template first<count>();
}

}  // namespace nimbus
