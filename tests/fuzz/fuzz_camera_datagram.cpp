// Any datagram from the bridge fills the telemetry fields and no others, leaves every text with its
// NUL and every flag a flag, and the last histogram in it is the one that is shown.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/wire.h"
#include "camera/duml.h"
#include "control/telemetry.h"
#include "display/region.h"
#include "tests/fuzz/invariants.h"

namespace {

using nimbus::DisplayRegion;
using nimbus::fuzz::require;
using nimbus::fuzz::require_text;
using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t kTelemetryBegin = offsetof(DisplayRegion, gimbal_angle_1);
constexpr std::size_t kTelemetryEnd = offsetof(DisplayRegion, orientation_lock);
constexpr std::size_t kHistogramFrame = 77;

/// Calls visit(offset, length) for every frame of 10 bytes and more that the datagram holds whole,
/// with a byte behind it.
template <typename Visit>
void walk(Bytes bytes, Visit visit) {
  for (std::size_t at = 0; at + 2 < bytes.size();) {
    const std::size_t length = bytes[at + 1];
    if (bytes[at] != nimbus::kDumlStart) {
      ++at;
      continue;
    }
    if (at + length >= bytes.size()) return;
    if (length >= 10) visit(at, length);
    at += length == 0 ? 1 : length;
  }
}

std::uint16_t check_of(Bytes frame) { return nimbus::duml_crc16(frame.first(frame.size() - 2)); }

/// Gives every frame the check that it should have, which no fuzzer guesses.
void mend(std::span<std::uint8_t> bytes) {
  walk(bytes, [bytes](std::size_t at, std::size_t length) {
    const auto frame = bytes.subspan(at, length);
    nimbus::store_le(frame, length - 2, check_of(frame));
  });
}

std::optional<std::size_t> last_histogram(Bytes bytes) {
  std::optional<std::size_t> last;
  walk(bytes, [&](std::size_t at, std::size_t length) {
    const auto frame = bytes.subspan(at, length);
    const bool sound = check_of(frame) == nimbus::load_le<std::uint16_t>(frame, length - 2);
    if (sound && length == kHistogramFrame) last = at + nimbus::kDumlHeaderSize;
  });
  return last;
}

void check_texts(const DisplayRegion& region) {
  require_text(region.camera_mode_text);
  require_text(region.exposure_mode_text);
  require_text(region.resolution_text);
  require_text(region.white_balance_text);
  require_text(region.shutter_text);
  require_text(region.colour_text);
  require_text(region.photo_format_text);
}

void check_flags(const DisplayRegion& region) {
  require(region.gimbal_flag <= 1 && region.status_629 <= 1 && region.status_631 <= 1);
  require(region.recording_reset <= 1 && region.tracking_on <= 1);
  require(region.lens_known <= 1 && region.lens_flag <= 1);
  require(region.lens_bit_0 <= 1 && region.lens_bit_2 <= 1 && region.focus_mode <= 2);
}

void check_neighbours(const DisplayRegion& region) {
  const auto bytes = std::as_bytes(std::span(&region, 1));
  const auto untouched = [](auto part) {
    require(std::all_of(part.begin(), part.end(), [](std::byte b) { return b == std::byte{}; }));
  };
  untouched(bytes.first(kTelemetryBegin));
  untouched(bytes.subspan(kTelemetryEnd));
}

void scan_and_check(Bytes bytes, DisplayRegion& region) {
  nimbus::scan_camera_datagram(bytes);
  check_texts(region);
  check_flags(region);
  check_neighbours(region);
  if (const auto at = last_histogram(bytes)) {
    require(std::equal(region.histogram.begin(), region.histogram.end(), bytes.data() + *at));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static DisplayRegion* const region = nimbus::map_display_region();
  require(region != nullptr);
  scan_and_check({bytes, size}, *region);
  std::vector<std::uint8_t> mended(bytes, bytes + size);
  mend(mended);
  scan_and_check(mended, *region);
  return 0;
}
