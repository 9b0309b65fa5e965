// What must be known of H.265 to pass its pictures on (ITU-T H.265, 7.3).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "tools/web/bytes.h"

namespace nimbus::web::h265 {

enum class Unit : std::uint8_t {
  first_key = 16,
  last_key = 23,
  vps = 32,
  sps = 33,
  pps = 34,
  delimiter = 35,
  filler = 38,
};

[[nodiscard]] inline Unit unit_of(Bytes unit) { return static_cast<Unit>(unit[0] >> 1U & 0x3FU); }

[[nodiscard]] bool is_slice(Unit unit);
/// A slice of a picture to begin at.
[[nodiscard]] bool is_key(Unit unit);

/// Whether a unit begins a picture when a slice stood before it, by its first byte and its third.
[[nodiscard]] bool begins_picture(std::uint8_t header, std::uint8_t third);

/// A sequence parameter set.
struct Sps {
  std::array<std::uint8_t, 12> profile{};  ///< profile, tier and level, as they stand
  std::uint32_t chroma_format = 1;
  std::uint32_t luma_depth = 8;
  std::uint32_t chroma_depth = 8;
  unsigned layers = 1;
  bool nested = false;
  std::uint32_t width = 0;   ///< pixels, cropped
  std::uint32_t height = 0;  ///< pixels, cropped
};

/// Reads one with its header. Nothing when it is cut, or says what no stream has.
[[nodiscard]] std::optional<Sps> parse_sps(Bytes unit);

/// What a browser calls the coding: "hvc1.1.6.L93.B0".
[[nodiscard]] std::string codec_of(const Sps& sps);

}  // namespace nimbus::web::h265
