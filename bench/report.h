// Reports as the camera sends them.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "base/wire.h"
#include "camera/duml.h"

namespace nimbus::bench {

/// Puts the right check at the end of a frame.
inline void seal(std::span<std::uint8_t> frame) {
  const std::size_t checked = frame.size() - 2;
  store_le(frame, checked, duml_crc16(frame.first(checked)));
}

/// A sound report of that kind, with zeros in it.
inline std::vector<std::uint8_t> empty_report(std::uint8_t length, std::uint8_t command_set) {
  std::vector<std::uint8_t> frame(length);
  put(frame, DumlHeader::start, kDumlStart);
  put(frame, DumlHeader::length, length);
  put(frame, DumlHeader::set, command_set);
  seal(frame);
  return frame;
}

}  // namespace nimbus::bench
