// What must be known of H.264 to pass its pictures on (ITU-T H.264, 7.3).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/web/bytes.h"

namespace nimbus::web::h264 {

/// Kinds of units, as far as they matter here.
enum class Unit : std::uint8_t {
  slice = 1,
  key_slice = 5,
  sei = 6,
  sps = 7,
  pps = 8,
  delimiter = 9,
  filler = 12,
};

[[nodiscard]] inline Unit unit_of(Bytes unit) { return static_cast<Unit>(unit[0] & 0x1FU); }

/// A slice of any kind.
[[nodiscard]] bool is_slice(Unit unit);

/// Whether a unit begins a picture when a slice stood before it, by its first two bytes.
[[nodiscard]] bool begins_picture(std::uint8_t header, std::uint8_t second);

/// A sequence parameter set.
struct Sps {
  std::uint32_t id = 0;
  std::uint8_t profile = 0;
  std::uint8_t compatibility = 0;
  std::uint8_t level = 0;
  std::uint32_t chroma_format = 1;
  std::uint32_t luma_depth = 8;
  std::uint32_t chroma_depth = 8;
  bool separate_colour_planes = false;
  unsigned frame_number_bits = 4;
  std::uint32_t order_type = 0;  ///< 2: pictures are shown in the order in which they come
  std::uint32_t reference_frames = 0;
  bool frame_numbers_may_lack = false;
  bool frames_only = true;
  std::uint32_t width = 0;   ///< pixels, cropped
  std::uint32_t height = 0;  ///< pixels, cropped
  std::optional<std::uint32_t>
      reordered;           ///< how many pictures may be; nothing when it is not said
  std::size_t vui_at = 0;  ///< bit of the flag that says whether usage information follows
  bool has_vui = false;
  std::size_t restriction_at = 0;  ///< bit of the flag for the restrictions; with usage information
};

/// Reads one with its header byte. Nothing when it is cut, or says what no stream has.
[[nodiscard]] std::optional<Sps> parse_sps(Bytes unit);

/// The same unit, saying that pictures are not reordered: a decoder need not hold any back. One
/// that says so already stays as it is. `sps` is what parse_sps has read of it.
[[nodiscard]] Buffer without_reordering(Bytes unit, const Sps& sps);

/// What a browser calls the coding: "avc1.64001e".
[[nodiscard]] std::string codec_of(const Sps& sps);

/// The id of a picture parameter set.
[[nodiscard]] std::optional<std::uint32_t> pps_id(Bytes unit);

/// The head of a slice.
struct Slice {
  std::uint32_t type = 0;  ///< 0 to 4: P, B, I, SP, SI
  std::uint32_t frame_number = 0;
  bool reference = false;
};

[[nodiscard]] std::optional<Slice> parse_slice(Bytes unit, const Sps& sps);

/// Whether a unit of supplemental information marks a point to begin at without a key picture.
[[nodiscard]] bool has_recovery_point(Bytes unit);

}  // namespace nimbus::web::h264
