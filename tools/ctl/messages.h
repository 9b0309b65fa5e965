// What the service sends to its viewers beside video, by the first byte of the payload.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "tools/ctl/value.h"

namespace nimbus::ctl {

struct Message {
  std::string_view name;  ///< "unknown" for what has no decoder, or another size than its kind
  Fields fields = {};
  std::string json = {};  ///< of a JSON text, as it came
};

/// Decodes the payload of a frame that is not video. Fields without a known meaning have the names
/// that the display region gives them.
[[nodiscard]] Message decode_message(std::span<const std::uint8_t> payload);

/// One line for people, and one JSON object.
[[nodiscard]] std::string text_of(const Message& message);
[[nodiscard]] std::string json_of(const Message& message, double time, std::uint32_t number);

/// An exposure time from the camera's code of 24 bits: "1/50 s", "1.3 s".
[[nodiscard]] std::string shutter_text(std::uint32_t code);

}  // namespace nimbus::ctl
