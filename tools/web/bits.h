// Bits of parameter sets, most significant first, as video streams write them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/web/bytes.h"

namespace nimbus::web {

/// A unit's content without the bytes that keep start codes out of it.
[[nodiscard]] Buffer unescaped(Bytes unit);
/// The same with them.
[[nodiscard]] Buffer escaped(Bytes content);

/// Reads bits. Beyond the end everything is 0, and ok() false.
class BitReader {
 public:
  explicit BitReader(Bytes bytes) : bytes_(bytes) {}

  /// At most 32 bits.
  std::uint32_t bits(unsigned count);
  bool flag() { return bits(1) != 0; }
  void skip(unsigned count);

  /// Exp-Golomb codes.
  std::uint32_t ue();
  std::int32_t se();

  [[nodiscard]] std::size_t position() const { return position_; }
  [[nodiscard]] bool ok() const { return ok_; }

 private:
  Bytes bytes_;
  std::size_t position_ = 0;
  bool ok_ = true;
};

/// Writes bits.
class BitWriter {
 public:
  void bits(std::uint32_t value, unsigned count);
  void flag(bool value) { bits(value ? 1 : 0, 1); }
  void ue(std::uint32_t value);

  /// The first `count` bits of `bytes`, which has as many.
  void copy(Bytes bytes, std::size_t count);

  /// The bytes, ended by a 1 and zeros up to the byte's end.
  [[nodiscard]] Buffer finish();

 private:
  Buffer bytes_;
  unsigned free_ = 0;  // bits of the last byte
};

}  // namespace nimbus::web
