#include "camera/codes.h"

namespace nimbus {
namespace {

/// The number of the digits that `text` starts with, which are taken off it.
constexpr unsigned take_number(std::string_view& text) {
  unsigned number = 0;
  while (!text.empty() && text.front() >= '0' && text.front() <= '9') {
    number = number * 10 + static_cast<unsigned>(text.front() - '0');
    text.remove_prefix(1);
  }
  return number;
}

constexpr ShutterCode encode(std::string_view text) {
  const bool seconds = text.ends_with('s');
  const unsigned whole = take_number(text);
  unsigned decimals = 0;
  if (text.starts_with('.')) {
    text.remove_prefix(1);
    decimals = take_number(text);
  }
  constexpr unsigned kFractionOfASecond = 0x8000;
  const unsigned word = whole | (seconds ? 0 : kFractionOfASecond);
  return {static_cast<std::uint8_t>(word), static_cast<std::uint8_t>(word >> 8),
          static_cast<std::uint8_t>(decimals)};
}
static_assert(encode("30s") == ShutterCode{0x1E, 0x00, 0x00});
static_assert(encode("1.6s") == ShutterCode{0x01, 0x00, 0x06});
static_assert(encode("1.67") == ShutterCode{0x01, 0x80, 0x43});
static_assert(encode("8000") == ShutterCode{0x40, 0x9F, 0x00});

}  // namespace

ShutterCode shutter_code(std::string_view text) noexcept {
  const auto* const found = std::find(kShutterTexts.begin(), kShutterTexts.end(), text);
  return found == kShutterTexts.end() ? ShutterCode{} : encode(text);
}

}  // namespace nimbus
