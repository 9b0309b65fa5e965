// The camera's codes and what they stand for. Commands look up the code of a value, reports the
// value of a code.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

namespace nimbus {

/// A value that the camera knows by a code.
template <typename Value>
struct Code {
  Value value;
  std::uint8_t code;
};

/// The code of exactly that value, or `unknown`. The table is any range of Code.
template <typename Table, typename Value>
[[nodiscard]] constexpr std::uint8_t code_of(const Table& table, const Value& value,
                                             std::uint8_t unknown) noexcept {
  const auto found = std::find_if(std::begin(table), std::end(table),
                                  [&value](const auto& row) { return row.value == value; });
  return found == std::end(table) ? unknown : found->code;
}

/// The value of that code, or a zero or empty one. The table is any range of Code.
template <typename Table>
[[nodiscard]] constexpr auto value_of(const Table& table, std::uint8_t code) noexcept {
  const auto found = std::find_if(std::begin(table), std::end(table),
                                  [code](const auto& row) { return row.code == code; });
  return found == std::end(table) ? decltype(found->value){} : found->value;
}

inline constexpr std::array<Code<std::string_view>, 12> kColours{{
    {"none", 0},
    {"art", 1},
    {"black white", 4},
    {"vivid", 5},
    {"d-cinelike", 6},
    {"portrait", 7},
    {"beach", 14},
    {"dream", 16},
    {"classic", 18},
    {"nostalgia", 19},
    {"d-log", 23},
    {"d-clike", 52},
}};

/// Exposure compensation in EV, each the double nearest to the decimal number.
inline constexpr std::array<Code<double>, 19> kEvSteps{{
    {-3.0, 7},  {-2.7, 8},  {-2.3, 9}, {-2.0, 10}, {-1.7, 11}, {-1.3, 12}, {-1.0, 13},
    {-0.7, 14}, {-0.3, 15}, {0.0, 16}, {0.3, 17},  {0.7, 18},  {1.0, 19},  {1.3, 20},
    {1.7, 21},  {2.0, 22},  {2.3, 23}, {2.7, 24},  {3.0, 25},
}};

/// An ISO value that the camera knows; 0 is the automatic.
struct Iso {
  std::uint16_t value;
  std::uint8_t code;
  std::string_view word;  ///< of the commands; empty: it is only reported
};

inline constexpr std::array<Iso, 10> kIsoValues{{
    {0, 0, "auto"},
    {25, 1, ""},
    {50, 2, ""},
    {100, 3, "100"},
    {200, 4, "200"},
    {400, 5, "400"},
    {800, 6, "800"},
    {1600, 7, "1600"},
    {3200, 8, "3200"},
    {6400, 9, "6400"},
}};

struct Resolution {
  std::uint16_t width = 0;   ///< pixels
  std::uint16_t height = 0;  ///< pixels
  std::string_view label;
  bool operator==(const Resolution&) const = default;
};

inline constexpr std::array<Code<Resolution>, 5> kResolutions{{
    {{1280, 720, "720p"}, 4},
    {{1920, 1080, "1080p"}, 10},
    {{3840, 2160, "3.8K"}, 16},
    {{4096, 2160, "4K"}, 22},
    {{2704, 1520, "2.7K"}, 24},
}};

/// Frames a second.
inline constexpr std::array<Code<std::uint16_t>, 7> kFrameRates{{
    {24, 1},
    {25, 2},
    {30, 3},
    {48, 4},
    {50, 5},
    {60, 6},
    {120, 7},
}};

/// A white balance that the camera reports.
struct WhiteBalance {
  std::string_view value;
  std::uint8_t code;
  std::uint8_t tint;  ///< the byte behind the code in its command; 0: no word alone selects it
};

inline constexpr std::array<WhiteBalance, 7> kWhiteBalances{{
    {"auto", 0, 0x44},
    {"sunny", 1, 0x30},
    {"cloudy", 2, 0x40},
    {"unknown", 3, 0},
    {"incandescent", 4, 0x44},
    {"neon", 5, 0x19},
    {"custom", 6, 0},  // with a colour temperature instead
}};

// What the camera's reports call things; some of its commands have other words for them.
inline constexpr std::array<Code<std::string_view>, 3> kCameraModeNames{{
    {"photo", 0},
    {"video", 1},
    {"play", 7},
}};
inline constexpr std::uint8_t kPhotoMode = kCameraModeNames[0].code;
inline constexpr std::uint8_t kVideoMode = kCameraModeNames[1].code;
inline constexpr std::array<Code<std::string_view>, 4> kExposureModeNames{{
    {"auto", 1},
    {"S", 2},
    {"A", 3},
    {"M", 4},
}};
inline constexpr std::array<Code<std::string_view>, 3> kPhotoFormatNames{{
    {"RAW", 0},
    {"JPG", 1},
    {"JPG+RAW", 2},
}};

/// Every shutter time that the camera takes, longest exposure first: seconds with an "s", fractions
/// of a second by their denominator.
inline constexpr std::array<std::string_view, 57> kShutterTexts{
    "30s",  "25s",  "20s",  "15s",  "10s",  "9s",   "8s",   "7s",   "6s",   "5s",  "4s",  "3.2s",
    "3s",   "2.5s", "2s",   "1.6s", "1.3s", "1s",   "1.25", "1.67", "2",    "2.5", "3",   "4",
    "5",    "6.25", "8",    "10",   "12.5", "15",   "20",   "25",   "30",   "40",  "50",  "60",
    "80",   "100",  "120",  "160",  "200",  "240",  "320",  "400",  "500",  "640", "800", "1000",
    "1250", "1600", "2000", "2500", "3200", "4000", "5000", "6400", "8000",
};

/// A shutter time on the wire: u16 whole part with bit 15 set for fractions of a second, then the
/// digits behind the decimal point as a number.
using ShutterCode = std::array<std::uint8_t, 3>;

/// What such a code says, read as a number of 24 bits.
struct ShutterTime {
  std::int32_t whole;     ///< of seconds, or of the denominator
  std::int32_t decimals;  ///< the digits behind the point, as a number
  bool fraction;          ///< of a second

  /// Whether it is a time: none has whole seconds above 255.
  [[nodiscard]] constexpr bool known() const noexcept { return fraction || whole <= 0xFF; }
};
[[nodiscard]] constexpr ShutterTime shutter_time(std::uint32_t code) noexcept {
  return {static_cast<std::int32_t>(code & 0x7FFFU), static_cast<std::int32_t>(code >> 16 & 0xFFU),
          (code & 0x8000U) != 0};
}

/// The code of one of kShutterTexts; three zeros for any other text.
[[nodiscard]] ShutterCode shutter_code(std::string_view text) noexcept;

}  // namespace nimbus
